#pragma once

// A window's back buffers to draw on. A frame is recorded, submitted and presented without waiting
// for the device. What is the same for both generations is here; the rest is in Graphics11.cpp and
// Graphics12.cpp. One thread; goes before the Graphics that opened it, and that before the window.
// Throws what the library throws; a lost device is told by Graphics::GetDeviceRemovedReason. Next:
// DXGISwapChain.h.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

// What a back buffer holds, rows from top to bottom without padding.
struct ScreenPixels {
    DX::Size2DT<long> size;
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN;
    std::vector<std::uint8_t> bytes;
};

class Screen {
public:
    // The canvas has undefined contents at first.
    using Record = std::function<void(Recorder&, const Canvas&)>;

    // More are not begun before the device has finished one.
    static constexpr std::size_t kMaxFramesInFlight = 3;

    virtual ~Screen() = default;
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Follows the window's client area, in pixels. While it has none, nothing is presented.
    DX::Size2DT<long> Resize();
    DXGI_FORMAT GetFormat() const; // UNKNOWN while the window has no area
    // Milliseconds from the first call of a frame to its submission, without waiting for earlier
    // frames; nothing when nothing was presented. With `pixels` it also waits for the frame and
    // reads what will be shown.
    std::optional<double> Present(const Record& record, ScreenPixels* pixels);
    // Frames submitted that the device has not finished.
    virtual std::size_t CountFramesInFlight() = 0;

    // Switches to HDR where it is wanted and the display under the window is in HDR, else to SDR;
    // answers whether HDR is on. To be called when the window has moved. Costs little when nothing
    // has changed.
    bool SetHDR(bool isWanted);
    // The display may have been switched: SetHDR is to look again.
    void UpdateDisplay() { m_swapChain->UpdateDisplayInfo(); }
    bool IsHDR() const { return m_swapChain->IsHDREnabled(); }
    // Why not, where it is wanted.
    std::string GetHDRRefusal() const { return to_string(m_swapChain->GetHDRRefusal()); }
    // Luminance of SDR white in HDR, cd/m2: as the system shows it on this display.
    float GetSDRWhite() const { return m_swapChain->GetSDRWhite(); }
    // How pictures of this kind are drawn here.
    Proc::ColorAlphaConversionInfo GetConversionInfo(const Conf::RGBColorSpace& space,
                                                     Proc::AlphaType alpha) const {
        return m_swapChain->GetConversionInfo(space, alpha);
    }

protected:
    explicit Screen(const boost::intrusive_ptr<DX::DXGISwapChain>& swapChain)
        : m_swapChain(swapChain) {
        m_swapChain->FollowSDRWhite(true);
    }

    DX::DXGISwapChain& GetSwapChain() const { return *m_swapChain; }

private:
    // Null while the window has no area.
    virtual std::unique_ptr<Canvas> GetBackBuffer() const = 0;
    virtual void WaitForFrames(std::size_t mayBeInFlight) = 0;
    // Leaves the back buffer ready to be presented. Milliseconds, as Present's.
    virtual double Submit(Canvas& backBuffer, const Record& record, ScreenPixels* pixels) = 0;

    boost::intrusive_ptr<DX::DXGISwapChain> m_swapChain;
};

} // namespace Norvex::App
