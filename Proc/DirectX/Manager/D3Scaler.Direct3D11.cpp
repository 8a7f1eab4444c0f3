#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "Proc/DirectX/Manager/D3ScalerPlan.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

DXGI_FORMAT GetViewFormat(const D11RenderTexture2D& target) {
    D3D11_RENDER_TARGET_VIEW_DESC desc = {};
    target.GetViewDesc(&desc);
    return desc.Format;
}

CComPtr<ID3D11ShaderResourceView> CreateWeightsView(D11Device& device, ID3D11Buffer* weights,
                                                    const std::array<std::uint32_t, 2>& quads) {
    D3D11_SHADER_RESOURCE_VIEW_DESC desc = {};
    desc.Format = DXGI_FORMAT_R32G32B32A32_FLOAT;
    desc.ViewDimension = D3D11_SRV_DIMENSION_BUFFER;
    desc.Buffer.FirstElement = quads[0];
    desc.Buffer.NumElements = quads[1] - quads[0];
    return device.CreateShaderResourceView(weights, desc);
}

std::shared_ptr<D11PixelShader> MakeScalerShader(const boost::intrusive_ptr<D11Device>& device,
                                                 ScalerPass pass,
                                                 const FrameShaderKey* frame = nullptr) {
    return std::make_shared<D11PixelShader>(device, "PSMain", GetScalerPixelShader(pass, frame));
}

std::optional<D3ScalerJob> CheckScaling(const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                                        const D11RenderTexture2D* target, const ScaleParams& params,
                                        const std::source_location& location) {
    const auto check = [&](bool holds, const char* sentence) {
        ThrowUnless<DirectX11Exception>(holds, sentence, location);
    };
    check(source != nullptr, "The texture is expected to be the shader resource view");
    check(target != nullptr, "The texture is expected to be the render target view");
    D3D11_TEXTURE2D_DESC desc = {};
    source->GetDesc(&desc);
    check(desc.SampleDesc.Count == 1, "The source is expected to be a 2-D texture of one sample");
    check(source->GetTexture() != target->GetTexture(),
          "The source and the target are the same texture");
    return MakeScalerJob<DirectX11Exception>(params, source->GetSize(), target->GetSize(),
                                             GetViewFormat(*target), location);
}

std::optional<D3ScalerJob> CheckScaling(const D11Frame& source, const D11RenderTexture2D* target,
                                        const ScaleParams& params,
                                        const std::source_location& location) {
    CheckFrame<DirectX11Exception>(source.desc, DescribeTextures(source), source.slice, location);
    ThrowUnless<DirectX11Exception>(
        target != nullptr, "The texture is expected to be the render target view", location);
    for (const auto& texture : source.textures) {
        ThrowUnless<DirectX11Exception>(texture.p != target->GetTexture(),
                                        "The source and the target are the same texture", location);
    }
    return MakeScalerJob<DirectX11Exception>(params, source.desc, target->GetSize(),
                                             GetViewFormat(*target), location);
}

} // namespace

struct D11Scaler::Plan {
    explicit Plan(const D3ScalerJob& job) : passes(job) {}

    D3ScalerPasses passes;
    CComPtr<ID3D11Buffer> rowConstants;
    CComPtr<ID3D11Buffer> columnConstants;
    CComPtr<ID3D11ShaderResourceView> rowWeights;
    CComPtr<ID3D11ShaderResourceView> columnWeights;
    boost::intrusive_ptr<D11ShaderTexture2D> intermediateSource;
    boost::intrusive_ptr<D11RenderTexture2D> intermediateTarget;
};

// For one kind of frame.
struct D11ScalerFramePass {
    std::shared_ptr<D11PixelShader> shader;
    KeptConstants<ID3D11Buffer> constants;
};

struct D11Scaler::Frames : FrameVariants<D11ScalerFramePass> {};

struct D11Scaler::Source {
    std::shared_ptr<D11PixelShader> shader;
    std::array<CComPtr<ID3D11ShaderResourceView>, 3> views; // from t0 on
    std::size_t viewCount = 1;                              // of them; the weights follow
    CComPtr<ID3D11Buffer> frameConstants = {};              // or null
};

D11Scaler::D11Scaler(const boost::intrusive_ptr<D11Device>& device)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_pipeline(std::make_unique<D11QuadPipeline>(device, std::string(Shaders::kQuadVertex))),
      m_rowShader(MakeScalerShader(device, ScalerPass::Rows)),
      m_columnShader(MakeScalerShader(device, ScalerPass::Columns)),
      m_frames(std::make_unique<Frames>()),
      m_plans(std::make_unique<D3ScalerPlans<Plan>>()) {}

D11Scaler::~D11Scaler() = default;

void D11Scaler::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                       const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                       const boost::intrusive_ptr<D11RenderTexture2D>& target,
                       const ScaleParams& params) {
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context");
    const auto job = CheckScaling(source, target.get(), params, std::source_location::current());
    if (job) {
        Draw(*context, {m_rowShader, {source->GetView()}}, *target, *job);
    }
}

void D11Scaler::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                       const D11Frame& source,
                       const boost::intrusive_ptr<D11RenderTexture2D>& target,
                       const ScaleParams& params) {
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context");
    const auto job = CheckScaling(source, target.get(), params, std::source_location::current());
    if (job) {
        Draw(*context, MakeSource(source, params.chromaFilter), *target, *job);
    }
}

D11Scaler::Source D11Scaler::MakeSource(const D11Frame& source, ChromaFilter filter) {
    const FrameShaderKey key = MakeFrameSourceKey(source.desc, HasArrays(source), filter);
    auto& [shader, constants] = m_frames->Get(key, [&] {
        auto made = std::make_unique<D11ScalerFramePass>();
        made->shader = MakeScalerShader(m_device, ScalerPass::Rows, &key);
        return made;
    });
    const auto planes = MakePlaneViews(*m_device, source, nullptr);
    const D3FrameParams params = MakeFrameParams(source.desc);
    const auto make = [this](std::span<const std::uint8_t> bytes) {
        return CreateFilledBuffer(m_device, D3D11_BIND_CONSTANT_BUFFER, bytes.data(), bytes.size());
    };
    return {shader, {planes[0], planes[1], planes[2]}, 3, constants.Get(BytesOf(params), make)};
}

void D11Scaler::Draw(D11DeviceContext& context, const Source& source,
                     const D11RenderTexture2D& target, const D3ScalerJob& job) {
    const Plan& plan = m_plans->Get(job, [&] { return MakePlan(job); });
    const Source between = {m_columnShader, {plan.intermediateSource->GetView()}};
    const auto event = D11QuadPipeline::BeginEvent(context, "scaling");
    const auto pass = [&](ID3D11RenderTargetView* to, const Rect2DT<long>& area, const Source& from,
                          ID3D11ShaderResourceView* weights, ID3D11Buffer* constants) {
        std::array<ID3D11ShaderResourceView*, 4> views = {};
        std::ranges::copy(from.views, views.begin());
        views.at(from.viewCount) = weights;
        m_pipeline->Draw(context, {.targets = {&to, 1},
                                   .viewport = area,
                                   .shader = from.shader,
                                   .texture = views.front(),
                                   .constants = constants,
                                   .moreTextures = std::span(views).subspan(1, from.viewCount),
                                   .moreConstants = from.frameConstants});
    };
    const auto& [width, height] = plan.passes.intermediate;
    pass(plan.intermediateTarget->GetView(), {0, 0, width, height}, source, plan.rowWeights,
         plan.rowConstants);
    pass(target.GetView(), job.visible, between, plan.columnWeights, plan.columnConstants);
    // The next call draws to one of them.
    constexpr std::array<ID3D11ShaderResourceView*, 4> kNone = {};
    context.Get()->PSSetShaderResources(0, static_cast<UINT>(source.viewCount + 1), kNone.data());
    D11QuadPipeline::Unbind(context);
}

std::unique_ptr<D11Scaler::Plan> D11Scaler::MakePlan(const D3ScalerJob& job) const {
    auto plan = std::make_unique<Plan>(job);
    const auto makeConstants = [&](const D3ScalerConstants& constants) {
        return CreateFilledBuffer(m_device, D3D11_BIND_CONSTANT_BUFFER, &constants,
                                  sizeof(constants));
    };
    plan->rowConstants = makeConstants(plan->passes.rowConstants);
    plan->columnConstants = makeConstants(plan->passes.columnConstants);
    const auto weights =
        CreateFilledBuffer(m_device, D3D11_BIND_SHADER_RESOURCE, plan->passes.weights.data(),
                           plan->passes.weights.size());
    plan->rowWeights = CreateWeightsView(*m_device, weights, plan->passes.rows);
    plan->columnWeights = CreateWeightsView(*m_device, weights, plan->passes.columns);
    const auto texture =
        D11QuadPipeline::CreateIntermediate(*m_device, plan->passes.intermediate, job.format);
    plan->intermediateSource.reset(new D11ShaderTexture2D(texture, std::nullopt));
    plan->intermediateTarget.reset(new D11RenderTexture2D(texture, std::nullopt));
    return plan;
}

} // namespace Norvex::DX
