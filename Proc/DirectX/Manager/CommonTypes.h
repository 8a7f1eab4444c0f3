#pragma once

// Value types shared by drawing and presentation: rectangles, sizes, with them the affine
// transform, and the conversion of DXGI colour spaces. Plain values, any thread. Result codes and
// exceptions: Exceptions.h. System entry points: API.h.

#include "Host/Color.h"
#include "Platform/Direct3D.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/AffineTransform.h"

namespace Norvex::DX {

// A rectangle by its edges. As a pixel rectangle right and bottom are exclusive.
template <class T>
struct Rect2DT {
    T left{};   // first column
    T top{};    // first row
    T right{};  // behind the last column
    T bottom{}; // behind the last row

    friend bool operator==(const Rect2DT&, const Rect2DT&) = default;
};

// A width and a height, in pixels as a rule.
template <class T>
struct Size2DT {
    T width{};  // columns
    T height{}; // rows

    friend bool operator==(const Size2DT&, const Size2DT&) = default;
};

// H.273 code points of a DXGI colour space: RGB_FULL_G22_NONE_P709 is (1, 13, 1),
// RGB_FULL_G10_NONE_P709 (1, 8, 1), RGB_FULL_G2084_NONE_P2020 (9, 16, 9). Any other throws
// DirectXException "Unknown DXGI color space".
NORVEX_DX_API Conf::ColorSpace ConvertColorSpace(DXGI_COLOR_SPACE_TYPE colorSpace);

} // namespace Norvex::DX
