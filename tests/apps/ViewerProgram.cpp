#include "tests/apps/ViewerProgram.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "apps/norvexdx/ViewerWindow.h"

#include <psapi.h>

namespace Norvex::Test {

namespace {

constexpr DWORD kWindowTimeLimit = 30000; // ms

std::vector<std::string> Prepend(const char* command, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), command);
    return arguments;
}

HWND FindShownWindow(DWORD process) {
    HWND window = nullptr;
    const wchar_t* name = App::ViewerWindow::kClassName;
    while ((window = FindWindowExW(nullptr, window, name, nullptr)) != nullptr) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (owner == process && IsWindowVisible(window) != FALSE) {
            return window;
        }
    }
    return nullptr;
}

LPARAM MakePoint(long x, long y) {
    return static_cast<LPARAM>(static_cast<DWORD>(x & 0xFFFF) | static_cast<DWORD>(y) << 16);
}

double GetMilliseconds(const FILETIME& time) {
    return static_cast<double>(std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime) / 1e4;
}

// Of all processes, as the system tells them under the number 64; GetProcessHandleCount is not
// everywhere more than a stub.
struct HandleList {
    struct Entry {
        void* object;
        ULONG_PTR process;
        ULONG_PTR handle;
        ULONG access;
        USHORT creator;
        USHORT type;
        ULONG attributes;
        ULONG reserved;
    };

    ULONG_PTR count;
    ULONG_PTR reserved;
    Entry entries[1];
};

std::ptrdiff_t CountHandles(DWORD process) {
    constexpr ULONG kHandles = 64;
    using Query = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<std::uint64_t> memory(1 << 18);
    const auto size = static_cast<ULONG>(memory.size() * sizeof(memory[0]));
    if (query(kHandles, memory.data(), size, nullptr) != 0) {
        throw std::runtime_error("the system does not tell its handles");
    }
    const auto* list = reinterpret_cast<const HandleList*>(memory.data());
    return std::count_if(list->entries, list->entries + list->count,
                         [&](const HandleList::Entry& entry) { return entry.process == process; });
}

struct ReleaseScreen {
    void operator()(HDC context) const { ReleaseDC(nullptr, context); }
};
struct DeleteContext {
    void operator()(HDC context) const { DeleteDC(context); }
};
struct DeleteBitmap {
    void operator()(HBITMAP bitmap) const { DeleteObject(bitmap); }
};
template <class Handle, class Deleter>
using Owned = std::unique_ptr<std::remove_pointer_t<Handle>, Deleter>;

} // namespace

ViewerProgram::ViewerProgram(std::vector<std::string> arguments)
    : m_program(Prepend("view", std::move(arguments))) {
    const DWORD start = GetTickCount();
    while ((m_window = FindShownWindow(m_program.GetId())) == nullptr) {
        if (m_program.HasEnded(10) || GetTickCount() - start > kWindowTimeLimit) {
            throw std::runtime_error("the viewer shows no window");
        }
    }
}

DX::Size2DT<long> ViewerProgram::GetClientSize() const {
    RECT rect = {};
    GetClientRect(m_window, &rect);
    return {rect.right, rect.bottom};
}

void ViewerProgram::Post(UINT message, WPARAM wparam, LPARAM lparam) {
    PostMessageW(m_window, message, wparam, lparam);
    DWORD_PTR answer = 0;
    SendMessageTimeoutW(m_window, WM_NULL, 0, 0, SMTO_NORMAL, kWindowTimeLimit, &answer);
}

void ViewerProgram::Press(unsigned key) {
    Post(WM_KEYDOWN, key, 0);
}

void ViewerProgram::Wheel(const std::array<long, 2>& point, int steps) {
    POINT onScreen = {point[0], point[1]};
    ClientToScreen(m_window, &onScreen);
    const auto delta = static_cast<WORD>(static_cast<short>(steps * WHEEL_DELTA));
    Post(WM_MOUSEWHEEL, static_cast<WPARAM>(delta) << 16, MakePoint(onScreen.x, onScreen.y));
}

void ViewerProgram::Drag(const std::array<long, 2>& from, const std::array<long, 2>& to) {
    Post(WM_LBUTTONDOWN, MK_LBUTTON, MakePoint(from[0], from[1]));
    Post(WM_MOUSEMOVE, MK_LBUTTON, MakePoint(to[0], to[1]));
    Post(WM_LBUTTONUP, 0, MakePoint(to[0], to[1]));
}

void ViewerProgram::Resize(const DX::Size2DT<long>& clientSize) {
    RECT outer = {};
    GetWindowRect(m_window, &outer);
    const DX::Size2DT<long> client = GetClientSize();
    SetWindowPos(
        m_window, nullptr, 0, 0, outer.right - outer.left - client.width + clientSize.width,
        outer.bottom - outer.top - client.height + clientSize.height, SWP_NOMOVE | SWP_NOZORDER);
}

void ViewerProgram::MoveTo(long left, long top) {
    SetWindowPos(m_window, nullptr, left, top, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
}

void ViewerProgram::Show(int command) {
    ShowWindow(m_window, command);
}

ProcessResult ViewerProgram::Close() {
    PostMessageW(m_window, WM_KEYDOWN, VK_ESCAPE, 0);
    return m_program.Wait();
}

App::Image ViewerProgram::ReadScreen() const {
    const DX::Size2DT<long> size = GetClientSize();
    POINT corner = {0, 0};
    ClientToScreen(m_window, &corner);
    const Owned<HDC, ReleaseScreen> screen(GetDC(nullptr));
    const Owned<HDC, DeleteContext> memory(CreateCompatibleDC(screen.get()));
    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof(info.bmiHeader);
    info.bmiHeader.biWidth = size.width;
    info.bmiHeader.biHeight = -size.height; // from top to bottom
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    void* pixels = nullptr;
    const Owned<HBITMAP, DeleteBitmap> bitmap(
        CreateDIBSection(memory.get(), &info, DIB_RGB_COLORS, &pixels, nullptr, 0));
    HGDIOBJ old = SelectObject(memory.get(), bitmap.get());
    BitBlt(memory.get(), 0, 0, size.width, size.height, screen.get(), corner.x, corner.y, SRCCOPY);
    GdiFlush();
    App::Image image = MakePlain(static_cast<std::uint32_t>(size.width),
                                 static_cast<std::uint32_t>(size.height), {0, 0, 0, 255});
    const auto* bgr = static_cast<const std::uint8_t*>(pixels);
    for (std::size_t i = 0; i < image.pixels.size(); i += 4) {
        for (std::size_t channel = 0; channel < 3; ++channel) {
            image.pixels[i + channel] = bgr[i + 2 - channel];
        }
    }
    SelectObject(memory.get(), old);
    return image;
}

ViewerProgram::Usage ViewerProgram::GetUsage() const {
    FILETIME created = {};
    FILETIME ended = {};
    FILETIME kernel = {};
    FILETIME user = {};
    GetProcessTimes(m_program.GetHandle(), &created, &ended, &kernel, &user);
    PROCESS_MEMORY_COUNTERS memory = {};
    GetProcessMemoryInfo(m_program.GetHandle(), &memory, sizeof(memory));
    Usage usage;
    usage.processorMs = GetMilliseconds(kernel) + GetMilliseconds(user);
    usage.memoryMiB = static_cast<double>(memory.WorkingSetSize) / (1 << 20);
    usage.handles = CountHandles(m_program.GetId());
    return usage;
}

} // namespace Norvex::Test
