#pragma once

// A real window, and what the display server shows of it. One thread.

#include <array>

#include "Platform/Direct3D.h"
#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::Test {

class TestWindow {
public:
    // An overlapped window with a client area of this size, shown by the command (SW_...).
    explicit TestWindow(const DX::Size2DT<long>& clientSize, int command = SW_SHOWNORMAL);
    ~TestWindow();
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

    HWND Get() const { return m_window; }
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
