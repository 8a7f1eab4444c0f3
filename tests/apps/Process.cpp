#include "tests/apps/Process.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"
#include "tests/apps/Pictures.h"

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

fs::path GetProgramPath() {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    return fs::path(self).parent_path() / "norvexdx.exe";
}

} // namespace

ProcessResult RunProgram(const std::vector<std::string>& arguments) {
    const TemporaryFolder folder;
    std::wstring commandLine = L"\"" + GetProgramPath().wstring() + L"\"";
    for (const std::string& argument : arguments) {
        commandLine += L" \"" + Core::WstringFromUtf8(argument) + L"\"";
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = OpenInheritable(folder.GetPath("out"));
    startup.hStdError = OpenInheritable(folder.GetPath("err"));
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                        &startup, &process)) {
        throw std::runtime_error("norvexdx.exe does not start");
    }
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
    const bool hasEnded = WaitForSingleObject(process.hProcess, kTimeLimit) == WAIT_OBJECT_0;
    if (!hasEnded) {
        TerminateProcess(process.hProcess, 1);
    }
    ProcessResult result;
    GetExitCodeProcess(process.hProcess, &result.exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    if (!hasEnded) {
        throw std::runtime_error("norvexdx.exe does not end");
    }
    result.out = ReadText(folder.GetPath("out"));
    result.err = ReadText(folder.GetPath("err"));
    return result;
}

} // namespace Norvex::Test
