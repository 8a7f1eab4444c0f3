#include <gmock/gmock.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Host/CoreException.h"
#include "Host/ProcException.h"

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
    std::istringstream stack(named());
    std::vector<std::string> lines;
    for (std::string line; std::getline(stack, line) && !line.empty();) {
        const std::regex form("#" + std::to_string(lines.size()) +
                              R"( (\S+\+0x[0-9a-f]+( \S.*\+0x[0-9a-f]+)?|0x[0-9a-f]{16}))");
        EXPECT_TRUE(std::regex_match(line, form)) << line;
        lines.push_back(line);
    }
    ASSERT_GE(lines.size(), 3U);
    EXPECT_TRUE(
        std::regex_match(lines[0], std::regex(R"(#0 HostTest\.exe\+\w+( .*HiddenFrame.*)?)")))
        << lines[0] << ": its own name, or none, but not that of the export before it";
    EXPECT_THAT(lines[1], HasFrame("HostTest.exe", "NamedFrame"));
    EXPECT_THAT(GetCallStack(),
                HasFrame("(?:kernel32|KERNEL32).(?:dll|DLL)", "BaseThreadInitThunk"));
}

// Thrown in the DLL, caught here by every type that callers may name.
template <class E>
void ExpectCaughtAs() {
    try {
        Core::ThrowCoreException("Pump is dry");
    } catch (const E& e) {
        EXPECT_STREQ(dynamic_cast<const std::exception&>(e).what(), "Core exception");
        EXPECT_EQ(*boost::get_error_info<ErrorDescription>(e), "Pump is dry");
        EXPECT_STREQ(*boost::get_error_info<boost::throw_file>(e), "tests/Host/ExceptionTest.cpp");
        EXPECT_STREQ(*boost::get_error_info<boost::throw_function>(e), "ExpectCaughtAs");
        EXPECT_GT(*boost::get_error_info<boost::throw_line>(e), 0);
        const std::string stack = *boost::get_error_info<ErrorCallStack>(e);
        EXPECT_THAT(stack, HasFrame("NorvexHost.dll", "ThrowCoreException"));
        EXPECT_THAT(stack, testing::HasSubstr("HostTest.exe+0x"));
        return;
    }
    FAIL() << "nothing was thrown";
}

TEST(ExceptionTest, CrossesTheModuleBorderAsEachOfItsTypes) {
    ExpectCaughtAs<boost::wrapexcept<Core::CoreException>>();
    ExpectCaughtAs<Core::CoreException>();
    ExpectCaughtAs<Norvex::Exception>();
    ExpectCaughtAs<std::exception>();
    ExpectCaughtAs<boost::exception>();
    const auto other = Proc::ProcException() << ErrorDescription("Valve is stuck");
    EXPECT_EQ(Proc::ProcException(other).GetErrorDescription(), "Valve is stuck");
    EXPECT_EQ(Proc::ProcException().GetErrorDescription(), "");
    EXPECT_STREQ(other.what(), "Processing exception");
    EXPECT_STREQ(Norvex::Exception().what(), "Norvex exception");
}

} // namespace
} // namespace Norvex
