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
      m_depthStencil(device->CreateDepthStencilState(MakeDepthStencil11())) {
    SetName(m_inputLayout, "quad input layout");
    SetName(m_sampler, "linear sampler");
    SetName(m_rasterizer, "quad rasterizer state");
    SetName(m_depthStencil, "quad depth-stencil state");
}

boost::intrusive_ptr<D11VertexBuffer>
D11QuadPipeline::CreateQuad(const boost::intrusive_ptr<D11Device>& device,
                            const Size2DT<float>& extent) {
    const auto quad = MakeQuad(extent);
    return D11VertexBuffer::Create(device, quad.data(), sizeof(QuadVertex),
                                   static_cast<UINT>(quad.size()));
}

CComPtr<ID3D11Texture2D> D11QuadPipeline::CreateIntermediate(D11Device& device,
                                                             const Size2DT<long>& size,
                                                             DXGI_FORMAT format) {
    D3D11_TEXTURE2D_DESC desc = {};
    desc.Width = static_cast<UINT>(size.width);
    desc.Height = static_cast<UINT>(size.height);
    desc.MipLevels = 1;
    desc.ArraySize = 1;
    desc.Format = format;
    desc.SampleDesc.Count = 1;
    desc.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
    return device.CreateTexture2D(desc, nullptr);
}

void D11QuadPipeline::Draw(D11DeviceContext& context, const D11QuadDraw& draw) const {
    Draw(context, draw, m_quad);
}

void D11QuadPipeline::Draw(D11DeviceContext& context, const D11QuadDraw& draw,
                           const boost::intrusive_ptr<D11VertexBuffer>& quad) const {
    ID3D11DeviceContext& raw = *context.m_context;
    raw.RSSetState(m_rasterizer);
    raw.OMSetDepthStencilState(m_depthStencil, 0);
    raw.OMSetRenderTargets(static_cast<UINT>(draw.targets.size()), draw.targets.data(), nullptr);
    raw.OMSetBlendState(draw.blendState, nullptr, D3D11_DEFAULT_SAMPLE_MASK);
    const auto viewport = MakeViewport<D3D11_VIEWPORT>(draw.viewport);
    raw.RSSetViewports(1, &viewport);

    ID3D11Buffer* const vertices = quad->GetBuffer();
    const UINT stride = quad->GetStride();
    const UINT offset = 0;
    raw.IASetVertexBuffers(0, 1, &vertices, &stride, &offset);
    raw.IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    raw.VSSetConstantBuffers(0, 1, &draw.constants);
    raw.PSSetConstantBuffers(0, 1, &draw.constants);
    raw.PSSetShaderResources(0, 1, &draw.texture);
    if (!draw.moreTextures.empty()) {
        raw.PSSetShaderResources(1, static_cast<UINT>(draw.moreTextures.size()),
                                 draw.moreTextures.data());
    }
    if (draw.moreConstants != nullptr) {
        raw.PSSetConstantBuffers(1, 1, &draw.moreConstants);
    }
    raw.IASetInputLayout(m_inputLayout);
    raw.VSSetShader(m_vertexShader->GetShader(), nullptr, 0);
    raw.PSSetShader(draw.shader->GetShader(), nullptr, 0);
    ID3D11SamplerState* const sampler = m_sampler;
    raw.PSSetSamplers(0, 1, &sampler);
    raw.Draw(quad->GetCount(), 0);
}

D11DrawEvent D11QuadPipeline::BeginEvent(const D11DeviceContext& context, const char* name) {
    return {context.m_annotation, name};
}

void D11QuadPipeline::Unbind(D11DeviceContext& context) {
    ID3D11DeviceContext& raw = *context.m_context;
    raw.OMSetBlendState(nullptr, nullptr, D3D11_DEFAULT_SAMPLE_MASK);
    ID3D11RenderTargetView* const none = nullptr;
    raw.OMSetRenderTargets(1, &none, nullptr);
    raw.OMSetDepthStencilState(nullptr, 0);
    raw.RSSetState(nullptr);
}

} // namespace Norvex::DX
