#pragma once

// A real window, and what the display server shows of any. One thread.

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
    // A window without borders, shown by the command (SW_...).
    explicit TestWindow(const DX::Size2DT<long>& size, int command = SW_SHOWNORMAL)
        : m_window(CreateWindowExW(0, L"STATIC", L"test", WS_POPUP, 40, 40, size.width, size.height,
                                   nullptr, nullptr, nullptr, nullptr)) {
        if (m_window == nullptr) {
            throw std::runtime_error("the window cannot be made");
        }
        Show(command);
    }
    ~TestWindow() { Destroy(); }

    HWND Get() const { return m_window; }

    // Each returns when the window has handled it.
    void Destroy() {
        DestroyWindow(m_window); // nothing where it is gone
        PumpMessages();
    }
    void Place(long left, long top, const DX::Size2DT<long>& size) {
        SetWindowPos(m_window, nullptr, left, top, size.width, size.height, SWP_NOZORDER);
        PumpMessages();
    }
    void Show(int command) { // SW_...
        ShowWindow(m_window, command);
        PumpMessages();
    }
    static void PumpMessages() {
        MSG message = {};
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) != FALSE) {
            DispatchMessageW(&message);
        }
    }

    // What the screen shows at a point of a window's client area.
    static std::array<int, 3> GetPixel(HWND window, long x, long y) {
        POINT point = {x, y};
        ClientToScreen(window, &point);
        HDC screen = GetDC(nullptr);
        const COLORREF color = ::GetPixel(screen, point.x, point.y);
        ReleaseDC(nullptr, screen);
        return {GetRValue(color), GetGValue(color), GetBValue(color)};
    }

private:
    HWND m_window;
};

} // namespace Norvex::Test
