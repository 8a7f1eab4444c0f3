#pragma once

// What a swap chain asks about displays, internal: which output shows most of a window, whether it
// is in HDR, and what HDR10 output in a buffer format is. No state, any thread. Throws what the
// factory throws.

#include <optional>

#include "Platform/ComPtr.h"

namespace Norvex::DX {

class DXGIFactory;

namespace Display {

// The output of the hardware adapters with the largest part of the rectangle (screen coordinates),
// the first of equals, even where that is nothing; null when there is no output.
CComPtr<IDXGIOutput> FindOutputUnder(DXGIFactory& factory, const RECT& window);
// False for null, and where the system cannot tell.
bool IsInHDR(const CComPtr<IDXGIOutput>& output);

struct Chromaticity {
    double x, y; // CIE 1931
};

struct Primaries {
    Chromaticity red, green, blue;
};

struct HDROutput {
    DXGI_COLOR_SPACE_TYPE colorSpace;
    Primaries primaries;
};

// R16G16B16A16_FLOAT: scRGB; R10G10B10A2_UNORM: BT.2100 PQ; others have none.
std::optional<HDROutput> FindHDROutput(DXGI_FORMAT format);

// Luminances in cd/m2. Units of the fields as DXGI defines them: chromaticity 1/50000, mastering
// luminance 1/10000 cd/m2; the white point is D65. Fractions are cut off.
DXGI_HDR_METADATA_HDR10 MakeMetadata(const Primaries& primaries, float maxMasteringNits,
                                     float minMasteringNits, float maxContentLightLevel,
                                     float maxFrameAverageLightLevel);

} // namespace Display

} // namespace Norvex::DX
