#include "Proc/DirectX/Manager/AffineTransform.h"

#include <cmath>
#include <cstddef>
#include <stdexcept>

#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::DX {

namespace {

struct Point {
    float x;
    float y;
};

Point Apply(const AffineTransform::Rows& rows, Point point) {
    return {point.x * rows[0][0] + point.y * rows[1][0] + rows[3][0],
            point.x * rows[0][1] + point.y * rows[1][1] + rows[3][1]};
}

} // namespace

AffineTransform AffineTransform::Scale(float x, float y) {
    AffineTransform result;
    result.rows[0][0] = x;
    result.rows[1][1] = y;
    return result;
}

AffineTransform AffineTransform::Rotation(float radians) {
    const float cosine = std::cos(radians);
    const float sine = std::sin(radians);
    AffineTransform result;
    result.rows[0] = {cosine, sine, 0, 0};
    result.rows[1] = {-sine, cosine, 0, 0};
    return result;
}

AffineTransform AffineTransform::Translation(float x, float y) {
    AffineTransform result;
    result.rows[3] = {x, y, 0, 1};
    return result;
}

AffineTransform AffineTransform::Then(const AffineTransform& next) const {
    AffineTransform result;
    for (std::size_t row = 0; row < 4; ++row) {
        for (std::size_t column = 0; column < 4; ++column) {
            float sum = 0.0F;
            for (std::size_t i = 0; i < 4; ++i) {
                sum += rows[row][i] * next.rows[i][column];
            }
            result.rows[row][column] = sum;
        }
    }
    return result;
}

AffineTransform AffineTransform::Inverse() const {
    // In double: the determinant of a strongly scaled transform leaves the range of float.
    const double a = rows[0][0];
    const double b = rows[0][1];
    const double c = rows[1][0];
    const double d = rows[1][1];
    const double x = rows[3][0];
    const double y = rows[3][1];
    const double determinant = a * d - b * c;
    if (determinant == 0.0 || !std::isfinite(determinant)) {
        throw std::domain_error("The transform has no inverse");
    }
    const auto divided = [determinant](double value) {
        return static_cast<float>(value / determinant);
    };
    AffineTransform result;
    result.rows[0] = {divided(d), divided(-b), 0, 0};
    result.rows[1] = {divided(-c), divided(a), 0, 0};
    result.rows[3] = {divided(c * y - d * x), divided(b * x - a * y), 0, 1};
    return result;
}

AffineTransform AffineTransform::Transposed() const {
    AffineTransform result;
    for (std::size_t row = 0; row < 4; ++row) {
        for (std::size_t column = 0; column < 4; ++column) {
            result.rows[column][row] = rows[row][column];
        }
    }
    return result;
}

Rect2DT<float> AffineTransform::Transform(const Rect2DT<float>& rect) const {
    const Point first = Apply(rows, {rect.left, rect.top});
    Rect2DT<float> box{first.x, first.y, first.x, first.y};
    for (const Point corner : {Point{rect.left, rect.bottom}, Point{rect.right, rect.bottom},
                               Point{rect.right, rect.top}}) {
        const Point point = Apply(rows, corner);
        box.left = point.x < box.left ? point.x : box.left;
        box.top = point.y < box.top ? point.y : box.top;
        box.right = point.x > box.right ? point.x : box.right;
        box.bottom = point.y > box.bottom ? point.y : box.bottom;
    }
    return box;
}

} // namespace Norvex::DX
