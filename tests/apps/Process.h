#pragma once

// Runs the program as a user would, and collects what it leaves. Throws std::runtime_error.

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "tests/apps/Pictures.h"
#include "tests/support/Generation.h"

namespace Norvex::Test {

struct ProcessResult {
    unsigned long exitCode = 0;
    std::string out;
    std::string err;
};

// norvexdx.exe beside this test, or what NORVEX_TEST_PROGRAM names there, while it runs. What has
// not ended is stopped with the object.
class StartedProgram : boost::noncopyable {
public:
    // Arguments are in UTF-8, the input is a file. program: another one beside this test.
    explicit StartedProgram(const std::vector<std::string>& arguments,
                            const std::string& input = {}, const wchar_t* program = nullptr) {
        std::wstring commandLine = L"\"" + GetPath(program).wstring() + L"\"";
        for (const std::string& argument : arguments) {
            commandLine += L" \"" + Core::WstringFromUtf8(argument) + L"\"";
        }
        WriteBytes(m_folder.GetPath("in"), input);
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = Open("in", GENERIC_READ, OPEN_EXISTING);
        startup.hStdOutput = Open("out", GENERIC_WRITE, CREATE_ALWAYS);
        startup.hStdError = Open("err", GENERIC_WRITE, CREATE_ALWAYS);
        const BOOL isStarted = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE,
                                              0, nullptr, nullptr, &startup, &m_process);
        for (HANDLE file : {startup.hStdInput, startup.hStdOutput, startup.hStdError}) {
            CloseHandle(file);
        }
        if (isStarted == FALSE) {
            throw std::runtime_error("the program does not start");
        }
    }
    ~StartedProgram() {
        TerminateProcess(m_process.hProcess, 1);
        HasEnded(kTimeLimit);
        CloseHandle(m_process.hThread);
        CloseHandle(m_process.hProcess);
    }

    static std::filesystem::path GetPath(const wchar_t* program) {
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        wchar_t named[MAX_PATH] = L"norvexdx.exe";
        GetEnvironmentVariableW(L"NORVEX_TEST_PROGRAM", named, MAX_PATH);
        return std::filesystem::path(self).parent_path() / (program != nullptr ? program : named);
    }
    HANDLE GetHandle() const { return m_process.hProcess; }
    DWORD GetId() const { return m_process.dwProcessId; }
    bool HasEnded(DWORD waitMs = 0) const {
        return WaitForSingleObject(m_process.hProcess, waitMs) == WAIT_OBJECT_0;
    }
    // Waits for the end, a minute at most.
    ProcessResult Wait() const {
        if (!HasEnded(kTimeLimit)) {
            throw std::runtime_error("the program does not end");
        }
        DWORD exitCode = 0;
        GetExitCodeProcess(m_process.hProcess, &exitCode);
        std::string out = ReadText(m_folder.GetPath("out"));
        while (out.starts_with("Validation Layer Info")) { // the layer's own, where there is one
            out.erase(0, out.find('\n') + 1);
        }
        return {exitCode, out, ReadText(m_folder.GetPath("err"))};
    }

private:
    static constexpr DWORD kTimeLimit = 60000; // ms

    HANDLE Open(const char* name, DWORD access, DWORD disposition) const {
        SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
        return CreateFileW(m_folder.GetPath(name).c_str(), access, FILE_SHARE_READ, &inheritable,
                           disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    TemporaryFolder m_folder;
    PROCESS_INFORMATION m_process = {};
};

// A folder, and command lines about its files (TemporaryFolder::Split).
class ProgramTest : public testing::Test {
protected:
    // Expects the exit code, and on standard error a line for each of the texts, which holds it. A
    // failure leaves neither more nor fewer files. Answers what is printed.
    std::string Run(const std::string& commandLine, const std::vector<std::string>& texts = {},
                    unsigned exitCode = 0, const std::string& input = {}) const {
        SCOPED_TRACE(commandLine);
        const auto files = m_folder.CountFiles();
        const ProcessResult result =
            StartedProgram(m_folder.Split(commandLine + m_options), input).Wait();
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_EQ(std::ranges::count(result.err, '\n'), std::ssize(texts)) << result.err;
        std::size_t from = 0;
        for (const std::string& text : texts) { // in this order
            from = result.err.find(text, from);
            EXPECT_NE(from, std::string::npos) << text << ": not in " << result.err;
        }
        if (exitCode != 0) {
            EXPECT_THAT(result.err, testing::StartsWith("norvexdx: "));
            EXPECT_EQ(m_folder.CountFiles(), files);
        }
        return result.out;
    }

    App::Image Read(const std::string& name) const {
        return App::ReadImage(m_folder.GetPath(name));
    }
    void Write(const std::string& name, const App::Image& image) const {
        App::WriteImage(m_folder.GetPath(name), image);
    }

    TemporaryFolder m_folder;
    std::string m_options; // behind each command line
};

// The same with either generation.
class ProgramTestOfBoth : public ProgramTest, public testing::WithParamInterface<Generation> {
protected:
    ProgramTestOfBoth() {
        m_options = GetParam() == Generation::Direct3D11 ? " --api d3d11" : " --api d3d12";
    }
};

} // namespace Norvex::Test
