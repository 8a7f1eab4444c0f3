#include "Proc/DirectX/Manager/D3QuadPipeline.h"

#include <algorithm>
#include <cstddef>
#include <ranges>
#include <utility>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

namespace Norvex::DX {

namespace {

std::vector<D3D12_INPUT_ELEMENT_DESC> MakeInputElements12() {
    return {
        {"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0,
         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0},
        {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, D3D12_APPEND_ALIGNED_ELEMENT,
         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0},
    };
}

// Front faces, clockwise.
D3D12_RASTERIZER_DESC MakeRasterizer12() {
    D3D12_RASTERIZER_DESC desc = {};
    desc.FillMode = D3D12_FILL_MODE_SOLID;
    desc.CullMode = D3D12_CULL_MODE_BACK;
    desc.DepthClipEnable = TRUE;
    desc.ConservativeRaster = D3D12_CONSERVATIVE_RASTERIZATION_MODE_OFF;
    return desc;
}

// Off.
D3D12_DEPTH_STENCIL_DESC MakeDepthStencil12() {
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

// Clamped, s0 of the pixel shader.
D3D12_STATIC_SAMPLER_DESC MakeLinearSampler12() {
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

} // namespace

CComPtr<ID3D12Resource> CreateConstants(D12Device& device, std::span<const std::uint8_t> bytes,
                                        const wchar_t* name) {
    D12BufferDesc desc;
    desc.heapType = D3D12_HEAP_TYPE_UPLOAD;
    desc.size = bytes.size();
    desc.initialState = D3D12_RESOURCE_STATE_GENERIC_READ;
    desc.initialData = bytes.data();
    auto buffer = device.CreateBuffer(desc);
    buffer->SetName(name);
    return buffer;
}

D12QuadPipeline::D12QuadPipeline(const boost::intrusive_ptr<D12Device>& device, const char* name,
                                 const std::string& vertexShader, const std::string& pixelShader)
    : m_device(device),
      m_name(name),
      m_parameters(device->CreateShaderParameters()) {
    m_parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    m_desc.vertexShader = D12Shader::CreateVertex("VSMain", vertexShader);
    m_shaders.push_back({.shader = D12Shader::CreatePixel("PSMain", pixelShader)});
    m_desc.rasterizer = MakeRasterizer12();
    m_desc.depthStencil = MakeDepthStencil12();
    m_desc.inputLayout = MakeInputElements12();
    m_desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    m_blendState.targets = {D12RenderTargetBlend{}};
}

boost::intrusive_ptr<D12ViewTable> D12QuadPipeline::AddTexture(unsigned count) {
    m_parameters->AddSampler(MakeLinearSampler12());
    return m_parameters->AddViewTable(count, D3D12_SHADER_VISIBILITY_PIXEL);
}

void D12QuadPipeline::AddShader(const D3ConversionKey& key, std::shared_ptr<D12Shader> shader) {
    m_shaders.push_back({.key = key, .shader = std::move(shader)});
}

bool D12QuadPipeline::UseShader(const D3ConversionKey& key) {
    const auto found = std::ranges::find(m_shaders, key, &PixelShader::key);
    m_used = found != m_shaders.end() ? static_cast<std::size_t>(found - m_shaders.begin()) : 0;
    return m_used != 0;
}

const CComPtr<ID3D12PipelineState>&
D12QuadPipeline::MakePipelineState(D12DrawState::Targets targets) {
    const auto formats = targets | std::views::transform(&D12Descriptor::GetFormat);
    m_parameters->SerializeRootSignature();
    const auto& rootSignature = m_parameters->GetRootSignature();
    PixelShader& used = m_shaders[m_used];
    const bool fits = used.state != nullptr && used.rootSignature.p == rootSignature.p &&
                      used.blend == m_blendState && std::ranges::equal(used.formats, formats);
    if (!fits) {
        m_desc.rootSignature = rootSignature;
        m_desc.pixelShader = used.shader;
        m_desc.blend = m_blendState;
        m_desc.renderTargetFormats.assign(formats.begin(), formats.end());
        used.state.Release();
        used.state = m_device->CreateGraphicsPipelineState(m_desc);
        SetName(used.state, m_name, "pipeline state");
        used.rootSignature = rootSignature;
        used.blend = m_blendState;
        used.formats = m_desc.renderTargetFormats;
    }
    return used.state;
}

boost::intrusive_ptr<D12VertexBuffer> D12QuadPipeline::CreateQuad(D12GraphicsCommandList& list,
                                                                  const Size2DT<float>& extent,
                                                                  Winding winding) {
    const auto quad = MakeQuad(extent, winding);
    return list.CreateVertexBuffer(quad.data(), sizeof(QuadVertex),
                                   static_cast<unsigned>(quad.size()));
}

const boost::intrusive_ptr<D12VertexBuffer>& D12QuadPipeline::GetQuad(D12GraphicsCommandList& list,
                                                                      Winding winding) {
    auto& quad = m_quads.at(static_cast<std::size_t>(winding));
    if (quad == nullptr) {
        quad = CreateQuad(list, {1.0F, 1.0F}, winding);
    }
    return quad;
}

void D12QuadPipeline::Record(D12CommandAllocator& allocator,
                             const boost::intrusive_ptr<D12Descriptor>& target,
                             const std::optional<Rect2DT<long>>& viewport, Winding winding) {
    const D12DrawState::Targets targets(&target, 1);
    allocator.RecordList(MakePipelineState(targets), [&](const List& list) {
        if (viewport) {
            const D12DrawEvent event(list->GetGraphics(), m_name);
            Draw(list, targets, *viewport, target->GetSize(), GetQuad(*list, winding));
        }
    });
}

void D12QuadPipeline::Draw(const List& list, D12DrawState::Targets targets,
                           const Rect2DT<long>& viewport, const Size2DT<long>& scissor,
                           const boost::intrusive_ptr<D12VertexBuffer>& quad) const {
    m_parameters->SetToCommandList(list);
    list->SetTargets(targets, nullptr);
    const auto wholeViewport = MakeViewport<D3D12_VIEWPORT>(viewport);
    list->GetGraphics()->RSSetViewports(1, &wholeViewport);
    const RECT wholeTarget = {0, 0, scissor.width, scissor.height};
    list->GetGraphics()->RSSetScissorRects(1, &wholeTarget);
    list->IASetVertexBuffer(quad);
    list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    list->Draw(quad);
}

} // namespace Norvex::DX
