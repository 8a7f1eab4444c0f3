#include <array>
#include <string>
#include <vector>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "QuadShaders.h"

namespace Norvex::DX {

struct D11FrameConverter::Passes : FrameVariants<D11FramePass> {
    KeptConstants<ID3D11Buffer> imageConstants;
    CComPtr<ID3D11ShaderResourceView> pattern; // null before it is needed
};

D11FrameConverter::D11FrameConverter(const boost::intrusive_ptr<D11Device>& device)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_pipeline(std::make_unique<D11QuadPipeline>(device, std::string(Shaders::kQuadVertex))),
      m_passes(std::make_unique<Passes>()) {}

D11FrameConverter::~D11FrameConverter() = default;

std::size_t D11FrameConverter::GetShaderCount() const {
    return m_passes->GetCount();
}

void D11FrameConverter::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                               const D11Frame& source, const D11Frame& destination,
                               const FrameConvertParams& params) {
    CheckFrames<DirectX11Exception>(source, destination, params, std::source_location::current());
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context");
    const auto make = [this](std::span<const std::uint8_t> bytes) {
        return CreateFilledBuffer(m_device, D3D11_BIND_CONSTANT_BUFFER, bytes.data(), bytes.size());
    };
    const FrameConversion conversion = MakeFrameConversion(
        source.desc, HasArrays(source), destination.desc, params, GetLutDimensions(m_colorLut));
    const auto& imageConstants =
        m_passes->imageConstants.Get(D3ImageRenderer::MakeParamsBytes(conversion.image), make);
    struct Step {
        std::shared_ptr<D11PixelShader> shader;
        CComPtr<ID3D11Buffer> constants;
    };
    std::vector<Step> steps;
    for (std::size_t i = 0; i < conversion.passes.size(); ++i) { // before anything is recorded
        const FrameShaderKey& key = conversion.shaders[i];
        D11FramePass& pass =
            m_passes->Get(key, [&] { return std::make_unique<D11FramePass>(m_device, key); });
        steps.push_back(
            {pass.shader, pass.frameConstants.Get(BytesOf(conversion.frames[i]), make)});
    }
    const auto planes = MakePlaneViews(*m_device, source, m_colorLut);
    if (params.dither == FrameDither::BlueNoise && m_passes->pattern == nullptr) {
        m_passes->pattern = MakePatternView(m_device);
    }
    const std::array<ID3D11ShaderResourceView*, 4> more = {planes[1], planes[2], planes[3],
                                                           m_passes->pattern};
    const auto owned = MakePlaneTargets(*m_device, destination);
    const std::vector<ID3D11RenderTargetView*> targets(owned.begin(), owned.end());
    const auto event = D11QuadPipeline::BeginEvent(*context, "frame conversion");
    for (std::size_t i = 0; i < conversion.passes.size(); ++i) {
        const FramePass& pass = conversion.passes[i];
        const auto [width, height] = destination.desc.GetPlane(pass.firstPlane).size;
        m_pipeline->Draw(*context,
                         {.targets = std::span(targets).subspan(pass.firstPlane, pass.planeCount),
                          .viewport = {0, 0, width, height},
                          .shader = steps[i].shader,
                          .texture = planes[0],
                          .constants = imageConstants,
                          .moreTextures = more,
                          .moreConstants = steps[i].constants});
    }
    context->PSSetShaderResources({nullptr, nullptr, nullptr, nullptr, nullptr});
    D11QuadPipeline::Unbind(*context);
}

} // namespace Norvex::DX
