#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Host/CoreException.h"
#include "Host/ProcException.h"
#include "Platform/Export.h"

namespace Norvex {

using StackFunction = std::string();

// Calls through volatile pointers are not inlined, and work after them keeps them from becoming
// jumps. Exported, so that their names are known whatever the debug information.
NORVEX_EXPORT std::string InnermostFrame() {
    StackFunction* volatile next = &GetCallStack;
    return next() + "\n";
}

NORVEX_EXPORT std::string OuterFrame() {
    StackFunction* volatile next = &InnermostFrame;
    return next() + "\n";
}

namespace {

// Matches a text that holds a line for a function of a module.
MATCHER_P2(HasFrame, module, function, "") {
    const std::string form = std::string(module) + R"(\+0x[0-9a-f]+ [^\n]*)" + function;
    return std::regex_search(arg, std::regex(form));
}

std::vector<std::string> GetLines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(CallStackTest, NamesFramesFromTheCallerOutwards) {
    StackFunction* volatile outer = &OuterFrame;
    std::string stack = outer();
    stack.resize(stack.find("\n\n"));
    const auto lines = GetLines(stack);
    ASSERT_GE(lines.size(), 3U);
    const std::regex form(R"(#\d+ (\S+\+0x[0-9a-f]+( \S.*\+0x[0-9a-f]+)?|0x[0-9a-f]{16}))");
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_TRUE(std::regex_match(lines[i], form)) << lines[i];
        EXPECT_EQ(lines[i].find("#" + std::to_string(i) + " "), 0U) << lines[i];
    }
    EXPECT_THAT(lines[0], HasFrame("HostTest.exe", "InnermostFrame"));
    EXPECT_THAT(lines[1], HasFrame("HostTest.exe", "OuterFrame"));
}

TEST(CallStackTest, NamesFramesOfTheSystemByTheirExports) {
    EXPECT_THAT(GetCallStack(),
                HasFrame("(?:kernel32|KERNEL32).(?:dll|DLL)", "BaseThreadInitThunk"));
}

// Thrown in the DLL, caught here by every type that callers may name.
template <class E>
void ExpectCaughtAs(const char* what) {
    try {
        Core::ThrowCoreException("Pump is dry");
    } catch (const E& e) {
        EXPECT_STREQ(dynamic_cast<const std::exception&>(e).what(), what);
        EXPECT_EQ(*boost::get_error_info<ErrorDescription>(e), "Pump is dry");
        EXPECT_STREQ(*boost::get_error_info<boost::throw_file>(e), "tests/Host/ExceptionTest.cpp");
        EXPECT_STREQ(*boost::get_error_info<boost::throw_function>(e), "ExpectCaughtAs");
        EXPECT_GT(*boost::get_error_info<boost::throw_line>(e), 0);
        const auto* stack = boost::get_error_info<ErrorCallStack>(e);
        ASSERT_NE(stack, nullptr);
        EXPECT_THAT(*stack, HasFrame("NorvexHost.dll", "ThrowCoreException"));
        EXPECT_THAT(*stack, testing::HasSubstr("HostTest.exe+0x"));
        return;
    }
    FAIL() << "nothing was thrown";
}

TEST(ExceptionTest, CrossesTheModuleBorderAsEachOfItsTypes) {
    ExpectCaughtAs<boost::wrapexcept<Core::CoreException>>("Core exception");
    ExpectCaughtAs<Core::CoreException>("Core exception");
    ExpectCaughtAs<Norvex::Exception>("Core exception");
    ExpectCaughtAs<std::exception>("Core exception");
    ExpectCaughtAs<boost::exception>("Core exception");
}

TEST(ExceptionTest, CopiesKeepTheDescription) {
    const auto original = Proc::ProcException() << ErrorDescription("Valve is stuck");
    Proc::ProcException assigned;
    EXPECT_EQ(assigned.GetErrorDescription(), "");
    assigned = original;
    EXPECT_EQ(assigned.GetErrorDescription(), "Valve is stuck");
    EXPECT_STREQ(assigned.what(), "Processing exception");
    EXPECT_STREQ(Norvex::Exception().what(), "Norvex exception");
}

} // namespace
} // namespace Norvex
