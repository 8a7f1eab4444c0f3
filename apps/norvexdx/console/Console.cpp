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

bool Write(DWORD stream, std::string_view text) {
    const std::lock_guard lock(g_mutex);
    return WriteText(GetStdHandle(stream), text);
}

} // namespace

void Print(std::string_view text) {
    if (!Write(STD_OUTPUT_HANDLE, text)) {
        throw Failure("cannot write to the standard output");
    }
}

void PrintError(std::string_view text) {
    Write(STD_ERROR_HANDLE, text);
}

void PrintMessage(std::string_view line) {
    PrintError("norvexdx: " + std::string(line) + "\n");
}

bool IsErrorTerminal() {
    return IsConsole(GetStdHandle(STD_ERROR_HANDLE));
}

} // namespace Norvex::App::Console
