#pragma once

// Runs the program as a user would, and collects what it leaves. Throws std::runtime_error.

#include <string>
#include <vector>

#include "Platform/Direct3D.h"
#include "tests/apps/Pictures.h"

namespace Norvex::Test {

struct ProcessResult {
    unsigned long exitCode = 0;
    std::string out;
    std::string err;
};

// norvexdx.exe beside this test, or what NORVEX_TEST_PROGRAM names there. arguments: in UTF-8.
ProcessResult RunProgram(const std::vector<std::string>& arguments);

// The same, while it runs. What has not ended is stopped with the object.
class StartedProgram {
public:
    // standardInput: an inheritable handle, or none. program: another that is beside this test.
    explicit StartedProgram(const std::vector<std::string>& arguments,
                            HANDLE standardInput = nullptr, const wchar_t* program = nullptr);
    ~StartedProgram();
    StartedProgram(const StartedProgram&) = delete;
    StartedProgram& operator=(const StartedProgram&) = delete;

    HANDLE GetHandle() const { return m_process.hProcess; }
    DWORD GetId() const { return m_process.dwProcessId; }
    bool HasEnded(DWORD waitMs = 0) const;
    // Waits for the end, a minute at most.
    ProcessResult Wait();

private:
    TemporaryFolder m_folder;
    PROCESS_INFORMATION m_process = {};
};

} // namespace Norvex::Test
