#include "Proc/DirectX/Manager/D3QuadPipeline.h"

#include "Proc/DirectX/Manager/D3D11Device.h"

namespace Norvex::DX {

namespace {

std::vector<D3D11_INPUT_ELEMENT_DESC> MakeInputElements11() {
    return {
        {"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
        {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, D3D11_APPEND_ALIGNED_ELEMENT,
         D3D11_INPUT_PER_VERTEX_DATA, 0},
    };
}

// Both faces.
D3D11_RASTERIZER_DESC MakeRasterizer11() {
    D3D11_RASTERIZER_DESC desc = {};
    desc.FillMode = D3D11_FILL_SOLID;
    desc.CullMode = D3D11_CULL_NONE;
    desc.DepthClipEnable = TRUE;
    return desc;
}

// Off.
D3D11_DEPTH_STENCIL_DESC MakeDepthStencil11() {
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

// Clamped.
D3D11_SAMPLER_DESC MakeLinearSampler11() {
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

} // namespace

D11QuadPipeline::D11QuadPipeline(const boost::intrusive_ptr<D11Device>& device,
                                 const std::string& vertexShader)
    : m_vertexShader(std::make_shared<D11VertexShader>(device, "VSMain", vertexShader)),
      m_quad(CreateQuad(device, {1.0F, 1.0F})),
      m_inputLayout(device->CreateInputLayout(MakeInputElements11(), m_vertexShader)),
      m_sampler(device->CreateSamplerState(MakeLinearSampler11())),
      m_rasterizer(device->CreateRasterizerState(MakeRasterizer11())),
      m_depthStencil(device->CreateDepthStencilState(MakeDepthStencil11())) {}

boost::intrusive_ptr<D11VertexBuffer>
D11QuadPipeline::CreateQuad(const boost::intrusive_ptr<D11Device>& device,
                            const Size2DT<float>& extent) {
    const auto quad = MakeQuad(extent);
    return D11VertexBuffer::Create(device, quad.data(), sizeof(QuadVertex),
                                   static_cast<UINT>(quad.size()));
}

void D11QuadPipeline::Draw(D11DeviceContext& context, const D11QuadDraw& draw) const {
    Draw(context, draw, m_quad);
}

void D11QuadPipeline::Draw(D11DeviceContext& context, const D11QuadDraw& draw,
                           const boost::intrusive_ptr<D11VertexBuffer>& quad) const {
    context.RSSetState(m_rasterizer);
    context.OMSetDepthStencilState(m_depthStencil, 0);
    context.OMSetRenderTargets(draw.targets, nullptr);
    context.OMSetBlendState(draw.blendState);
    context.RSSetViewports({MakeViewport<D3D11_VIEWPORT>(draw.viewport)});

    context.IASetVertexBuffer(quad);
    context.IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    context.VSSetConstantBuffers({draw.constants});
    context.PSSetConstantBuffers({draw.constants});
    context.PSSetShaderResources({draw.texture});
    context.IASetInputLayout(m_inputLayout);
    context.VSSetShader(m_vertexShader);
    context.PSSetShader(draw.shader);
    context.PSSetSamplers({m_sampler});
    context.Draw(quad);
}

void D11QuadPipeline::Unbind(D11DeviceContext& context) {
    context.OMSetBlendState(nullptr);
    context.OMSetRenderTargets({nullptr}, nullptr);
    context.OMSetDepthStencilState(nullptr, 0);
    context.RSSetState(nullptr);
}

} // namespace Norvex::DX
