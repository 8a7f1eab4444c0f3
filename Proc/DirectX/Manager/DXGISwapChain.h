#pragma once

// Presents frames into a window, on either generation: back buffers that follow the window's client
// area, and HDR10 output while the display under most of the window is in HDR. One thread at a
// time; no lock of its own. Owned by intrusive_ptr; the destructor waits for the GPU. Throws
// DirectX11Exception or DirectX12Exception for buffers, DirectXException for colour space and
// metadata, and leaves the output as it was. Next: DXGIDisplay.h; D3D12Renderer.h, D11ImageDraw.h
// (what is drawn with GetConversionInfo).

#include <list>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Host/ColorConversionInfo.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D11Device;
class D11RenderTexture2D;
class D12CommandAllocator;
class D12CommandQueue;
class D12Descriptor;
class D3Device;
class DXGIDisplay;

// Why a swap chain is not in HDR.
enum class HDRRefusal {
    None,              // it is
    NotAsked,          // or switched off
    OldSystem,         // its swap chains have no colour spaces
    NoFormat,          // before Windows 10 none is looked for
    NoDisplay,         // there is none
    DisplayInSDR,      // the one under most of the window
    ColorSpaceRefused, // by the swap chain, in this place
};

// A sentence that a host can show, without full stop: "the display is not in HDR".
NORVEX_DX_API std::string to_string(HDRRefusal refusal);

class NORVEX_DX_API DXGISwapChain : public LiveObject {
public:
    // For the window's client area, SDR (R8G8B8A8_UNORM, sRGB); on Direct3D 12 with a queue of its
    // own. Two buffers, flipped; before Windows 10 one, copied. DXGI does not answer Alt+Enter: the
    // host shows full screen in a window without borders. Null for a device that is neither
    // D11Device nor D12Device. A window has at most one swap chain; the next one comes after this
    // one and the targets from it are gone. The window outlives the swap chain: frames that were
    // presented may still be on their way to it. Throws what the device's CreateSwapChainForHwnd
    // throws, and see RecreateBuffers.
    static boost::intrusive_ptr<DXGISwapChain> Create(const boost::intrusive_ptr<D3Device>& device,
                                                      HWND window);
    // On Direct3D 11 render targets are unbound, and the context is flushed.
    ~DXGISwapChain() override;
    DXGISwapChain(const DXGISwapChain&) = delete;
    DXGISwapChain& operator=(const DXGISwapChain&) = delete;

    // True on Direct3D 12.
    bool IsD12Level() const { return m_commandQueue != nullptr; }

    // Of the back buffers in pixels; zeros while the window has no area.
    Size2DT<long> GetSize() const;
    // That frames are drawn in, also while the window has no area: R8G8B8A8_UNORM in SDR.
    DXGI_FORMAT GetFormat() const { return m_output.format; }

    // Direct3D 12: an allocator for a frame's work, which is executed before Present. Those still
    // on the GPU are kept and waited for when the buffers are made anew. Null on Direct3D 11.
    boost::intrusive_ptr<D12CommandAllocator> CreateCommandAllocator();
    // Direct3D 12: the current back buffer, in the present state before and after a frame. Changes
    // with each Present. Null on Direct3D 11, and while the window has no area.
    boost::intrusive_ptr<D12Descriptor> GetRenderTarget() const;
    // Direct3D 11: the back buffer. Null on Direct3D 12, and while the window has no area.
    boost::intrusive_ptr<D11RenderTexture2D> GetRenderTexture() const;
    // Shows the current back buffer at the next vertical blank. A failure (an occluded window, a
    // removed device, a window that is gone) is not told; the next call that creates something
    // does, and GetPresentResult. On Direct3D 11 other threads' Encode waits meanwhile, as for all
    // below.
    void Present();
    // What the last Present came to: S_OK (before the first, too), DXGI_STATUS_OCCLUDED while
    // nothing of the window is seen, a loss of the device (IsDeviceLoss), DXGI_ERROR_INVALID_CALL
    // for a window that is gone.
    long GetPresentResult() const { return m_presentResult; }

    // Follows the window's client area, to be called when it has changed: waits for the GPU, and
    // answers the size in pixels. A window without area, as a minimised one, keeps the swap chain
    // as it is but has no targets. Before the call, everything of the old buffers is dropped:
    // targets, textures, views, and allocators with recorded work (executed or not wanted). While
    // something is left it fails with DXGI_ERROR_INVALID_CALL, the buffers and their targets stay,
    // recorded work too: execute, present, call again. "Failed to resize DXGI swap chain buffers",
    // "Failed to get back buffer".
    Size2DT<long> RecreateBuffers();

    // Switches to HDR10 where the display under most of the window is in HDR, and back to SDR where
    // it is not any more; answers whether HDR is on. Luminances in cd/m2, of the mastering display
    // and of the content (MaxCLL, MaxFALL; CTA-861.3), taken when HDR goes on; what a field cannot
    // hold is cut off. To be called when the window has moved, or after UpdateDisplayInfo; it costs
    // little where neither is so, also where the display's colour space was refused. Switching
    // makes the buffers anew, as RecreateBuffers does. "Failed to set HDR metadata", "Failed to set
    // color space", and what DXGIFactory throws.
    bool EnableHDRIfSupported(float maxMasteringNits, float minMasteringNits,
                              float maxContentLightLevel, float maxFrameAverageLightLevel);
    // Back to SDR. The same failures.
    void DisableHDR();
    // Whether its output is HDR10 now.
    bool IsHDREnabled() const { return m_output.colorSpace != kSDR.colorSpace; }
    // What the last EnableHDRIfSupported came to.
    HDRRefusal GetHDRRefusal() const { return IsHDREnabled() ? HDRRefusal::None : m_refusal; }
    // Forgets what is known of the display: for WM_DISPLAYCHANGE, since a display can be switched
    // to HDR under a window that does not move.
    void UpdateDisplayInfo();

    // Whether SDR white is shown in HDR as the system shows it on this display
    // (DisplayDescription::sdrWhite, as of the last look at it), where the system tells; not at
    // first.
    void FollowSDRWhite(bool follows) { m_followsSDRWhite = follows; }
    // Luminance of SDR white for GetConversionInfo, cd/m2: 203 (ITU-R BT.2408) unless it follows.
    float GetSDRWhite() const;
    // How to draw a picture of this colour space for the present output, which is display-referred
    // light with SDR white at GetSDRWhite and premultiplied alpha: sRGB; or in HDR scRGB (1.0 is 80
    // cd/m2) or BT.2100 PQ. PQ is shown at its own luminance.
    Proc::ColorAlphaConversionInfo GetConversionInfo(const Conf::RGBColorSpace& source,
                                                     Proc::AlphaType sourceAlpha) const;

private:
    struct Output {
        DXGI_FORMAT format;
        DXGI_COLOR_SPACE_TYPE colorSpace;
    };
    struct Look {    // at the display
        RECT window; // its place then
        HDRRefusal refusal;
    };
    static constexpr Output kSDR = {DXGI_FORMAT_R8G8B8A8_UNORM,
                                    DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709};

    DXGISwapChain(HWND window, DXGI_FORMAT hdrFormat, IDXGISwapChain* swapChain,
                  const boost::intrusive_ptr<D11Device>& device,
                  const boost::intrusive_ptr<D12CommandQueue>& commandQueue);

    HDRRefusal CheckDisplayHDRSupport();
    bool SetOutput(const Output& output, DXGI_HDR_METADATA_HDR10* metadata,
                   const std::source_location& location);
    void RestoreOutput();
    bool CanShow(DXGI_COLOR_SPACE_TYPE colorSpace) const;
    void SetColorSpace(DXGI_COLOR_SPACE_TYPE colorSpace);
    void SetMetadata(DXGI_HDR_METADATA_HDR10* metadata, const std::source_location& location);

    void MakeBuffers(const Size2DT<long>& size, DXGI_FORMAT format,
                     const std::source_location& location);
    long ResizeBuffers(UINT width, UINT height, DXGI_FORMAT format);
    DXGI_MODE_DESC GetBufferDesc() const;
    void MakeRenderTexture(const Size2DT<long>& size, const std::source_location& location);
    void MakeRenderTargets12(const std::source_location& location);
    void WaitComplete();
    void ForgetIdleAllocators();
    void LeaveFullScreen();

    HWND m_window;
    DXGI_FORMAT m_hdrFormat; // the SDR format where there is no HDR
    CComPtr<IDXGISwapChain> m_swapChain;
    CComPtr<IDXGISwapChain3> m_swapChain3; // on Direct3D 11 null on old systems
    CComPtr<IDXGISwapChain4> m_swapChain4; // null on old systems
    boost::intrusive_ptr<D11Device> m_device;
    boost::intrusive_ptr<D12CommandQueue> m_commandQueue;
    boost::intrusive_ptr<DXGIDisplay> m_display; // made by the first look
    std::optional<Look> m_look;
    HDRRefusal m_refusal = HDRRefusal::NotAsked;
    bool m_followsSDRWhite = false;
    Output m_output = kSDR;                                     // what frames are drawn for
    DXGI_COLOR_SPACE_TYPE m_colorSpaceOfDXGI = kSDR.colorSpace; // what DXGI was last told
    long m_presentResult = 0;
    boost::intrusive_ptr<D11RenderTexture2D> m_renderTexture;
    std::vector<boost::intrusive_ptr<D12Descriptor>> m_renderTargets; // by buffer index
    std::list<boost::intrusive_ptr<D12CommandAllocator>> m_inFlightAllocators;
};

} // namespace Norvex::DX
