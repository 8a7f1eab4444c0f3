#pragma once

// Runs the program as a user would, and collects what it leaves.

#include <string>
#include <vector>

namespace Norvex::Test {

struct ProcessResult {
    unsigned long exitCode = 0;
    std::string out;
    std::string err;
};

// norvexdx.exe beside this test. arguments: in UTF-8.
ProcessResult RunProgram(const std::vector<std::string>& arguments);

} // namespace Norvex::Test
