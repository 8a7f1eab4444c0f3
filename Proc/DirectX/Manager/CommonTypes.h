#pragma once

// Value types shared by drawing and presentation: rectangles, sizes, the affine transform, and the
// conversion of DXGI colour spaces. Plain values, any thread. Result codes and exceptions:
// Exceptions.h. System entry points: API.h.

#include <array>

#include "Host/Color.h"
#include "Platform/Direct3D.h"
#include "Platform/Export.h"

namespace Norvex::DX {

// A rectangle by its edges. As a pixel rectangle right and bottom are exclusive.
template <class T>
struct Rect2DT {
    T left{};
    T top{};
    T right{};
    T bottom{};

    friend bool operator==(const Rect2DT&, const Rect2DT&) = default;
};

template <class T>
struct Size2DT {
    T width{};
    T height{};

    friend bool operator==(const Size2DT&, const Size2DT&) = default;
};

// A 4 x 4 matrix of floats stored row by row, used with row vectors: (x, y) maps to x * row 0 + y *
// row 1 + row 3. The third row is the z axis and stays identity in 2-D use; the fourth holds the
// translation.
struct NORVEX_DX_API AffineTransform {
    using Rows = std::array<std::array<float, 4>, 4>;

    Rows rows = {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}};

    static AffineTransform Scale(float x, float y);
    // Counter-clockwise for y pointing up.
    static AffineTransform Rotation(float radians);
    static AffineTransform Translation(float x, float y);

    // First this transform, then `next` (row vectors: this matrix times next).
    AffineTransform Then(const AffineTransform& next) const;
    // Of the 2-D part. Throws std::domain_error when the transform has no inverse.
    AffineTransform Inverse() const;
    AffineTransform Transposed() const;

    // Axis-aligned bounding box of the four transformed corners.
    Rect2DT<float> Transform(const Rect2DT<float>& rect) const;

    friend bool operator==(const AffineTransform&, const AffineTransform&) = default;
};

// H.273 code points of a DXGI colour space: RGB_FULL_G22_NONE_P709 is (1, 13, 1),
// RGB_FULL_G10_NONE_P709 (1, 8, 1), RGB_FULL_G2084_NONE_P2020 (9, 16, 9). Any other throws
// DirectXException "Unknown DXGI color space".
NORVEX_DX_API Conf::ColorSpace ConvertColorSpace(DXGI_COLOR_SPACE_TYPE colorSpace);

} // namespace Norvex::DX
