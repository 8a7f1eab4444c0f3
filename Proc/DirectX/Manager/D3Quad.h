#pragma once

// What the drawers of both generations draw and with which fixed states, internal: a quad over the
// viewport, sampled linearly. Constants and pure functions, any thread.

#include <array>
#include <vector>

#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::DX {

struct QuadVertex {
    float x, y, w;
    float u, v;
};

// Covers clip space with the texture from its corner to `extent`, 1 for all of it; a triangle
// strip.
inline std::array<QuadVertex, 4> MakeQuad(const Size2DT<float>& extent = {1.0F, 1.0F}) {
    return {{{-1, -1, 1, 0, extent.height},
             {-1, 1, 1, 0, 0},
             {1, -1, 1, extent.width, extent.height},
             {1, 1, 1, extent.width, 0}}};
}

// The user's transform translates in pixels; a clip unit is half the rectangle.
inline AffineTransform ToClipUnits(AffineTransform transform, const Rect2DT<long>& rect) {
    transform.rows[3][0] *= 2.0F / static_cast<float>(rect.right - rect.left);
    transform.rows[3][1] *= 2.0F / static_cast<float>(rect.bottom - rect.top);
    return transform;
}

inline Size2DT<long> SizeOf(const Rect2DT<long>& rect) {
    return {rect.right - rect.left, rect.bottom - rect.top};
}

// For Direct3D 11.
namespace Quad11 {

std::vector<D3D11_INPUT_ELEMENT_DESC> MakeInputElements();
D3D11_RASTERIZER_DESC MakeRasterizer();      // both faces
D3D11_DEPTH_STENCIL_DESC MakeDepthStencil(); // off
D3D11_SAMPLER_DESC MakeLinearSampler();      // clamped
D3D11_VIEWPORT MakeViewport(const Rect2DT<long>& rect);

} // namespace Quad11

// For Direct3D 12.
namespace Quad12 {

std::vector<D3D12_INPUT_ELEMENT_DESC> MakeInputElements();
D3D12_RASTERIZER_DESC MakeRasterizer();        // front faces
D3D12_DEPTH_STENCIL_DESC MakeDepthStencil();   // off
D3D12_STATIC_SAMPLER_DESC MakeLinearSampler(); // clamped, s0 of the pixel shader
D3D12_VIEWPORT MakeViewport(const Rect2DT<long>& rect);

} // namespace Quad12

} // namespace Norvex::DX
