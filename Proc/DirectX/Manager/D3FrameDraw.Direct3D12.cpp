#include <array>
#include <string>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"

namespace Norvex::DX {

namespace {

// Root parameters, in the order in which they are added.
constexpr unsigned kDrawImageIndex = 0;
constexpr unsigned kDrawFrameIndex = 1;
constexpr unsigned kDrawPlanesIndex = 2;

bool DrawsStraightAlpha(const D12BlendState& blend) {
    return !blend.targets.empty() && blend.targets.front().srcBlend == D3D12_BLEND_SRC_ALPHA;
}

} // namespace

D12FrameDraw::D12FrameDraw(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_pipeline(std::make_unique<D12QuadPipeline>(device, "frame draw", GetVertexShader(),
                                                   GetFrameDrawShader())),
      m_imageParams(AddFrameConstants(m_pipeline->GetParameters(), 0, D3D12_SHADER_VISIBILITY_ALL)),
      m_frameParams(
          AddFrameConstants(m_pipeline->GetParameters(), 1, D3D12_SHADER_VISIBILITY_PIXEL)),
      m_planes(m_pipeline->AddTexture(3)),
      m_frameConstants(std::make_unique<KeptConstants<ID3D12Resource>>()) {}

D12FrameDraw::~D12FrameDraw() = default;

D12FrameDraw::Drawing D12FrameDraw::Check(const D12Frame& source, const D12Descriptor* target,
                                          const ImageDrawParams& params,
                                          const std::source_location& location) {
    CheckFrame<DirectX12Exception>(source.desc, DescribeTextures(source), source.slice, location);
    ThrowUnless<DirectX12Exception>(
        target != nullptr && target->GetType() == D12Descriptor::RenderTarget,
        "The texture is expected to be the render target view", location);
    CheckSourceRect<DirectX12Exception>(params.sourceRect, source.desc.size, location);
    CheckFrameConversion<DirectX12Exception>(source.desc, params.conversion, location);
    return Prepare(source.desc, params, target->GetSize(),
                   DrawsStraightAlpha(m_pipeline->GetBlendState()));
}

void D12FrameDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const D12Frame& source, const boost::intrusive_ptr<D12Descriptor>& target,
                          const ImageDrawParams& params) {
    const auto location = std::source_location::current();
    const Drawing drawing = Check(source, target.get(), params, location);
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator");
    const D12PlanesOfOneDraw planes(*m_planes, MakePlaneViews(*m_device, source));
    m_imageParams->SetBuffer(
        CreateConstants(*m_device, MakeParamsBytes(drawing.image), L"Matrix Buffer"));
    const D3FrameParams frame = MakeFrameParams(source.desc, GetChromaFilter());
    m_frameParams->SetBuffer(m_frameConstants->Get(BytesOf(frame), [&](const auto& bytes) {
        return CreateConstants(*m_device, bytes, L"Frame params buffer");
    }));
    m_pipeline->Record(*allocator, target, drawing.viewport, GetWinding(drawing.transform));
}

void D12FrameDraw::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const D12Frame& source, const boost::intrusive_ptr<D12Descriptor>& target,
                          const ImageDrawParams& params) {
    const auto location = std::source_location::current();
    D12DrawState& state = D12DrawState::Of(list, location);
    const Drawing drawing = Check(source, target.get(), params, location);
    if (!drawing.viewport) {
        return;
    }
    const D12DrawEvent event = m_pipeline->BeginEvent(state);
    const D3FrameParams frame = MakeFrameParams(source.desc, GetChromaFilter());
    const auto imageConstants = state.AddConstants(&drawing.image, sizeof(drawing.image));
    const auto frameConstants = state.AddConstants(&frame, sizeof(frame));
    const D12PlaneViews views = MakePlaneViews(*m_device, source);
    const auto textures = state.AddViews(views);
    const D12DrawState::Targets targets(&target, 1);
    const D12PlanesOfOneDraw planes(*m_planes, views);
    m_pipeline->MakePipelineState(targets); // asks the table for its kind of views alone
    m_pipeline->Draw(state, targets, *drawing.viewport,
                     m_pipeline->GetQuad(*list, GetWinding(drawing.transform)), [&] {
                         state.SetConstants(kDrawImageIndex, imageConstants);
                         state.SetConstants(kDrawFrameIndex, frameConstants);
                         state.SetTable(kDrawPlanesIndex, textures);
                     });
}

const D12BlendState& D12FrameDraw::GetBlendState() const {
    return m_pipeline->GetBlendState();
}

void D12FrameDraw::SetBlendState(const D12BlendState& blendState) {
    m_pipeline->SetBlendState(blendState);
}

} // namespace Norvex::DX
