#pragma once

// What a host asks first about a display, be it the one under a window or a monitor: HDR on or off,
// colour space, primaries, luminances, bits, refresh rate, and the luminance at which the system
// shows SDR white; and on Update() what of it has changed, and why. Owned by intrusive_ptr. One
// thread at a time. Throws what DXGIFactory throws; what the system does not tell is left out of
// the description. Next: DXGISwapChain.h, which looks at the display under its window through it.

#include <cstdint>
#include <optional>
#include <string>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class DXGIFactory;

// CIE 1931 x, y.
struct Chromaticity {
    // From 0 to 1.
    double x = 0.0;
    // From 0 to 1.
    double y = 0.0;

    friend bool operator==(const Chromaticity&, const Chromaticity&) = default;
};

struct DisplayPrimaries {
    Chromaticity red;   // primary
    Chromaticity green; // primary
    Chromaticity blue;  // primary
    Chromaticity white; // point

    friend bool operator==(const DisplayPrimaries&, const DisplayPrimaries&) = default;
};

// All luminances in cd/m2.
struct NORVEX_DX_API DisplayDescription {
    std::string name;    // of Windows, as "\\.\DISPLAY1", UTF-8; empty: there is no display
    std::string monitor; // its maker's name for it, UTF-8; empty when not told
    Rect2DT<long> area;  // in screen coordinates
    bool isHDR = false;  // shows BT.2100 PQ
    // As DXGI tells.
    DXGI_COLOR_SPACE_TYPE colorSpace = DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
    DisplayPrimaries primaries; // zeros when not told
    // Of black; 0 when not told.
    float minLuminance = 0.0F;
    float maxLuminance = 0.0F;          // of a small part of the screen; 0 when not told
    float maxFullFrameLuminance = 0.0F; // 0 when not told
    unsigned bitsPerColor = 0;          // 0 when not told
    double refreshRate = 0.0;           // Hz; 0 when not told
    // At which the system shows SDR white while the display is in HDR, as its user sets it; 80 in
    // SDR. Empty where the system does not tell (before Windows 10 1709).
    std::optional<float> sdrWhite;

    friend bool operator==(const DisplayDescription&, const DisplayDescription&) = default;
};

// What of a description differs.
enum class DisplayField : std::uint32_t {
    Name = 1, // the monitor's name too
    Area = 2,
    HDR = 4,
    ColorSpace = 8,
    Primaries = 16,
    Luminance = 32, // any of the three
    Bits = 64,
    RefreshRate = 128,
    SDRWhite = 256,
};

// Why a description differs; several may hold.
enum class DisplayChangeReason : std::uint32_t {
    OtherMonitor = 1,    // most of the window is on another one
    NoMonitor = 2,       // there is none any more
    Mode = 4,            // resolution, place on the desktop, bits or refresh rate
    Settings = 8,        // HDR, SDR brightness, calibration
    FactoryOutdated = 16 // adapters or outputs have changed: DXGIFactory::IsCurrent
};

struct NORVEX_DX_API DisplayChange {
    // What differs.
    bitflags<DisplayField> fields;
    // May be FactoryOutdated with all fields as they were: what was made with an older factory of
    // the host's is to be made anew.
    bitflags<DisplayChangeReason> reasons;

    // Whether anything differs.
    explicit operator bool() const { return !fields.empty(); }
};

// One line for a log: "settings: HDR, colour space, luminance"; "nothing" where no field differs.
NORVEX_DX_API std::string to_string(const DisplayChange& change);

class NORVEX_DX_API DXGIDisplay : public LiveObject {
public:
    // The display with the largest part of the window, the first of equals, even where that is
    // nothing; of those that hardware adapters drive. The window may go meanwhile.
    static boost::intrusive_ptr<DXGIDisplay> Create(HWND window);
    // The monitor's; none where no hardware adapter drives it.
    static boost::intrusive_ptr<DXGIDisplay> Create(HMONITOR monitor);
    // Of any output, also a software adapter's. Null describes no display. Throws nothing but
    // std::bad_alloc.
    static DisplayDescription Describe(IDXGIOutput* output);

    ~DXGIDisplay() override;
    DXGIDisplay(const DXGIDisplay&) = delete;
    DXGIDisplay& operator=(const DXGIDisplay&) = delete;

    // As of Create, or the last Update that returned.
    const DisplayDescription& GetDescription() const { return m_description; }
    // The output, borrowed until the next Update; null when there is none.
    IDXGIOutput* Get() const { return m_output; }
    // Looks again, in about a millisecond: for WM_DISPLAYCHANGE, WM_SETTINGCHANGE, and when the
    // window has moved.
    DisplayChange Update();

private:
    DXGIDisplay(HWND window, HMONITOR monitor);

    CComPtr<IDXGIOutput> FindOutput();

    HWND m_window;      // null: by the monitor
    HMONITOR m_monitor; // null: by the window
    boost::intrusive_ptr<DXGIFactory> m_factory;
    CComPtr<IDXGIOutput> m_output;
    DisplayDescription m_description;
};

} // namespace Norvex::DX
