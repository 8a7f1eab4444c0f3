#include "tests/apps/Process.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Host/Strings.h"

namespace Norvex::Test {

namespace fs = std::filesystem;

namespace {

constexpr DWORD kTimeLimit = 60000; // ms

HANDLE OpenInheritable(const fs::path& path) {
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), nullptr, TRUE};
    return CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &attributes, CREATE_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

std::string ReadText(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

fs::path GetProgramPath(const wchar_t* program) {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    wchar_t named[MAX_PATH] = {};
    if (program == nullptr) {
        const bool isNamed = GetEnvironmentVariableW(L"NORVEX_TEST_PROGRAM", named, MAX_PATH) != 0;
        program = isNamed ? named : L"norvexdx.exe";
    }
    return fs::path(self).parent_path() / program;
}

} // namespace

ProcessResult RunProgram(const std::vector<std::string>& arguments) {
    return StartedProgram(arguments).Wait();
}

StartedProgram::StartedProgram(const std::vector<std::string>& arguments, HANDLE standardInput,
                               const wchar_t* program) {
    std::wstring commandLine = L"\"" + GetProgramPath(program).wstring() + L"\"";
    for (const std::string& argument : arguments) {
        commandLine += L" \"" + Core::WstringFromUtf8(argument) + L"\"";
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = standardInput;
    startup.hStdOutput = OpenInheritable(m_folder.GetPath("out"));
    startup.hStdError = OpenInheritable(m_folder.GetPath("err"));
    const BOOL isStarted = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0,
                                          nullptr, nullptr, &startup, &m_process);
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
    if (isStarted == FALSE) {
        throw std::runtime_error("the program does not start");
    }
}

StartedProgram::~StartedProgram() {
    if (!HasEnded()) {
        TerminateProcess(m_process.hProcess, 1);
        HasEnded(kTimeLimit);
    }
    CloseHandle(m_process.hThread);
    CloseHandle(m_process.hProcess);
}

bool StartedProgram::HasEnded(DWORD waitMs) const {
    return WaitForSingleObject(m_process.hProcess, waitMs) == WAIT_OBJECT_0;
}

ProcessResult StartedProgram::Wait() {
    if (!HasEnded(kTimeLimit)) {
        throw std::runtime_error("the program does not end");
    }
    ProcessResult result;
    GetExitCodeProcess(m_process.hProcess, &result.exitCode);
    result.out = ReadText(m_folder.GetPath("out"));
    result.err = ReadText(m_folder.GetPath("err"));
    return result;
}

} // namespace Norvex::Test
