#include "tests/support/TestWindow.h"

#include <stdexcept>

namespace Norvex::Test {

namespace {

constexpr DWORD kStyle = WS_OVERLAPPEDWINDOW;
constexpr const wchar_t* kClassName = L"NorvexTestWindow";

void RegisterOnce() {
    static const ATOM atom = [] {
        WNDCLASSW windowClass = {};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.lpszClassName = kClassName;
        return RegisterClassW(&windowClass);
    }();
    if (atom == 0) {
        throw std::runtime_error("the window class cannot be registered");
    }
}

SIZE GetOuterSize(const DX::Size2DT<long>& clientSize) {
    RECT rect = {0, 0, clientSize.width, clientSize.height};
    AdjustWindowRect(&rect, kStyle, FALSE);
    return {rect.right - rect.left, rect.bottom - rect.top};
}

} // namespace

TestWindow::TestWindow(const DX::Size2DT<long>& clientSize, int command) {
    RegisterOnce();
    const SIZE size = GetOuterSize(clientSize);
    m_window = CreateWindowExW(0, kClassName, L"test", kStyle, 40, 40, size.cx, size.cy, nullptr,
                               nullptr, GetModuleHandleW(nullptr), nullptr);
    if (m_window == nullptr) {
        throw std::runtime_error("the window cannot be made");
    }
    Show(command);
}

TestWindow::~TestWindow() {
    Destroy();
}

void TestWindow::Destroy() {
    DestroyWindow(m_window); // nothing where it is gone
    PumpMessages();
}

DX::Size2DT<long> TestWindow::GetClientSize() const {
    RECT rect = {};
    GetClientRect(m_window, &rect);
    return {rect.right, rect.bottom};
}

void TestWindow::Resize(const DX::Size2DT<long>& clientSize) {
    const SIZE size = GetOuterSize(clientSize);
    SetWindowPos(m_window, nullptr, 0, 0, size.cx, size.cy, SWP_NOMOVE | SWP_NOZORDER);
    PumpMessages();
}

void TestWindow::MoveTo(long left, long top) {
    SetWindowPos(m_window, nullptr, left, top, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
    PumpMessages();
}

void TestWindow::Show(int command) {
    ShowWindow(m_window, command);
    PumpMessages();
}

void TestWindow::SetFullScreen(bool isFullScreen) {
    RECT rect = m_lastRect;
    if (isFullScreen) {
        GetWindowRect(m_window, &m_lastRect);
        rect = {0, 0, GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN)};
    }
    SetWindowLongPtrW(m_window, GWL_STYLE, WS_VISIBLE | (isFullScreen ? WS_POPUP : kStyle));
    SetWindowPos(m_window, nullptr, rect.left, rect.top, rect.right - rect.left,
                 rect.bottom - rect.top, SWP_FRAMECHANGED | SWP_NOZORDER);
    PumpMessages();
}

void TestWindow::PumpMessages() {
    MSG message = {};
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) != FALSE) {
        DispatchMessageW(&message);
    }
}

TestWindow::RGB TestWindow::GetPixel(HWND window, long x, long y) {
    POINT point = {x, y};
    ClientToScreen(window, &point);
    HDC screen = GetDC(nullptr);
    const COLORREF color = ::GetPixel(screen, point.x, point.y);
    ReleaseDC(nullptr, screen);
    return {GetRValue(color), GetGValue(color), GetBValue(color)};
}

} // namespace Norvex::Test
