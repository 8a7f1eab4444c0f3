#include "Proc/DirectX/Manager/D3D12Renderer.h"

#include <source_location>
#include <string>

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
      m_pipeline(std::make_unique<D12QuadPipeline>(device, std::string(Shaders::kQuadVertex),
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
      m_pipeline(std::make_unique<D12QuadPipeline>(device, D3ImageRenderer::GetVertexShader(),
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
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(target.get(), std::source_location::current());
    CheckAllocator(allocator.get(), std::source_location::current());
    const auto transform = MakeLockedTransform(source, rect.value_or(target->GetRect()));
    Encode(allocator, source, target, transform, conversion, rect);
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(target.get(), std::source_location::current());
    const auto transform = MakeLockedTransform(source, rect.value_or(target->GetRect()));
    Encode(list, source, target, transform, conversion, rect);
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const AffineTransform& transform,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(target.get(), std::source_location::current());
    CheckAllocator(allocator.get(), std::source_location::current());
    const Rect2DT<long> area = rect.value_or(target->GetRect());
    const auto viewport = GetVisiblePart(area, target->GetSize());

    const std::lock_guard guard(m_mutex);
    const TableOfOneDraw table(*m_textureTable, source);
    SetParameters(ToClipUnits(transform, area, viewport.value_or(area)), conversion);
    m_pipeline->Record(*allocator, target, viewport, GetWinding(transform));
}

void D12ImageDraw::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const boost::intrusive_ptr<D12Descriptor>& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const AffineTransform& transform,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(target.get(), std::source_location::current());
    D12DrawState& state = D12DrawState::Of(list, std::source_location::current());
    const Rect2DT<long> area = rect.value_or(target->GetRect());
    const auto viewport = GetVisiblePart(area, target->GetSize());
    if (!viewport) {
        return;
    }
    const D3ImageParams params =
        D3ImageRenderer::MakeParams(ToClipUnits(transform, area, *viewport), conversion);
    const auto constants = state.AddConstants(&params, sizeof(params));
    const auto texture = state.AddView(source);
    const D12DrawState::Targets targets(&target, 1);

    const std::lock_guard guard(m_mutex);
    const TableOfOneDraw table(*m_textureTable, source);
    m_pipeline->MakePipelineState(targets); // asks the table for its kind of view alone
    m_pipeline->Draw(state, targets, *viewport, m_pipeline->GetQuad(*list, GetWinding(transform)),
                     [&] {
                         state.SetConstants(kParamsIndex, constants);
                         state.SetTable(kTextureIndex, texture);
                     });
}

AffineTransform D12ImageDraw::MakeLockedTransform(const boost::intrusive_ptr<D12Descriptor>& source,
                                                  const Rect2DT<long>& area) {
    const std::lock_guard guard(m_mutex);
    return MakeTransform(source, SizeOf(area));
}

void D12ImageDraw::SetParameters(const AffineTransform& clipTransform,
                                 const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    m_paramsView->SetBuffer(CreateConstants(
        *m_device, D3ImageRenderer::MakeParamsBytes(clipTransform, conversion), L"Matrix Buffer"));
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
