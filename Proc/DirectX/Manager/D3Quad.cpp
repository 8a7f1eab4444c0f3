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

template <class Viewport>
Viewport MakeViewportOf(const Rect2DT<long>& rect) {
    Viewport viewport = {};
    viewport.TopLeftX = static_cast<float>(rect.left);
    viewport.TopLeftY = static_cast<float>(rect.top);
    viewport.Width = static_cast<float>(rect.right - rect.left);
    viewport.Height = static_cast<float>(rect.bottom - rect.top);
    viewport.MaxDepth = 1.0F;
    return viewport;
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

namespace Quad11 {

std::vector<D3D11_INPUT_ELEMENT_DESC> MakeInputElements() {
    return {
        {"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
        {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, D3D11_APPEND_ALIGNED_ELEMENT,
         D3D11_INPUT_PER_VERTEX_DATA, 0},
    };
}

D3D11_RASTERIZER_DESC MakeRasterizer() {
    D3D11_RASTERIZER_DESC desc = {};
    desc.FillMode = D3D11_FILL_SOLID;
    desc.CullMode = D3D11_CULL_NONE;
    desc.DepthClipEnable = TRUE;
    return desc;
}

D3D11_DEPTH_STENCIL_DESC MakeDepthStencil() {
    const D3D11_DEPTH_STENCILOP_DESC keep = {D3D11_STENCIL_OP_KEEP, D3D11_STENCIL_OP_KEEP,
                                             D3D11_STENCIL_OP_KEEP, D3D11_COMPARISON_ALWAYS};
    D3D11_DEPTH_STENCIL_DESC desc = {};
    desc.DepthWriteMask = D3D11_DEPTH_WRITE_MASK_ALL;
    desc.DepthFunc = D3D11_COMPARISON_LESS;
    desc.StencilReadMask = D3D11_DEFAULT_STENCIL_READ_MASK;
    desc.StencilWriteMask = D3D11_DEFAULT_STENCIL_WRITE_MASK;
    desc.FrontFace = keep;
    desc.BackFace = keep;
    return desc;
}

D3D11_SAMPLER_DESC MakeLinearSampler() {
    D3D11_SAMPLER_DESC desc = {};
    desc.Filter = D3D11_FILTER_MIN_MAG_MIP_LINEAR;
    desc.AddressU = D3D11_TEXTURE_ADDRESS_CLAMP;
    desc.AddressV = D3D11_TEXTURE_ADDRESS_CLAMP;
    desc.AddressW = D3D11_TEXTURE_ADDRESS_CLAMP;
    desc.MaxAnisotropy = 1;
    desc.ComparisonFunc = D3D11_COMPARISON_NEVER;
    desc.MaxLOD = D3D11_FLOAT32_MAX;
    return desc;
}

D3D11_VIEWPORT MakeViewport(const Rect2DT<long>& rect) {
    return MakeViewportOf<D3D11_VIEWPORT>(rect);
}

} // namespace Quad11

namespace Quad12 {

std::vector<D3D12_INPUT_ELEMENT_DESC> MakeInputElements() {
    return {
        {"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0,
         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0},
        {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, D3D12_APPEND_ALIGNED_ELEMENT,
         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0},
    };
}

D3D12_RASTERIZER_DESC MakeRasterizer() {
    D3D12_RASTERIZER_DESC desc = {};
    desc.FillMode = D3D12_FILL_MODE_SOLID;
    desc.CullMode = D3D12_CULL_MODE_BACK;
    desc.DepthClipEnable = TRUE;
    desc.ConservativeRaster = D3D12_CONSERVATIVE_RASTERIZATION_MODE_OFF;
    return desc;
}

D3D12_DEPTH_STENCIL_DESC MakeDepthStencil() {
    const D3D12_DEPTH_STENCILOP_DESC keep = {D3D12_STENCIL_OP_KEEP, D3D12_STENCIL_OP_KEEP,
                                             D3D12_STENCIL_OP_KEEP, D3D12_COMPARISON_FUNC_ALWAYS};
    D3D12_DEPTH_STENCIL_DESC desc = {};
    desc.DepthWriteMask = D3D12_DEPTH_WRITE_MASK_ALL;
    desc.DepthFunc = D3D12_COMPARISON_FUNC_LESS;
    desc.StencilReadMask = D3D12_DEFAULT_STENCIL_READ_MASK;
    desc.StencilWriteMask = D3D12_DEFAULT_STENCIL_WRITE_MASK;
    desc.FrontFace = keep;
    desc.BackFace = keep;
    return desc;
}

D3D12_STATIC_SAMPLER_DESC MakeLinearSampler() {
    D3D12_STATIC_SAMPLER_DESC desc = {};
    desc.Filter = D3D12_FILTER_MIN_MAG_MIP_LINEAR;
    desc.AddressU = D3D12_TEXTURE_ADDRESS_MODE_CLAMP;
    desc.AddressV = D3D12_TEXTURE_ADDRESS_MODE_CLAMP;
    desc.AddressW = D3D12_TEXTURE_ADDRESS_MODE_CLAMP;
    desc.MaxAnisotropy = 1;
    desc.ComparisonFunc = D3D12_COMPARISON_FUNC_NEVER;
    desc.BorderColor = D3D12_STATIC_BORDER_COLOR_TRANSPARENT_BLACK;
    desc.MaxLOD = D3D12_FLOAT32_MAX;
    desc.ShaderVisibility = D3D12_SHADER_VISIBILITY_PIXEL;
    return desc;
}

D3D12_VIEWPORT MakeViewport(const Rect2DT<long>& rect) {
    return MakeViewportOf<D3D12_VIEWPORT>(rect);
}

} // namespace Quad12

} // namespace Norvex::DX
