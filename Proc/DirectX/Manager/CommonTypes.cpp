#include "Proc/DirectX/Manager/CommonTypes.h"

#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

Conf::ColorSpace ConvertColorSpace(DXGI_COLOR_SPACE_TYPE colorSpace) {
    // Code points of ITU-T H.273: primaries, transfer characteristics, matrix coefficients.
    switch (colorSpace) {
    case DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709:
        return {1, 13, 1};
    case DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709:
        return {1, 8, 1};
    case DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020:
        return {9, 16, 9};
    default:
        Throw<DirectXException>("Unknown DXGI color space");
    }
}

} // namespace Norvex::DX
