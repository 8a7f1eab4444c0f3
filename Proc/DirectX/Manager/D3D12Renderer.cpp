#include "Proc/DirectX/Manager/D3D12Renderer.h"

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

void CheckSource(const D12Descriptor* source, const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(
        source != nullptr && source->GetType() == D12Descriptor::ShaderResource,
        "The texture is expected to be the shader resource view", location);
}

void CheckTarget(const D12CommandAllocator* allocator, const D12Descriptor* target,
                 const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(
        target != nullptr && target->GetType() == D12Descriptor::RenderTarget,
        "The texture is expected to be the render target view", location);
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator",
                                    location);
}

} // namespace

D12QuadPipeline::D12QuadPipeline(const boost::intrusive_ptr<D12Device>& device,
                                 const std::string& vertexShader, const std::string& pixelShader)
    : m_device(device) {
    m_desc.vertexShader = D12Shader::CreateVertex("VSMain", vertexShader);
    m_desc.pixelShader = D12Shader::CreatePixel("PSMain", pixelShader);
    m_desc.rasterizer = Quad12::MakeRasterizer();
    m_desc.depthStencil = Quad12::MakeDepthStencil();
    m_desc.inputLayout = Quad12::MakeInputElements();
    m_desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    m_blendState.targets = {D12RenderTargetBlend{}};
}

const CComPtr<ID3D12PipelineState>&
D12QuadPipeline::MakePipelineState(D12ShaderParameters& parameters, const D12Descriptor& target) {
    const std::vector<DXGI_FORMAT> formats = {target.GetFormat()};
    const bool changed = parameters.SerializeRootSignature();
    const bool fits = m_pipelineState != nullptr && !changed && m_desc.blend == m_blendState &&
                      m_desc.renderTargetFormats == formats;
    if (!fits) {
        m_desc.rootSignature = parameters.GetRootSignature();
        m_desc.blend = m_blendState;
        m_desc.renderTargetFormats = formats;
        m_pipelineState.Release();
        m_pipelineState = m_device->CreateGraphicsPipelineState(m_desc);
    }
    return m_pipelineState;
}

const boost::intrusive_ptr<D12VertexBuffer>&
D12QuadPipeline::MakeQuad(D12GraphicsCommandList& commandList, Winding winding) {
    auto& buffer = m_quads.at(static_cast<std::size_t>(winding));
    if (buffer == nullptr) {
        const auto quad = DX::MakeQuad({1.0F, 1.0F}, winding);
        buffer = commandList.CreateVertexBuffer(quad.data(), sizeof(QuadVertex),
                                                static_cast<unsigned>(quad.size()));
    }
    return buffer;
}

void D12QuadPipeline::Record(D12CommandAllocator& allocator, D12ShaderParameters& parameters,
                             const boost::intrusive_ptr<D12Descriptor>& target,
                             const std::optional<Rect2DT<long>>& viewport, Winding winding) {
    const auto& pipelineState = MakePipelineState(parameters, *target);
    allocator.RecordList(pipelineState,
                         [&](const boost::intrusive_ptr<D12GraphicsCommandList>& list) {
                             if (!viewport) {
                                 return;
                             }
                             const auto& quad = MakeQuad(*list, winding);
                             const Size2DT<long> size = target->GetSize();
                             parameters.SetToCommandList(list);
                             list->OMSetRenderTarget(target, nullptr);
                             list->RSSetViewports({Quad12::MakeViewport(*viewport)});
                             list->RSSetScissorRects({RECT{0, 0, size.width, size.height}});
                             list->IASetVertexBuffer(quad);
                             list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
                             list->Draw(quad);
                         });
}

D12FillDraw::D12FillDraw(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_parameters(device->CreateShaderParameters()),
      m_color(m_parameters->AddContants(4, 0, 0, D3D12_SHADER_VISIBILITY_ALL)),
      m_pipeline(device, std::string(Shaders::kQuadVertex), std::string(Shaders::kFillPixel)) {
    m_parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
}

D12FillDraw::~D12FillDraw() = default;

void D12FillDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                         const Proc::ColorF& color,
                         const boost::intrusive_ptr<D12Descriptor>& target,
                         const Rect2DT<long>& rect) {
    CheckTarget(allocator.get(), target.get(), std::source_location::current());
    m_color->SetData(&color, sizeof(color));
    m_pipeline.Record(*allocator, *m_parameters, target, GetVisiblePart(rect, target->GetSize()),
                      Winding::Clockwise);
}

D12ImageDraw::D12ImageDraw(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_parameters(device->CreateShaderParameters()),
      m_paramsView(m_parameters->AddConstantBufferView(0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE,
                                                       D3D12_SHADER_VISIBILITY_ALL)),
      m_textureTable(m_parameters->AddViewTable(1, D3D12_SHADER_VISIBILITY_PIXEL)),
      m_pipeline(device, D3ImageRenderer::GetVertexShader(), D3ImageRenderer::GetPixelShader()) {
    m_parameters->AddSampler(Quad12::MakeLinearSampler());
    m_parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
}

D12ImageDraw::~D12ImageDraw() = default;

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(allocator.get(), target.get(), std::source_location::current());
    const Rect2DT<long> area = rect.value_or(target->GetRect());
    AffineTransform transform;
    {
        const std::lock_guard guard(m_mutex);
        transform = MakeTransform(source, SizeOf(area));
    }
    Encode(allocator, source, target, transform, conversion, rect);
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const AffineTransform& transform,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(allocator.get(), target.get(), std::source_location::current());
    const Rect2DT<long> area = rect.value_or(target->GetRect());
    const auto viewport = GetVisiblePart(area, target->GetSize());

    const std::lock_guard guard(m_mutex);
    SetParameters(ToClipUnits(transform, area, viewport.value_or(area)), source, conversion);
    m_pipeline.Record(*allocator, *m_parameters, target, viewport, GetWinding(transform));
}

void D12ImageDraw::SetParameters(const AffineTransform& clipTransform,
                                 const boost::intrusive_ptr<D12Descriptor>& source,
                                 const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    const std::vector<std::uint8_t> bytes =
        D3ImageRenderer::MakeParamsBuffer(clipTransform, conversion);
    D12BufferDesc desc;
    desc.heapType = D3D12_HEAP_TYPE_UPLOAD;
    desc.size = bytes.size();
    desc.initialState = D3D12_RESOURCE_STATE_GENERIC_READ;
    desc.initialData = bytes.data();
    const auto buffer = m_device->CreateBuffer(desc);
    buffer->SetName(L"Matrix Buffer");
    m_paramsView->SetBuffer(buffer);
    m_textureTable->SetView(0, 0, source, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
}

D12BlendState D12ImageDraw::GetBlendState() const {
    const std::lock_guard guard(m_mutex);
    return m_pipeline.GetBlendState();
}

void D12ImageDraw::SetBlendState(const D12BlendState& blendState) {
    const std::lock_guard guard(m_mutex);
    m_pipeline.SetBlendState(blendState);
}

AffineTransform D12ImageDraw::GetTransform() const {
    const std::lock_guard guard(m_mutex);
    return m_userTransform.value_or(AffineTransform{});
}

void D12ImageDraw::SetTransform(const AffineTransform& transform) {
    const std::lock_guard guard(m_mutex);
    m_userTransform = transform;
}

AffineTransform D12ImageDraw::MakeTransform(const boost::intrusive_ptr<D12Descriptor>& /*source*/,
                                            const Size2DT<long>& /*targetSize*/) {
    return m_userTransform.value_or(AffineTransform{});
}

D12ImageRenderer::D12ImageRenderer(const boost::intrusive_ptr<D12Device>& device)
    : D12ImageDraw(device) {}

D12ImageRenderer::~D12ImageRenderer() = default;

AffineTransform D12ImageRenderer::MakeTransform(const boost::intrusive_ptr<D12Descriptor>& source,
                                                const Size2DT<long>& targetSize) {
    const Size2DT<long> sourceSize = source->GetSize();
    const bool isCurrent = m_userTransform.has_value() && sourceSize == m_lastSourceSize &&
                           targetSize == m_lastTargetSize;
    if (!isCurrent) {
        m_lastSourceSize = sourceSize;
        m_lastTargetSize = targetSize;
        UpdateTransform(sourceSize, targetSize);
    }
    return m_userTransform.value_or(AffineTransform{});
}

void D12ImageRenderer::SetTransform(const std::optional<AffineTransform>& transform) {
    m_userTransform = transform;
}

} // namespace Norvex::DX
