#pragma once

// A real window, and what the display server shows of it. One thread.

#include <array>
#include <stdexcept>

#include <boost/core/noncopyable.hpp>

#include "Platform/Direct3D.h"
#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::Test {

// Two R8G8B8A8_UNORM buffers, flipped.
inline DXGI_SWAP_CHAIN_DESC1 MakeSwapChainDesc(UINT width, UINT height) {
    DXGI_SWAP_CHAIN_DESC1 desc = {};
    desc.Width = width;
    desc.Height = height;
    desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.SampleDesc.Count = 1;
    desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
    desc.BufferCount = 2;
    desc.SwapEffect = DXGI_SWAP_EFFECT_FLIP_DISCARD;
    return desc;
}

class TestWindow : boost::noncopyable {
public:
    using RGB = std::array<int, 3>;

    // An overlapped window with a client area of this size, shown by the command (SW_...).
    explicit TestWindow(const DX::Size2DT<long>& clientSize, int command = SW_SHOWNORMAL) {
        static const ATOM atom = [] {
            WNDCLASSW windowClass = {};
            windowClass.lpfnWndProc = DefWindowProcW;
            windowClass.hInstance = GetModuleHandleW(nullptr);
            windowClass.lpszClassName = L"NorvexTestWindow";
            return RegisterClassW(&windowClass);
        }();
        const SIZE size = GetOuterSize(clientSize);
        m_window = CreateWindowExW(0, MAKEINTATOM(atom), L"test", kStyle, 40, 40, size.cx, size.cy,
                                   nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
        if (m_window == nullptr) {
            throw std::runtime_error("the window cannot be made");
        }
        Show(command);
    }
    ~TestWindow() { Destroy(); }

    HWND Get() const { return m_window; }
    DX::Size2DT<long> GetClientSize() const {
        RECT rect = {};
        GetClientRect(m_window, &rect);
        return {rect.right, rect.bottom};
    }

    // Each returns when the window has handled it.
    void Destroy() {
        DestroyWindow(m_window); // nothing where it is gone
        PumpMessages();
    }
    void Resize(const DX::Size2DT<long>& clientSize) {
        const SIZE size = GetOuterSize(clientSize);
        SetWindowPos(m_window, nullptr, 0, 0, size.cx, size.cy, SWP_NOMOVE | SWP_NOZORDER);
        PumpMessages();
    }
    void MoveTo(long left, long top) {
        SetWindowPos(m_window, nullptr, left, top, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
        PumpMessages();
    }
    void Show(int command) { // SW_...
        ShowWindow(m_window, command);
        PumpMessages();
    }
    // Without borders over the whole screen.
    void FillScreen() {
        SetWindowLongPtrW(m_window, GWL_STYLE, WS_VISIBLE | WS_POPUP);
        SetWindowPos(m_window, nullptr, 0, 0, GetSystemMetrics(SM_CXSCREEN),
                     GetSystemMetrics(SM_CYSCREEN), SWP_FRAMECHANGED | SWP_NOZORDER);
        PumpMessages();
    }
    static void PumpMessages() {
        MSG message = {};
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) != FALSE) {
            DispatchMessageW(&message);
        }
    }

    // What the screen shows at a point of the client area; of any window's.
    RGB GetPixel(long x, long y) const { return GetPixel(m_window, x, y); }
    static RGB GetPixel(HWND window, long x, long y) {
        POINT point = {x, y};
        ClientToScreen(window, &point);
        HDC screen = GetDC(nullptr);
        const COLORREF color = ::GetPixel(screen, point.x, point.y);
        ReleaseDC(nullptr, screen);
        return {GetRValue(color), GetGValue(color), GetBValue(color)};
    }

private:
    static constexpr DWORD kStyle = WS_OVERLAPPEDWINDOW;

    static SIZE GetOuterSize(const DX::Size2DT<long>& clientSize) {
        RECT rect = {0, 0, clientSize.width, clientSize.height};
        AdjustWindowRect(&rect, kStyle, FALSE);
        return {rect.right - rect.left, rect.bottom - rect.top};
    }

    HWND m_window;
};

} // namespace Norvex::Test
