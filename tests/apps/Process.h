#pragma once

// Runs the program as a user would, and collects what it leaves. Throws std::runtime_error.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Direct3D.h"
#include "tests/apps/Pictures.h"
#include "tests/support/Generation.h"

namespace Norvex::Test {

struct ProcessResult {
    unsigned long exitCode = 0;
    std::string out;
    std::string err;
};

std::vector<std::string> GetLines(const std::string& text);

// norvexdx.exe beside this test, or what NORVEX_TEST_PROGRAM names there, while it runs. What has
// not ended is stopped with the object.
class StartedProgram {
public:
    // arguments: in UTF-8. standardInput: an inheritable handle, or none. program: another that is
    // beside this test.
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

// A folder, and command lines about its files (TemporaryFolder::Split).
class ProgramTest : public testing::Test {
protected:
    // Standard input is a pipe.
    ProcessResult Start(const std::string& commandLine, const Bytes& input = {}) const;
    // What it prints. It must succeed, and say nothing but one line with this on standard error.
    std::string Run(const std::string& commandLine, const Bytes& input = {},
                    const std::string& message = {}) const;
    // It must fail with a line on standard error for each of the texts, in any order, which holds
    // it, and leave neither more nor fewer files. Answers what it prints.
    std::string ExpectFailure(const std::string& commandLine, unsigned exitCode,
                              const std::vector<std::string>& texts, const Bytes& input = {}) const;

    App::Image Read(const std::string& name) const;
    void Write(const std::string& name, const App::Image& image) const;

    TemporaryFolder m_folder;
    std::string m_options; // behind each command line
};

// The same with either generation.
class ProgramTestOfBoth : public ProgramTest, public testing::WithParamInterface<Generation> {
protected:
    ProgramTestOfBoth() { m_options = std::string(" --api ") + GetApi(); }

    static const char* GetApi() { return GetParam() == Generation::Direct3D11 ? "d3d11" : "d3d12"; }
};

} // namespace Norvex::Test
