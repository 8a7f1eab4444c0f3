#pragma once

// A real window, and what the display server shows of it. One thread.

#include <array>

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

class TestWindow {
public:
    // An overlapped window with a client area of this size, shown by the command (SW_...).
    explicit TestWindow(const DX::Size2DT<long>& clientSize, int command = SW_SHOWNORMAL);
    ~TestWindow();
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

    HWND Get() const { return m_window; }
    void Destroy();
    DX::Size2DT<long> GetClientSize() const;

    // Each returns when the window has handled it.
    void Resize(const DX::Size2DT<long>& clientSize);
    void MoveTo(long left, long top);
    void Show(int command); // SW_...
    // Without borders over the whole screen, and back.
    void SetFullScreen(bool isFullScreen);
    static void PumpMessages();

    using RGB = std::array<int, 3>;
    // What the screen shows at a point of the client area; of any window's.
    RGB GetPixel(long x, long y) const { return GetPixel(m_window, x, y); }
    static RGB GetPixel(HWND window, long x, long y);

private:
    HWND m_window;
    RECT m_lastRect = {}; // before full screen
};

} // namespace Norvex::Test
