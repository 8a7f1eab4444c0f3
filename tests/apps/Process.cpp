#include "tests/apps/Process.h"

#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>

#include "Host/Strings.h"
#include "apps/norvexdx/pictures/ImageFile.h"

namespace Norvex::Test {

namespace fs = std::filesystem;

namespace {

constexpr DWORD kTimeLimit = 60000; // ms
SECURITY_ATTRIBUTES g_inheritable = {sizeof(g_inheritable), nullptr, TRUE};

HANDLE OpenInheritable(const fs::path& path) {
    return CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &g_inheritable, CREATE_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
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

std::vector<std::string> GetLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
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

ProcessResult ProgramTest::Start(const std::string& commandLine, const Bytes& input) const {
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &g_inheritable, 0)) {
        throw std::runtime_error("there is no pipe");
    }
    SetHandleInformation(writeEnd, HANDLE_FLAG_INHERIT, 0);
    StartedProgram program(m_folder.Split(commandLine + m_options), readEnd);
    CloseHandle(readEnd);
    DWORD written = 0; // less when the program ends without reading
    WriteFile(writeEnd, input.data(), static_cast<DWORD>(input.size()), &written, nullptr);
    CloseHandle(writeEnd);
    return program.Wait();
}

std::string ProgramTest::Run(const std::string& commandLine, const Bytes& input,
                             const std::string& message) const {
    const ProcessResult result = Start(commandLine, input);
    EXPECT_EQ(0U, result.exitCode) << commandLine;
    EXPECT_THAT(result.err, testing::HasSubstr(message));
    EXPECT_EQ(message.empty() ? 0U : 1U, GetLines(result.err).size()) << result.err;
    return result.out;
}

std::string ProgramTest::ExpectFailure(const std::string& commandLine, unsigned exitCode,
                                       const std::vector<std::string>& texts,
                                       const Bytes& input) const {
    const auto files = m_folder.GetFiles();
    const ProcessResult result = Start(commandLine, input);
    EXPECT_EQ(exitCode, result.exitCode) << commandLine;
    const auto lines = GetLines(result.err);
    EXPECT_THAT(lines, testing::Each(testing::StartsWith("norvexdx: ")));
    std::vector<testing::Matcher<std::string>> expected;
    for (const std::string& text : texts) {
        expected.emplace_back(testing::HasSubstr(text));
    }
    EXPECT_THAT(lines, testing::UnorderedElementsAreArray(expected));
    EXPECT_EQ(files, m_folder.GetFiles()) << commandLine;
    return result.out;
}

App::Image ProgramTest::Read(const std::string& name) const {
    return App::ReadImage(m_folder.GetPath(name));
}

void ProgramTest::Write(const std::string& name, const App::Image& image) const {
    App::WriteImage(m_folder.GetPath(name), image);
}

} // namespace Norvex::Test
