#pragma once

// The geometry of what the drawers of both generations draw, internal: a quad over the viewport.
// Pure functions, any thread. E is the exception of the generation.

#include <array>
#include <optional>
#include <source_location>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Proc/DirectX/Manager/AffineTransform.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

// The device; "There is no device" for a null one.
template <class E, class Device>
boost::intrusive_ptr<Device>
CheckDevice(const boost::intrusive_ptr<Device>& device,
            const std::source_location& location = std::source_location::current()) {
    ThrowUnless<E>(device != nullptr, "There is no device", location);
    return device;
}

// The rectangle, where there is one, has pixels, all of a source of that size.
template <class E>
void CheckSourceRect(const std::optional<Rect2DT<long>>& rect, const Size2DT<long>& source,
                     const std::source_location& location = std::source_location::current()) {
    const bool isInside =
        !rect || (0 <= rect->left && rect->left < rect->right && rect->right <= source.width &&
                  0 <= rect->top && rect->top < rect->bottom && rect->bottom <= source.height);
    ThrowUnless<E>(isInside, "The source rectangle does not lie in the texture", location);
}

struct QuadVertex {
    float x, y, w;
    float u, v;
};

enum class Winding : int { Clockwise, CounterClockwise };

// Covers clip space with the texture from its corner to `extent`, 1 for all of it; a triangle
// strip.
std::array<QuadVertex, 4> MakeQuad(const Size2DT<float>& extent = {1.0F, 1.0F},
                                   Winding winding = Winding::Clockwise);
// The winding that faces the viewer once the transform has been applied.
Winding GetWinding(const AffineTransform& transform);

// The part of the rectangle inside a target of that size, nothing where there is none. It serves as
// the viewport: viewports end at 32767, rectangles do not.
std::optional<Rect2DT<long>> GetVisiblePart(const Rect2DT<long>& rect, const Size2DT<long>& target);

// The user's transform, in clip units of `rect` but its translation in pixels, in clip units of
// `viewport`.
AffineTransform ToClipUnits(AffineTransform transform, const Rect2DT<long>& rect,
                            const Rect2DT<long>& viewport);

// At most what a long holds.
Size2DT<long> SizeOf(const Rect2DT<long>& rect);

// D3D11_VIEWPORT or D3D12_VIEWPORT.
template <class Viewport>
Viewport MakeViewport(const Rect2DT<long>& rect) {
    Viewport viewport = {};
    viewport.TopLeftX = static_cast<float>(rect.left);
    viewport.TopLeftY = static_cast<float>(rect.top);
    viewport.Width = static_cast<float>(rect.right - rect.left);
    viewport.Height = static_cast<float>(rect.bottom - rect.top);
    viewport.MaxDepth = 1.0F;
    return viewport;
}

} // namespace Norvex::DX
