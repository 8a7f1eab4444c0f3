#pragma once

// The transform of a picture: scale, rotation, translation. A plain value, any thread.

#include <array>

#include "Platform/Export.h"

namespace Norvex::DX {

template <class T>
struct Rect2DT; // CommonTypes.h

// A 4 x 4 matrix of floats stored row by row, used with row vectors: (x, y) maps to x * row 0 + y *
// row 1 + row 3. The third row is the z axis and stays identity in 2-D use; the fourth holds the
// translation.
struct NORVEX_DX_API AffineTransform {
    using Rows = std::array<std::array<float, 4>, 4>; // four rows of four

    // What Rows holds, the identity unless set.
    Rows rows = {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}};

    // About the origin.
    static AffineTransform Scale(float x, float y);
    // Counter-clockwise for y pointing up.
    static AffineTransform Rotation(float radians);
    // By that much.
    static AffineTransform Translation(float x, float y);

    // First this transform, then `next` (row vectors: this matrix times next).
    AffineTransform Then(const AffineTransform& next) const;
    // Of the 2-D part. Throws std::domain_error when the transform has no inverse.
    AffineTransform Inverse() const;
    // Rows and columns exchanged.
    AffineTransform Transposed() const;

    // Axis-aligned bounding box of the four transformed corners.
    Rect2DT<float> Transform(const Rect2DT<float>& rect) const;

    friend bool operator==(const AffineTransform&, const AffineTransform&) = default;
};

} // namespace Norvex::DX
