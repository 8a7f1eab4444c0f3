#include "apps/norvexdx/pictures/OutputFile.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <system_error>

#include <fmt/format.h>

#include "Host/SystemInfo.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

namespace fs = std::filesystem;

namespace {

// The files that an interruption removes. Held while one appears, gets its final name or goes.
struct UnfinishedFiles {
    std::mutex mutex;
    std::set<fs::path> paths;
};

UnfinishedFiles& GetUnfinishedFiles() {
    static UnfinishedFiles files;
    return files;
}

// Runs on a thread of the system's. The lock is never given back: no file is begun or finished
// after the sweep.
BOOL WINAPI HandleInterruption(DWORD) {
    UnfinishedFiles& files = GetUnfinishedFiles();
    files.mutex.lock();
    for (const fs::path& path : files.paths) {
        DeleteFileW(path.c_str());
    }
    // Not ExitProcess: other threads may be inside the graphics driver, whose unloading would wait
    // for them.
    TerminateProcess(GetCurrentProcess(), OutputFile::kInterruptedExitCode);
    return TRUE;
}

// "NUL", "CON" and whatever stands in "\\.\": no file of a folder.
bool IsDevice(const fs::path& path) {
    std::error_code error;
    return fs::absolute(path, error).wstring().starts_with(LR"(\\.\)");
}

// A device has no name to get: it is written to at once.
fs::path MakePassingPath(const fs::path& target) {
    static std::atomic<unsigned> counter{0};
    if (IsDevice(target)) {
        return target;
    }
    return target.parent_path() /
           fmt::format("norvexdx-{}-{}.tmp", GetCurrentProcessId(), counter.fetch_add(1));
}

std::string DescribeSystemError(DWORD error) {
    if (error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL) {
        return "the disk is full";
    }
    if (error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION) {
        return "access is denied";
    }
    auto [code, text] = Core::Utils::GetErrorInfo(HRESULT_FROM_WIN32(error));
    if (text.ends_with('.')) {
        text.pop_back();
    }
    return text.empty() ? code : text;
}

} // namespace

void CheckOutputPlace(const fs::path& target) {
    if (IsDevice(target)) {
        return;
    }
    std::error_code error;
    const fs::path folder = target.parent_path();
    if (!folder.empty() && !fs::is_directory(folder, error)) {
        throw Failure("there is no folder " + Utf8FromPath(folder));
    }
    if (fs::is_directory(target, error)) {
        throw Failure(Utf8FromPath(target) + " is a folder");
    }
}

OutputFile::OutputFile(const fs::path& target)
    : m_target(target),
      m_passing(MakePassingPath(target)) {
    CheckOutputPlace(target);
    UnfinishedFiles& files = GetUnfinishedFiles();
    const std::lock_guard lock(files.mutex);
    m_file =
        CreateFileW(m_passing.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                    IsPassing() ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_file == INVALID_HANDLE_VALUE) {
        ThrowSystemFailure("cannot write ");
    }
    if (IsPassing()) {
        files.paths.insert(m_passing);
    }
}

OutputFile::~OutputFile() {
    Close();
    UnfinishedFiles& files = GetUnfinishedFiles();
    const std::lock_guard lock(files.mutex);
    if (files.paths.erase(m_passing) != 0) {
        DeleteFileW(m_passing.c_str());
    }
}

void OutputFile::Write(const void* data, std::size_t sizeInBytes) {
    const auto* bytes = static_cast<const char*>(data);
    while (sizeInBytes != 0) {
        constexpr std::size_t kMaxPiece = 1 << 30;
        const auto piece = static_cast<DWORD>(std::min(sizeInBytes, kMaxPiece));
        DWORD written = 0;
        if (!WriteFile(m_file, bytes, piece, &written, nullptr)) {
            ThrowSystemFailure("cannot write ");
        }
        if (written == 0) {
            SetLastError(ERROR_DISK_FULL);
            ThrowSystemFailure("cannot write ");
        }
        bytes += written;
        sizeInBytes -= written;
    }
}

void OutputFile::Commit() {
    if (!IsPassing()) {
        return Close();
    }
    // Some file systems only notice here that there is no space.
    if (!FlushFileBuffers(m_file)) {
        ThrowSystemFailure("cannot write ");
    }
    Close();
    UnfinishedFiles& files = GetUnfinishedFiles();
    const std::lock_guard lock(files.mutex);
    if (!MoveFileExW(m_passing.c_str(), m_target.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        ThrowSystemFailure("cannot replace ");
    }
    files.paths.erase(m_passing);
}

void OutputFile::RemoveUnfinishedOnInterruption() {
    GetUnfinishedFiles();
    SetConsoleCtrlHandler(&HandleInterruption, TRUE);
}

void OutputFile::ThrowSystemFailure(const char* what) const {
    const DWORD error = GetLastError();
    throw Failure(what + Utf8FromPath(m_target) + ": " + DescribeSystemError(error));
}

void OutputFile::Close() {
    if (m_file != INVALID_HANDLE_VALUE) {
        CloseHandle(m_file);
        m_file = INVALID_HANDLE_VALUE;
    }
}

} // namespace Norvex::App
