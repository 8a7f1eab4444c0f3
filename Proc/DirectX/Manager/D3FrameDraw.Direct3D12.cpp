#include <array>
#include <string>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3Quad.h"

namespace Norvex::DX {

namespace {

bool DrawsStraightAlpha(const D12BlendState& blend) {
    return !blend.targets.empty() && blend.targets.front().srcBlend == D3D12_BLEND_SRC_ALPHA;
}

} // namespace

struct D12FrameDraw::Passes : FrameVariants<D12FramePass> {};

D12FrameDraw::D12FrameDraw(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_passes(std::make_unique<Passes>()) {
    m_blendState.targets = {D12RenderTargetBlend{}};
}

D12FrameDraw::~D12FrameDraw() = default;

D12FrameDraw::Drawing D12FrameDraw::Check(const D12Frame& source, const D12Descriptor* target,
                                          const ImageDrawParams& params,
                                          const std::source_location& location) {
    CheckFrame<DirectX12Exception>(source.desc, DescribeTextures(source), source.slice, location);
    ThrowUnless<DirectX12Exception>(
        target != nullptr && target->GetType() == D12Descriptor::RenderTarget,
        "The texture is expected to be the render target view", location);
    CheckSourceRect<DirectX12Exception>(params.sourceRect, source.desc.size, location);
    if (params.conversion) {
        CheckFrameConversion<DirectX12Exception>(source.desc, *params.conversion, GetToneMapping(),
                                                 location);
    }
    return Prepare(source.desc, params, target->GetSize(), DrawsStraightAlpha(m_blendState),
                   m_colorLut != nullptr);
}

D12FramePass& D12FrameDraw::GetPass(const FrameShaderKey& key) {
    D12FramePass& pass = m_passes->Get(key, [&] {
        return std::make_unique<D12FramePass>(m_device, "frame draw", GetVertexShader(), key,
                                              D3D12_SHADER_VISIBILITY_ALL);
    });
    pass.pipeline.SetBlendState(m_blendState);
    return pass;
}

void D12FrameDraw::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const D12Frame& source, const boost::intrusive_ptr<D12Descriptor>& target,
                          const ImageDrawParams& params) {
    const auto location = std::source_location::current();
    const Drawing drawing = Check(source, target.get(), params, location);
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator");
    const auto [frame, key] =
        MakeFrameDrawing(source.desc, HasArrays(source), GetChromaFilter(), drawing.image,
                         GetLutDimensions(m_colorLut), GetToneMapping(), drawing.conversion);
    D12FramePass& pass = GetPass(key);
    const D12PlanesOfOneDraw planes(*pass.planes, MakePlaneViews(*m_device, source, m_colorLut));
    pass.image->SetBuffer(
        CreateConstants(*m_device, MakeParamsBytes(drawing.image), L"Matrix Buffer"));
    pass.frame->SetBuffer(pass.frameConstants.Get(BytesOf(frame), [&](const auto& bytes) {
        return CreateConstants(*m_device, bytes, L"Frame params buffer");
    }));
    pass.pipeline.Record(*allocator, target, drawing.viewport, GetWinding(drawing.transform));
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
    const auto [frame, key] =
        MakeFrameDrawing(source.desc, HasArrays(source), GetChromaFilter(), drawing.image,
                         GetLutDimensions(m_colorLut), GetToneMapping(), drawing.conversion);
    D12FramePass& pass = GetPass(key);
    const D12DrawEvent event = pass.pipeline.BeginEvent(state);
    const auto imageConstants = state.AddConstants(&drawing.image, sizeof(drawing.image));
    const auto frameConstants = state.AddConstants(&frame, sizeof(frame));
    const D12PlaneViews views = MakePlaneViews(*m_device, source, m_colorLut);
    const auto textures = state.AddViews(views);
    const D12DrawState::Targets targets(&target, 1);
    const D12PlanesOfOneDraw planes(*pass.planes, views);
    pass.pipeline.MakePipelineState(targets); // asks the table for its kind of views alone
    pass.pipeline.Draw(state, targets, *drawing.viewport,
                       pass.pipeline.GetQuad(*list, GetWinding(drawing.transform)), [&] {
                           state.SetConstants(kFrameImageIndex, imageConstants);
                           state.SetConstants(kFrameConstantsIndex, frameConstants);
                           state.SetTable(kFramePlanesIndex, textures);
                       });
}

const D12BlendState& D12FrameDraw::GetBlendState() const {
    return m_blendState;
}

void D12FrameDraw::SetBlendState(const D12BlendState& blendState) {
    m_blendState = blendState;
}

} // namespace Norvex::DX
