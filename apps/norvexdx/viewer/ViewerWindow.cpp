#include "apps/norvexdx/viewer/ViewerWindow.h"

#include <algorithm>
#include <utility>

#include "Host/Strings.h"
#include "apps/norvexdx/console/Failure.h"

#include <windowsx.h>

namespace Norvex::App {

namespace {

constexpr DWORD kStyle = WS_OVERLAPPEDWINDOW;
constexpr UINT kWake = WM_APP;
constexpr UINT_PTR kSizeMoveTimer = 1;
constexpr UINT kSizeMovePeriod = 15; // ms

// A system's timer is late by up to 16 ms, but for one of Windows 10 since 2018.
HANDLE MakeTimer() {
    constexpr DWORD kHighResolution = 0x00000002; // CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
    HANDLE timer = CreateWaitableTimerExW(nullptr, nullptr, kHighResolution, TIMER_ALL_ACCESS);
    return timer != nullptr ? timer : CreateWaitableTimerExW(nullptr, nullptr, 0, TIMER_ALL_ACCESS);
}

// Null before the Windows that has it.
template <class Function>
Function FindInUser32(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"user32.dll"), name)));
}

void DeclareDpiAwareness() {
    const auto set = FindInUser32<BOOL(WINAPI*)(HANDLE)>("SetProcessDpiAwarenessContext");
    if (set != nullptr) {
        set(DPI_AWARENESS_CONTEXT_PER_MONITOR_AWARE_V2);
    }
}

void RegisterOnce(WNDPROC procedure) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = procedure;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    windowClass.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
    windowClass.lpszClassName = ViewerWindow::kClassName;
    if (RegisterClassW(&windowClass) == 0 && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) {
        throw Failure("the system makes no window");
    }
}

MONITORINFO GetMonitor(HWND window) {
    MONITORINFO info = {};
    info.cbSize = sizeof(info);
    GetMonitorInfoW(MonitorFromWindow(window, MONITOR_DEFAULTTONEAREST), &info);
    return info;
}

bool IsDown(int key) {
    return GetKeyState(key) < 0;
}

} // namespace

ViewerWindow::ViewerWindow(WindowEvents& events) : m_events(events) {
    DeclareDpiAwareness();
    RegisterOnce(&OnMessage);
    m_window = CreateWindowExW(0, kClassName, L"norvexdx", kStyle, CW_USEDEFAULT, CW_USEDEFAULT,
                               CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr,
                               GetModuleHandleW(nullptr), nullptr);
    if (m_window == nullptr) {
        throw Failure("the system makes no window");
    }
    m_timer = MakeTimer();
    SetWindowLongPtrW(m_window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
}

ViewerWindow::~ViewerWindow() {
    SetWindowLongPtrW(m_window, GWLP_USERDATA, 0);
    DestroyWindow(m_window);
    if (m_timer != nullptr) {
        CloseHandle(m_timer);
    }
}

DX::Size2DT<long> ViewerWindow::GetClientSize() const {
    RECT rect = {};
    GetClientRect(m_window, &rect);
    return {rect.right, rect.bottom};
}

DX::Size2DT<long> ViewerWindow::GetWorkSize() const {
    const RECT work = GetMonitor(m_window).rcWork;
    return {work.right - work.left, work.bottom - work.top};
}

bool ViewerWindow::IsShown() const {
    return IsWindowVisible(m_window) != FALSE && IsIconic(m_window) == FALSE;
}

unsigned ViewerWindow::GetDotsPerInch() const {
    static const auto get = FindInUser32<UINT(WINAPI*)(HWND)>("GetDpiForWindow");
    return get != nullptr ? get(m_window) : USER_DEFAULT_SCREEN_DPI;
}

void ViewerWindow::SetTitle(const std::string& title) {
    SetWindowTextW(m_window, Core::WstringFromUtf8(title).c_str());
}

void ViewerWindow::SetClientSize(const DX::Size2DT<long>& size) {
    RECT outer = {};
    GetWindowRect(m_window, &outer);
    const DX::Size2DT<long> client = GetClientSize();
    const RECT work = GetMonitor(m_window).rcWork;
    const long width =
        std::min(outer.right - outer.left - client.width + size.width, work.right - work.left);
    const long height =
        std::min(outer.bottom - outer.top - client.height + size.height, work.bottom - work.top);
    const long left = std::clamp(outer.left, work.left, work.right - width);
    const long top = std::clamp(outer.top, work.top, work.bottom - height);
    SetWindowPos(m_window, nullptr, left, top, width, height, SWP_NOZORDER | SWP_NOACTIVATE);
}

void ViewerWindow::Show() {
    ShowWindow(m_window, SW_SHOWNORMAL);
    SetForegroundWindow(m_window);
}

void ViewerWindow::SetFullScreen(bool isFullScreen) {
    if (isFullScreen == m_isFullScreen) {
        return;
    }
    m_isFullScreen = isFullScreen;
    if (isFullScreen) {
        m_placement.length = sizeof(m_placement);
        GetWindowPlacement(m_window, &m_placement);
        const RECT all = GetMonitor(m_window).rcMonitor;
        SetWindowLongPtrW(m_window, GWL_STYLE, WS_POPUP | WS_VISIBLE);
        SetWindowPos(m_window, HWND_TOP, all.left, all.top, all.right - all.left,
                     all.bottom - all.top, SWP_FRAMECHANGED);
    } else {
        SetWindowLongPtrW(m_window, GWL_STYLE, kStyle | WS_VISIBLE);
        SetWindowPlacement(m_window, &m_placement);
        SetWindowPos(m_window, nullptr, 0, 0, 0, 0,
                     SWP_NOMOVE | SWP_NOSIZE | SWP_NOZORDER | SWP_FRAMECHANGED);
    }
}

void ViewerWindow::Redraw() {
    InvalidateRect(m_window, nullptr, FALSE);
}

void ViewerWindow::Wake() {
    PostMessageW(m_window, kWake, 0, 0);
}

void ViewerWindow::Run() {
    while (HandlePending()) {
        Wait(m_events.OnIdle());
    }
}

void ViewerWindow::Wait(const std::optional<std::chrono::steady_clock::time_point>& time) const {
    using Ticks = std::chrono::duration<LONGLONG, std::ratio<1, 10000000>>;
    LARGE_INTEGER due = {};
    if (time) {
        const auto rest = *time - std::chrono::steady_clock::now();
        due.QuadPart = -std::chrono::ceil<Ticks>(rest).count(); // from now
    }
    if (time && due.QuadPart >= 0) {
        return;
    }
    const bool isTimed = time && m_timer != nullptr &&
                         SetWaitableTimer(m_timer, &due, 0, nullptr, nullptr, FALSE) != FALSE;
    constexpr DWORD kWithoutTimer = 10; // ms
    MsgWaitForMultipleObjectsEx(isTimed ? 1 : 0, &m_timer,
                                time && !isTimed ? kWithoutTimer : INFINITE, QS_ALLINPUT,
                                MWMO_INPUTAVAILABLE);
}

bool ViewerWindow::HandlePending() {
    MSG message = {};
    while (!m_isClosed && PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) != FALSE) {
        Dispatch(message);
    }
    return !m_isClosed;
}

void ViewerWindow::Dispatch(const MSG& message) {
    DispatchMessageW(&message);
    if (m_failure != nullptr) {
        std::rethrow_exception(std::exchange(m_failure, nullptr));
    }
}

LRESULT CALLBACK ViewerWindow::OnMessage(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): Windows keeps pointers in integers
    auto* self = reinterpret_cast<ViewerWindow*>(GetWindowLongPtrW(window, GWLP_USERDATA));
    bool isHandled = false;
    if (self != nullptr && self->m_failure == nullptr) {
        try {
            isHandled = self->Handle(message, wparam, lparam);
        } catch (...) {
            // Nothing may be thrown through Windows. The loop is woken to throw it.
            self->m_failure = std::current_exception();
            self->Wake();
        }
    }
    return isHandled ? 0 : DefWindowProcW(window, message, wparam, lparam);
}

bool ViewerWindow::Handle(UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
    case WM_KEYDOWN:
        m_events.OnKey({static_cast<unsigned>(wparam), IsDown(VK_SHIFT), IsDown(VK_CONTROL)});
        return true;
    case WM_PAINT:
        ValidateRect(m_window, nullptr);
        m_events.OnPaint();
        return true;
    case kWake:
        m_events.OnWake();
        return true;
    case WM_CLOSE:
        m_events.OnClose();
        return true;
    default:
        return HandleMouse(message, wparam, lparam) || HandlePlace(message, wparam, lparam);
    }
}

bool ViewerWindow::HandleMouse(UINT message, WPARAM wparam, LPARAM lparam) {
    POINT point = {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)};
    switch (message) {
    case WM_MOUSEWHEEL:
        ScreenToClient(m_window, &point);
        m_events.OnWheel({static_cast<float>(point.x), static_cast<float>(point.y)},
                         static_cast<float>(GET_WHEEL_DELTA_WPARAM(wparam)) / WHEEL_DELTA);
        return true;
    case WM_LBUTTONDOWN:
        SetCapture(m_window);
        m_isDragging = true;
        m_dragged = point;
        return true;
    case WM_MOUSEMOVE:
        if (m_isDragging) {
            m_events.OnDrag(static_cast<float>(point.x - m_dragged.x),
                            static_cast<float>(point.y - m_dragged.y));
            m_dragged = point;
        }
        return m_isDragging;
    case WM_LBUTTONUP:
        ReleaseCapture();
        return true;
    case WM_CAPTURECHANGED:
        m_isDragging = false;
        return true;
    default:
        return false;
    }
}

bool ViewerWindow::HandlePlace(UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
    case WM_SIZE:
        if (wparam != SIZE_MINIMIZED) {
            m_events.OnResize();
        }
        return true;
    case WM_ENTERSIZEMOVE:
        m_isInSizeMove = true;
        SetTimer(m_window, kSizeMoveTimer, kSizeMovePeriod, nullptr);
        return true;
    case WM_TIMER:
        m_events.OnIdle();
        return true;
    case WM_EXITSIZEMOVE:
        m_isInSizeMove = false;
        KillTimer(m_window, kSizeMoveTimer);
        m_events.OnMove();
        return true;
    case WM_MOVE:
        if (!m_isInSizeMove) {
            m_events.OnMove();
        }
        return true;
    case WM_DISPLAYCHANGE:
    case WM_SETTINGCHANGE: // the luminance of SDR white, for one
        m_events.OnDisplayChange();
        return true;
    case WM_DPICHANGED: {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): Windows passes it so
        const RECT& rect = *reinterpret_cast<const RECT*>(lparam);
        SetWindowPos(m_window, nullptr, rect.left, rect.top, rect.right - rect.left,
                     rect.bottom - rect.top, SWP_NOZORDER | SWP_NOACTIVATE);
        return true;
    }
    default:
        return false;
    }
}

} // namespace Norvex::App
