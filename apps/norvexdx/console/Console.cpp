#include "apps/norvexdx/console/Console.h"

#include <algorithm>
#include <mutex>
#include <string>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"
#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App::Console {

namespace {

std::mutex g_mutex; // one text at a time on either stream

bool IsConsole(HANDLE handle) {
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) != 0;
}

bool WriteText(HANDLE handle, std::string_view text) {
    DWORD written = 0;
    if (IsConsole(handle)) {
        const std::wstring wide = Core::WstringFromUtf8(text);
        return WriteConsoleW(handle, wide.data(), static_cast<DWORD>(wide.size()), &written,
                             nullptr) != 0;
    }
    while (!text.empty()) {
        constexpr std::size_t kMaxPiece = 1 << 20;
        const auto piece = static_cast<DWORD>(std::min(text.size(), kMaxPiece));
        if (!WriteFile(handle, text.data(), piece, &written, nullptr) || written == 0) {
            return false;
        }
        text.remove_prefix(written);
    }
    return true;
}

std::string g_status; // what stands on the status line; g_mutex guards it

void WriteError(std::string_view text) {
    WriteText(GetStdHandle(STD_ERROR_HANDLE), text);
}

// On a terminal the line goes; elsewhere it has been said, and ends.
void EndStatus() {
    if (!g_status.empty()) {
        WriteError(IsErrorTerminal() ? "\r" + std::string(g_status.size(), ' ') + "\r" : "\n");
    }
}

} // namespace

void Print(std::string_view text) {
    const std::lock_guard lock(g_mutex);
    if (!WriteText(GetStdHandle(STD_OUTPUT_HANDLE), text)) {
        throw Failure("cannot write to the standard output");
    }
}

void PrintError(std::string_view text) {
    const std::lock_guard lock(g_mutex);
    EndStatus();
    WriteError(text);
    WriteError(g_status);
}

void PrintMessage(std::string_view line) {
    PrintError("norvexdx: " + std::string(line) + "\n");
}

void ShowStatus(std::string line) {
    const std::lock_guard lock(g_mutex);
    if (line.empty()) {
        EndStatus();
    } else {
        line.resize(std::max(line.size(), g_status.size()), ' ');
        WriteError("\r" + line);
    }
    g_status = std::move(line);
}

bool IsErrorTerminal() {
    return IsConsole(GetStdHandle(STD_ERROR_HANDLE));
}

} // namespace Norvex::App::Console
