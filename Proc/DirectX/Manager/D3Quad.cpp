#include "Proc/DirectX/Manager/D3Quad.h"

namespace Norvex::DX {

namespace {

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
