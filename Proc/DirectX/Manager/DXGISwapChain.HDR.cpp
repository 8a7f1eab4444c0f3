#include "Proc/DirectX/Manager/DXGISwapChain.HDR.h"

#include <algorithm>
#include <limits>

namespace Norvex::DX {

namespace {

// ITU-R BT.709-6 and BT.2020-2, both with D65.
constexpr Chromaticity kD65 = {0.3127, 0.3290};
constexpr DisplayPrimaries kBT709 = {{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}, kD65};
constexpr DisplayPrimaries kBT2020 = {{0.708, 0.292}, {0.170, 0.797}, {0.131, 0.046}, kD65};

// The coordinates are whole numbers of units in decimal; in binary they may fall just below.
UINT16 ToChromaticityUnits(double coordinate) {
    return static_cast<UINT16>(coordinate * 50000.0 + 1e-6);
}

// Cuts the fraction off, and what the field cannot hold; what is no number is 0.
template <class Field>
Field Truncate(double value) {
    constexpr double kMax = std::numeric_limits<Field>::max();
    return value > 0.0 ? static_cast<Field>(std::min(value, kMax)) : Field{0};
}

} // namespace

std::optional<HDROutput> FindHDROutput(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_R10G10B10A2_UNORM:
        return HDROutput{DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020, kBT2020};
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return HDROutput{DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709, kBT709};
    default:
        return std::nullopt;
    }
}

DXGI_HDR_METADATA_HDR10 MakeMetadata(const DisplayPrimaries& primaries, float maxMasteringNits,
                                     float minMasteringNits, float maxContentLightLevel,
                                     float maxFrameAverageLightLevel) {
    const auto set = [](UINT16(&out)[2], const Chromaticity& point) {
        out[0] = ToChromaticityUnits(point.x);
        out[1] = ToChromaticityUnits(point.y);
    };
    // In single precision, which rounds 0.005 x 10000 to 50; the double product lies below.
    constexpr float kLuminanceUnits = 10000.0F; // per cd/m2
    DXGI_HDR_METADATA_HDR10 metadata = {};
    set(metadata.RedPrimary, primaries.red);
    set(metadata.GreenPrimary, primaries.green);
    set(metadata.BluePrimary, primaries.blue);
    set(metadata.WhitePoint, primaries.white);
    metadata.MaxMasteringLuminance = Truncate<UINT>(maxMasteringNits * kLuminanceUnits);
    metadata.MinMasteringLuminance = Truncate<UINT>(minMasteringNits * kLuminanceUnits);
    metadata.MaxContentLightLevel = Truncate<UINT16>(maxContentLightLevel);
    metadata.MaxFrameAverageLightLevel = Truncate<UINT16>(maxFrameAverageLightLevel);
    return metadata;
}

} // namespace Norvex::DX
