#include <gmock/gmock.h>

#include <regex>
#include <string>

#include "Host/CoreException.h"

namespace Norvex {

using StackFunction = std::string();

// Calls through volatile pointers are not inlined, and work after them keeps them from becoming
// jumps.
static std::string HiddenFrame() {
    StackFunction* volatile next = &GetCallStack;
    return next() + "\n";
}

// Exported, so that its name is known whatever the debug information.
NORVEX_EXPORT std::string NamedFrame() {
    StackFunction* volatile next = &HiddenFrame;
    return next() + "\n";
}

namespace {

// Matches a text that holds a line for a function of a module.
MATCHER_P2(HasFrame, module, function, "") {
    const std::string form = std::string(module) + R"(\+0x[0-9a-f]+ [^\n]*)" + function;
    return std::regex_search(arg, std::regex(form));
}

TEST(CallStackTest, NamesFramesFromTheCallerOutwards) {
    StackFunction* volatile named = &NamedFrame;
    const std::string stack = named();
    const std::regex first(R"(#0 HostTest\.exe\+\w+( [^\n]*HiddenFrame[^\n]*)?\n#1 [^]*)");
    EXPECT_TRUE(std::regex_match(stack, first))
        << "its own name, or none, but not that of the export before it: " << stack;
    EXPECT_THAT(stack, HasFrame("#1 HostTest.exe", "NamedFrame"));
    EXPECT_THAT(stack, HasFrame("(?:kernel32|KERNEL32).(?:dll|DLL)", "BaseThreadInitThunk"));
}

// Thrown in the DLL, caught here by every type that callers may name.
template <class E>
void ExpectCaughtAs() {
    try {
        Core::ThrowCoreException("Pump is dry");
    } catch (const E& e) {
        EXPECT_EQ(*boost::get_error_info<ErrorDescription>(e), "Pump is dry");
        EXPECT_STREQ(*boost::get_error_info<boost::throw_file>(e), "tests/Host/ExceptionTest.cpp");
        EXPECT_STREQ(*boost::get_error_info<boost::throw_function>(e), "ExpectCaughtAs");
        EXPECT_THAT(*boost::get_error_info<ErrorCallStack>(e),
                    HasFrame("NorvexHost.dll", "ThrowCoreException"));
        return;
    }
    FAIL() << "nothing was thrown";
}

TEST(ExceptionTest, CrossesTheModuleBorderAsEachOfItsTypes) {
    ExpectCaughtAs<Core::CoreException>();
    ExpectCaughtAs<Norvex::Exception>();
    ExpectCaughtAs<std::exception>();
    ExpectCaughtAs<boost::exception>();
}

} // namespace
} // namespace Norvex
