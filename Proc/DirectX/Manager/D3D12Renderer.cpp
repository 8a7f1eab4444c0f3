#include "Proc/DirectX/Manager/D3D12Renderer.h"

#include <source_location>
#include <string>
#include <utility>

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/Throw.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

// Root parameters, in the order in which they are added.
constexpr unsigned kColorIndex = 0;
constexpr unsigned kParamsIndex = 0;
constexpr unsigned kTextureIndex = 1;

void CheckSource(const D12Descriptor* source, const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(
        source != nullptr && source->GetType() == D12Descriptor::ShaderResource,
        "The texture is expected to be the shader resource view", location);
}

void CheckTarget(const D12Descriptor* target, const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(
        target != nullptr && target->GetType() == D12Descriptor::RenderTarget,
        "The texture is expected to be the render target view", location);
}

void CheckAllocator(const D12CommandAllocator* allocator, const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator",
                                    location);
}

// A table holds its picture for one draw, also when that fails.
class TableOfOneDraw {
public:
    TableOfOneDraw(D12ViewTable& table, const boost::intrusive_ptr<D12Descriptor>& view)
        : m_table(table) {
        m_table.SetView(0, 0, view, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    }
    ~TableOfOneDraw() { m_table.Clear(); }
    TableOfOneDraw(const TableOfOneDraw&) = delete;
    TableOfOneDraw& operator=(const TableOfOneDraw&) = delete;

private:
    D12ViewTable& m_table;
};

} // namespace

D12FillDraw::D12FillDraw(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_pipeline(std::make_unique<D12QuadPipeline>(device, "fill draw",
                                                   std::string(Shaders::kQuadVertex),
                                                   std::string(Shaders::kFillPixel))),
      m_color(m_pipeline->GetParameters().AddContants(4, 0, 0, D3D12_SHADER_VISIBILITY_ALL)) {}

D12FillDraw::~D12FillDraw() = default;

void D12FillDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                         const Proc::ColorF& color,
                         const boost::intrusive_ptr<D12Descriptor>& target,
                         const Rect2DT<long>& rect) {
    CheckTarget(target.get(), std::source_location::current());
    CheckAllocator(allocator.get(), std::source_location::current());
    m_color->SetData(&color, sizeof(color));
    m_pipeline->Record(*allocator, target, GetVisiblePart(rect, target->GetSize()),
                       Winding::Clockwise);
}

void D12FillDraw::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                         const Proc::ColorF& color,
                         const boost::intrusive_ptr<D12Descriptor>& target,
                         const Rect2DT<long>& rect) {
    CheckTarget(target.get(), std::source_location::current());
    D12DrawState& state = D12DrawState::Of(list, std::source_location::current());
    if (const auto viewport = GetVisiblePart(rect, target->GetSize())) {
        const D12DrawEvent event = m_pipeline->BeginEvent(state);
        const D12DrawState::Targets targets(&target, 1);
        m_pipeline->MakePipelineState(targets);
        m_pipeline->Draw(state, targets, *viewport, m_pipeline->GetQuad(*list),
                         [&] { list->SetRoot32BitConstants(kColorIndex, 4, &color); });
    }
}

const D12BlendState& D12FillDraw::GetBlendState() const {
    return m_pipeline->GetBlendState();
}

void D12FillDraw::SetBlendState(const D12BlendState& blendState) {
    m_pipeline->SetBlendState(blendState);
}

D12ImageDraw::D12ImageDraw(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_pipeline(std::make_unique<D12QuadPipeline>(device, "image draw",
                                                   D3ImageRenderer::GetVertexShader(),
                                                   D3ImageRenderer::GetPixelShader())),
      m_paramsView(m_pipeline->GetParameters().AddConstantBufferView(
          0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, D3D12_SHADER_VISIBILITY_ALL)),
      m_textureTable(m_pipeline->AddTexture()) {}

D12ImageDraw::~D12ImageDraw() = default;

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    Encode(allocator, source, target, {.conversion = conversion, .rect = rect});
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    Encode(list, source, target, {.conversion = conversion, .rect = rect});
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const AffineTransform& transform,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    Encode(allocator, source, target,
           {.transform = transform, .conversion = conversion, .rect = rect});
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const AffineTransform& transform,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    Encode(list, source, target, {.transform = transform, .conversion = conversion, .rect = rect});
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const ImageDrawParams& params) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(target.get(), std::source_location::current());
    CheckAllocator(allocator.get(), std::source_location::current());
    CheckSourceRect<DirectX12Exception>(params.sourceRect, source->GetSize());
    const Rect2DT<long> area = params.rect.value_or(target->GetRect());
    const auto viewport = GetVisiblePart(area, target->GetSize());

    const std::lock_guard guard(m_mutex);
    const AffineTransform transform = MakeDrawTransform(source, params, area);
    const TableOfOneDraw table(*m_textureTable, source);
    const D3ImageParams shaderParams =
        MakeShaderParams(ToClipUnits(transform, area, viewport.value_or(area)), *source, params);
    SetParameters(shaderParams);
    m_pipeline->UseShader(D3ConversionKey(shaderParams));
    m_pipeline->Record(*allocator, target, viewport, GetWinding(transform));
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const ImageDrawParams& params) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(target.get(), std::source_location::current());
    CheckSourceRect<DirectX12Exception>(params.sourceRect, source->GetSize());
    D12DrawState& state = D12DrawState::Of(list, std::source_location::current());
    const Rect2DT<long> area = params.rect.value_or(target->GetRect());
    const auto viewport = GetVisiblePart(area, target->GetSize());

    const std::lock_guard guard(m_mutex);
    const AffineTransform transform = MakeDrawTransform(source, params, area);
    if (!viewport) {
        return;
    }
    const D3ImageParams shaderParams =
        MakeShaderParams(ToClipUnits(transform, area, *viewport), *source, params);
    const D12DrawEvent event = m_pipeline->BeginEvent(state);
    const auto constants = state.AddConstants(&shaderParams, sizeof(shaderParams));
    const auto texture = state.AddView(source);
    const D12DrawState::Targets targets(&target, 1);
    const TableOfOneDraw table(*m_textureTable, source);
    m_pipeline->UseShader(D3ConversionKey(shaderParams));
    m_pipeline->MakePipelineState(targets); // asks the table for its kind of view alone
    m_pipeline->Draw(state, targets, *viewport, m_pipeline->GetQuad(*list, GetWinding(transform)),
                     [&] {
                         state.SetConstants(kParamsIndex, constants);
                         state.SetTable(kTextureIndex, texture);
                     });
}

AffineTransform D12ImageDraw::MakeDrawTransform(const boost::intrusive_ptr<D12Descriptor>& source,
                                                const ImageDrawParams& params,
                                                const Rect2DT<long>& area) {
    if (params.transform) {
        return *params.transform;
    }
    return params.sourceRect ? MakePartTransform(SizeOf(*params.sourceRect), SizeOf(area))
                             : MakeTransform(source, SizeOf(area));
}

D3ImageParams D12ImageDraw::MakeShaderParams(const AffineTransform& clipTransform,
                                             const D12Descriptor& source,
                                             const ImageDrawParams& params) const {
    const auto& blends = m_pipeline->GetBlendState().targets;
    const bool isStraight = !blends.empty() && blends.front().srcBlend == D3D12_BLEND_SRC_ALPHA;
    return D3ImageRenderer::MakeParams(clipTransform, params, source.GetSize(), isStraight);
}

void D12ImageDraw::SetParameters(const D3ImageParams& params) {
    m_paramsView->SetBuffer(
        CreateConstants(*m_device, D3ImageRenderer::MakeParamsBytes(params), L"Matrix Buffer"));
}

void D12ImageDraw::Specialize(const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    const D3ConversionKey key(D3ImageRenderer::MakeParams({}, conversion));
    const auto isDone = [&] { return m_pipeline->UseShader(key); };
    {
        const std::lock_guard guard(m_mutex);
        if (isDone()) {
            return;
        }
    }
    auto shader = D12Shader::CreatePixel("PSMain", D3ImageRenderer::GetPixelShader(key));
    const std::lock_guard guard(m_mutex);
    if (!isDone()) { // by another thread
        m_pipeline->AddShader(key, std::move(shader));
    }
}

std::size_t D12ImageDraw::GetSpecializationCount() const {
    const std::lock_guard guard(m_mutex);
    return m_pipeline->GetAddedShaderCount();
}

D12BlendState D12ImageDraw::GetBlendState() const {
    const std::lock_guard guard(m_mutex);
    return m_pipeline->GetBlendState();
}

void D12ImageDraw::SetBlendState(const D12BlendState& blendState) {
    const std::lock_guard guard(m_mutex);
    m_pipeline->SetBlendState(blendState);
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

AffineTransform D12ImageDraw::MakePartTransform(const Size2DT<long>& /*partSize*/,
                                                const Size2DT<long>& /*targetSize*/) {
    return m_userTransform.value_or(AffineTransform{});
}

D12ImageRenderer::D12ImageRenderer(const boost::intrusive_ptr<D12Device>& device)
    : D12ImageDraw(device) {}

D12ImageRenderer::~D12ImageRenderer() = default;

AffineTransform D12ImageRenderer::MakeTransform(const boost::intrusive_ptr<D12Descriptor>& source,
                                                const Size2DT<long>& targetSize) {
    return MakePartTransform(source->GetSize(), targetSize);
}

AffineTransform D12ImageRenderer::MakePartTransform(const Size2DT<long>& partSize,
                                                    const Size2DT<long>& targetSize) {
    const bool isCurrent = m_userTransform.has_value() && partSize == m_lastSourceSize &&
                           targetSize == m_lastTargetSize;
    if (!isCurrent) {
        m_lastSourceSize = partSize;
        m_lastTargetSize = targetSize;
        UpdateTransform(partSize, targetSize);
    }
    return m_userTransform.value_or(AffineTransform{});
}

void D12ImageRenderer::SetTransform(const std::optional<AffineTransform>& transform) {
    m_userTransform = transform;
}

} // namespace Norvex::DX
