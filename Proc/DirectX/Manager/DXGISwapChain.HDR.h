#pragma once

// What HDR10 output in a buffer format is, internal to swap chains. No state, any thread.

#include <optional>

#include "Proc/DirectX/Manager/DXGIDisplay.h"

namespace Norvex::DX {

struct HDROutput {
    DXGI_COLOR_SPACE_TYPE colorSpace;
    DisplayPrimaries primaries;
};

// R16G16B16A16_FLOAT: scRGB; R10G10B10A2_UNORM: BT.2100 PQ; others have none.
std::optional<HDROutput> FindHDROutput(DXGI_FORMAT format);

// Luminances in cd/m2. Units of the fields as DXGI defines them: chromaticity 1/50000, mastering
// luminance 1/10000 cd/m2. Fractions are cut off.
DXGI_HDR_METADATA_HDR10 MakeMetadata(const DisplayPrimaries& primaries, float maxMasteringNits,
                                     float minMasteringNits, float maxContentLightLevel,
                                     float maxFrameAverageLightLevel);

} // namespace Norvex::DX
