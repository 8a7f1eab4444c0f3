#include <algorithm>
#include <array>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"

namespace Norvex::DX {

namespace {

bool DrawsStraightAlpha(ID3D11BlendState* state) {
    D3D11_BLEND_DESC desc = {};
    if (state != nullptr) {
        state->GetDesc(&desc);
    }
    return desc.RenderTarget[0].BlendEnable != FALSE &&
           desc.RenderTarget[0].SrcBlend == D3D11_BLEND_SRC_ALPHA;
}

} // namespace

struct D11FrameDraw::Passes : FrameVariants<D11FramePass> {};

D11FrameDraw::D11FrameDraw(const boost::intrusive_ptr<D11Device>& device)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_pipeline(std::make_unique<D11QuadPipeline>(device, GetVertexShader())),
      m_passes(std::make_unique<Passes>()) {}

D11FrameDraw::~D11FrameDraw() = default;

void D11FrameDraw::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                          const D11Frame& source,
                          const boost::intrusive_ptr<D11RenderTexture2D>& target,
                          const ImageDrawParams& params) {
    const auto location = std::source_location::current();
    CheckFrame<DirectX11Exception>(source.desc, DescribeTextures(source), source.slice, location);
    ThrowUnless<DirectX11Exception>(target != nullptr,
                                    "The texture is expected to be the render target view");
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context");
    CheckSourceRect<DirectX11Exception>(params.sourceRect, source.desc.size);
    if (params.conversion) {
        CheckFrameConversion<DirectX11Exception>(source.desc, *params.conversion, GetToneMapping(),
                                                 location);
    }
    const Drawing drawing = Prepare(source.desc, params, target->GetSize(),
                                    DrawsStraightAlpha(m_blendState), m_colorLut != nullptr);
    if (!drawing.viewport) {
        return;
    }
    const auto make = [&](std::span<const std::uint8_t> bytes) {
        return CreateFilledBuffer(m_device, D3D11_BIND_CONSTANT_BUFFER, bytes.data(), bytes.size());
    };
    const FrameDrawing wanted =
        MakeFrameDrawing(source.desc, HasArrays(source), GetChromaFilter(), drawing.image,
                         GetLutDimensions(m_colorLut), GetToneMapping(), drawing.conversion);
    const FrameShaderKey& key = wanted.shader;
    D11FramePass& pass =
        m_passes->Get(key, [&] { return std::make_unique<D11FramePass>(m_device, key); });
    const auto event = D11QuadPipeline::BeginEvent(*context, "frame draw");
    const auto imageConstants = make(MakeParamsBytes(drawing.image));
    const auto planes = MakePlaneViews(*m_device, source, m_colorLut);
    const std::array<ID3D11ShaderResourceView*, 3> more = {planes[1], planes[2], planes[3]};
    ID3D11RenderTargetView* const view = target->GetView();
    m_pipeline->Draw(*context,
                     {.targets = {&view, 1},
                      .viewport = *drawing.viewport,
                      .shader = pass.shader,
                      .texture = planes[0],
                      .constants = imageConstants,
                      .blendState = m_blendState,
                      .moreTextures = more,
                      .moreConstants = pass.frameConstants.Get(BytesOf(wanted.frame), make)});
    context->PSSetShaderResources({nullptr, nullptr, nullptr, nullptr});
    D11QuadPipeline::Unbind(*context);
}

void D11FrameDraw::SetBlend(BlendPreset preset) {
    m_blendState = preset == BlendPreset::Replace
                       ? CComPtr<ID3D11BlendState>()
                       : m_device->CreateBlendState(MakeBlendDesc11(preset));
}

} // namespace Norvex::DX
