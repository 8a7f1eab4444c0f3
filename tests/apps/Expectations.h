#pragma once

// What the program fails with.

#include <string>

#include <gtest/gtest.h>

#include "apps/norvexdx/console/Failure.h"
#include "tests/apps/Pictures.h"

namespace Norvex::Test {

// The line that the call fails with, and the program with this exit code; "(nothing)" when it
// returns. Lets other exceptions pass.
template <class Call>
std::string FailureOf(const Call& call, App::ExitCode exitCode = App::ExitCode::Failure) {
    try {
        call();
    } catch (const App::Failure& failure) {
        EXPECT_EQ(failure.GetExitCode(), exitCode) << failure.what();
        return failure.what();
    }
    return "(nothing)";
}

} // namespace Norvex::Test
