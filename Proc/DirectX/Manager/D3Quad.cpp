#include "Proc/DirectX/Manager/D3Quad.h"

#include <algorithm>
#include <limits>

namespace Norvex::DX {

namespace {

// In double, which holds the extent of any rectangle.
double WidthOf(const Rect2DT<long>& rect) {
    return static_cast<double>(rect.right) - static_cast<double>(rect.left);
}

double HeightOf(const Rect2DT<long>& rect) {
    return static_cast<double>(rect.bottom) - static_cast<double>(rect.top);
}

// Twice the middle of two edges.
double DoubleMiddle(long from, long to) {
    return static_cast<double>(from) + static_cast<double>(to);
}

// Clip units of a rectangle in those of a part of it. What moves stands in the third row, since the
// vertex shader takes its result for w.
AffineTransform ToPart(const Rect2DT<long>& rect, const Rect2DT<long>& part) {
    const double width = WidthOf(part);
    const double height = HeightOf(part);
    const double right = DoubleMiddle(rect.left, rect.right) - DoubleMiddle(part.left, part.right);
    const double down = DoubleMiddle(rect.top, rect.bottom) - DoubleMiddle(part.top, part.bottom);
    AffineTransform result = AffineTransform::Scale(static_cast<float>(WidthOf(rect) / width),
                                                    static_cast<float>(HeightOf(rect) / height));
    result.rows[2] = {static_cast<float>(right / width), static_cast<float>(-down / height), 1, 0};
    return result;
}

} // namespace

std::array<QuadVertex, 4> MakeQuad(const Size2DT<float>& extent, Winding winding) {
    std::array<QuadVertex, 4> quad = {{{-1, -1, 1, 0, extent.height},
                                       {-1, 1, 1, 0, 0},
                                       {1, -1, 1, extent.width, extent.height},
                                       {1, 1, 1, extent.width, 0}}};
    if (winding == Winding::CounterClockwise) {
        std::ranges::rotate(quad, quad.begin() + 2);
    }
    return quad;
}

Winding GetWinding(const AffineTransform& transform) {
    const auto& m = transform.rows;
    const double determinant = double{m[0][0]} * m[1][1] - double{m[0][1]} * m[1][0];
    return determinant < 0.0 ? Winding::CounterClockwise : Winding::Clockwise;
}

std::optional<Rect2DT<long>> GetVisiblePart(const Rect2DT<long>& rect,
                                            const Size2DT<long>& target) {
    const Rect2DT<long> part = {std::max(rect.left, 0L), std::max(rect.top, 0L),
                                std::min(rect.right, target.width),
                                std::min(rect.bottom, target.height)};
    const bool isEmpty = part.left >= part.right || part.top >= part.bottom;
    return isEmpty ? std::nullopt : std::optional(part);
}

AffineTransform ToClipUnits(AffineTransform transform, const Rect2DT<long>& rect,
                            const Rect2DT<long>& viewport) {
    transform.rows[3][0] *= static_cast<float>(2.0 / WidthOf(rect));
    transform.rows[3][1] *= static_cast<float>(2.0 / HeightOf(rect));
    return transform.Then(ToPart(rect, viewport));
}

Size2DT<long> SizeOf(const Rect2DT<long>& rect) {
    const auto fit = [](double size) {
        return static_cast<long>(
            std::min(size, static_cast<double>(std::numeric_limits<long>::max())));
    };
    return {fit(WidthOf(rect)), fit(HeightOf(rect))};
}

} // namespace Norvex::DX
