#include <array>
#include <optional>
#include <source_location>
#include <string>
#include <utility>
#include <vector>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FramePeak.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "QuadShaders.h"

namespace Norvex::DX {

struct D11FramePeak::Passes : FrameVariants<D11FramePass> {
    // What a pass leaves.
    struct Level {
        D11Frame frame;
        boost::intrusive_ptr<D11RenderTexture2D> target;
        KeptConstants<ID3D11Buffer> constants = {}; // of the pass that draws it
    };
    struct Step {
        std::shared_ptr<D11PixelShader> shader;
        D11PlaneViews views;
        CComPtr<ID3D11Buffer> constants;
        const Level& level;
    };

    void SetSize(D11Device& device, const Size2DT<long>& wanted);
    Step MakeStep(const boost::intrusive_ptr<D11Device>& device, const D11Frame& from,
                  Level& level);

    Size2DT<long> size; // of the frames
    std::vector<Level> levels;
    CComPtr<ID3D11Texture2D> readback;
};

void D11FramePeak::Passes::SetSize(D11Device& device, const Size2DT<long>& wanted) {
    if (!levels.empty() && size == wanted) {
        return;
    }
    std::vector<Level> made;
    for (const auto& left : GetPeakSizes(wanted)) {
        D11Frame frame;
        frame.desc = D3FrameDesc::MakeRGB(left);
        frame.textures[0] =
            D11QuadPipeline::CreateIntermediate(device, left, DXGI_FORMAT_R32_FLOAT);
        made.push_back(
            {frame, boost::intrusive_ptr(new D11RenderTexture2D(frame.textures[0], std::nullopt))});
    }
    levels = std::move(made);
    size = wanted;
}

D11FramePeak::Passes::Step
D11FramePeak::Passes::MakeStep(const boost::intrusive_ptr<D11Device>& device, const D11Frame& from,
                               Level& level) {
    const FrameShaderKey key = MakeFramePeakKey(from.desc, HasArrays(from));
    const D3FrameParams params = MakeFrameParams(from.desc);
    const auto make = [&](std::span<const std::uint8_t> bytes) {
        return CreateFilledBuffer(device, D3D11_BIND_CONSTANT_BUFFER, bytes.data(), bytes.size());
    };
    return {Get(key, [&] { return std::make_unique<D11FramePass>(device, key); }).shader,
            MakePlaneViews(*device, from, nullptr), level.constants.Get(BytesOf(params), make),
            level};
}

D11FramePeak::D11FramePeak(const boost::intrusive_ptr<D11Device>& device)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_pipeline(std::make_unique<D11QuadPipeline>(device, std::string(Shaders::kQuadVertex))),
      m_passes(std::make_unique<Passes>()) {}

D11FramePeak::~D11FramePeak() = default;

void D11FramePeak::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                          const D11Frame& source) {
    CheckPeakFrame<DirectX11Exception>(source.desc, DescribeTextures(source), source.slice,
                                       std::source_location::current());
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context");
    m_passes->SetSize(*m_device, source.desc.size);
    std::vector<Passes::Step> steps;
    const D11Frame* from = &source;
    for (Passes::Level& level : m_passes->levels) { // before anything is recorded
        steps.push_back(m_passes->MakeStep(m_device, *from, level));
        from = &level.frame;
    }
    const auto event = D11QuadPipeline::BeginEvent(*context, "frame peak");
    for (const auto& [shader, views, constants, level] : steps) {
        const std::array<ID3D11ShaderResourceView*, 2> more = {views[1], views[2]};
        const auto [width, height] = level.frame.desc.size;
        ID3D11RenderTargetView* const target = level.target->GetView();
        m_pipeline->Draw(*context, {.targets = {&target, 1},
                                    .viewport = {0, 0, width, height},
                                    .shader = shader,
                                    .texture = views[0],
                                    .constants = constants,
                                    .moreTextures = more,
                                    .moreConstants = constants});
        context->PSSetShaderResources({nullptr, nullptr, nullptr}); // the next draws elsewhere
        D11QuadPipeline::Unbind(*context);                          // and reads what this drew
    }
}

float D11FramePeak::Read(const boost::intrusive_ptr<D11DeviceContext>& context) const {
    ThrowUnless<DirectX11Exception>(!m_passes->levels.empty(), "No frame was measured");
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context");
    ID3D11Texture2D* const result = m_passes->levels.back().frame.textures[0];
    if (m_passes->readback == nullptr) {
        D3D11_TEXTURE2D_DESC desc = {};
        result->GetDesc(&desc);
        desc.Usage = D3D11_USAGE_STAGING;
        desc.BindFlags = 0;
        desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
        m_passes->readback = m_device->CreateTexture2D(desc, nullptr);
    }
    context->CopyResource(m_passes->readback, result);
    const auto mapped = context->Map(m_passes->readback, 0, D3D11_MAP_READ, {});
    const float value = *static_cast<const float*>(mapped.pData);
    context->Unmap(m_passes->readback, 0);
    return static_cast<float>(GetLuminanceOfPQ(double{value}));
}

} // namespace Norvex::DX
