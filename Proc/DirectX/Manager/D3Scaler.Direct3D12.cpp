#include <array>
#include <cstddef>
#include <mutex>
#include <string>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "Proc/DirectX/Manager/D3ScalerPlan.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

// Root parameters, in the order in which they are added.
constexpr unsigned kScalerConstantsIndex = 0;
constexpr unsigned kScalerTexturesIndex = 1;
constexpr std::size_t kScalerTextureCount = 2; // of a pass: texture and weights

constexpr auto kScalerEvent = "scaling"; // what debuggers show

std::unique_ptr<D12QuadPipeline> MakeScalerPass(const boost::intrusive_ptr<D12Device>& device,
                                                ScalerPass pass) {
    auto pipeline = std::make_unique<D12QuadPipeline>(
        device, kScalerEvent, std::string(Shaders::kQuadVertex), GetScalerPixelShader(pass));
    pipeline->SetBlendState({}); // not every system blends in every format
    pipeline->GetParameters().AddConstantBufferView(0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE,
                                                    D3D12_SHADER_VISIBILITY_PIXEL);
    return pipeline;
}

boost::intrusive_ptr<D12Descriptor> CreateWeightsView(D12DescriptorCPUHeap& heap,
                                                      const CComPtr<ID3D12Resource>& weights,
                                                      const std::array<std::uint32_t, 2>& quads) {
    D3D12_SHADER_RESOURCE_VIEW_DESC desc = {};
    desc.Format = DXGI_FORMAT_R32G32B32A32_FLOAT;
    desc.ViewDimension = D3D12_SRV_DIMENSION_BUFFER;
    desc.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
    desc.Buffer.FirstElement = quads[0];
    desc.Buffer.NumElements = quads[1] - quads[0];
    return heap.CreateShaderResourceView(weights, desc);
}

} // namespace

struct D12Scaler::Plan {
    explicit Plan(const D3ScalerJob& job) : passes(job) {}

    D3ScalerPasses passes;
    boost::intrusive_ptr<D12Descriptor> rowWeights;
    boost::intrusive_ptr<D12Descriptor> columnWeights;
    boost::intrusive_ptr<D12Texture2DPool> pool;
};

struct D12Scaler::Draw {
    const D3ScalerPasses& passes;
    Rect2DT<long> visible;
    boost::intrusive_ptr<D12Descriptor> target;
    std::array<boost::intrusive_ptr<D12Descriptor>, 2 * kScalerTextureCount> views;
    boost::intrusive_ptr<D12Texture2D> texture;
    boost::intrusive_ptr<D12Descriptor> textureTarget;
};

D12Scaler::D12Scaler(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_rowPass(MakeScalerPass(device, ScalerPass::Rows)),
      m_columnPass(MakeScalerPass(device, ScalerPass::Columns)),
      m_rowTextures(m_rowPass->GetParameters().AddViewTable(kScalerTextureCount,
                                                            D3D12_SHADER_VISIBILITY_PIXEL)),
      m_columnTextures(m_columnPass->GetParameters().AddViewTable(kScalerTextureCount,
                                                                  D3D12_SHADER_VISIBILITY_PIXEL)),
      m_plans(std::make_unique<D3ScalerPlans<Plan>>()) {}

D12Scaler::~D12Scaler() = default;

void D12Scaler::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                       const boost::intrusive_ptr<D12Descriptor>& source,
                       const boost::intrusive_ptr<D12Descriptor>& target,
                       const ScaleParams& params) {
    const auto location = std::source_location::current();
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator");
    const auto job = Check(source.get(), target.get(), params, location);
    const std::lock_guard guard(m_mutex);
    const auto draw = job ? std::optional(Prepare(source, target, *job)) : std::nullopt;
    allocator->RecordList(nullptr, [&](const D12QuadPipeline::List& list) {
        if (draw) {
            Record(D12DrawState::Of(list, location), *draw);
        }
    });
}

void D12Scaler::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                       const boost::intrusive_ptr<D12Descriptor>& source,
                       const boost::intrusive_ptr<D12Descriptor>& target,
                       const ScaleParams& params) {
    const auto location = std::source_location::current();
    D12DrawState& state = D12DrawState::Of(list, location);
    const auto job = Check(source.get(), target.get(), params, location);
    const std::lock_guard guard(m_mutex);
    if (job) {
        Record(state, Prepare(source, target, *job));
    }
}

std::optional<D3ScalerJob> D12Scaler::Check(const D12Descriptor* source,
                                            const D12Descriptor* target, const ScaleParams& params,
                                            const std::source_location& location) const {
    const auto check = [&](bool holds, const char* sentence) {
        ThrowUnless<DirectX12Exception>(holds, sentence, location);
    };
    check(source != nullptr && source->GetType() == D12Descriptor::ShaderResource,
          "The texture is expected to be the shader resource view");
    check(target != nullptr && target->GetType() == D12Descriptor::RenderTarget,
          "The texture is expected to be the render target view");
    ID3D12Resource* const from = source->GetFirstResource();
    const D3D12_RESOURCE_DESC desc = Platform::GetDesc(from);
    check(desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE2D && desc.SampleDesc.Count == 1,
          "The source is expected to be a 2-D texture of one sample");
    check(from != target->GetFirstResource(), "The source and the target are the same texture");
    return MakeScalerJob<DirectX12Exception>(params, source->GetSize(), target->GetSize(),
                                             target->GetFormat(), location);
}

std::unique_ptr<D12Scaler::Plan> D12Scaler::MakePlan(const D3ScalerJob& job) const {
    auto plan = std::make_unique<Plan>(job);
    const auto weights = CreateConstants(*m_device, plan->passes.weights, L"Scaling weights");
    const auto heap = m_device->CreateShaderViewHeap(2);
    plan->rowWeights = CreateWeightsView(*heap, weights, plan->passes.rows);
    plan->columnWeights = CreateWeightsView(*heap, weights, plan->passes.columns);
    D12Texture2DDesc desc;
    desc.width = static_cast<std::uint64_t>(plan->passes.intermediate.width);
    desc.height = static_cast<std::uint32_t>(plan->passes.intermediate.height);
    desc.format = job.format;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
    plan->pool = D12Texture2DPool::Create(m_device, desc);
    return plan;
}

D12Scaler::Draw D12Scaler::Prepare(const boost::intrusive_ptr<D12Descriptor>& source,
                                   const boost::intrusive_ptr<D12Descriptor>& target,
                                   const D3ScalerJob& job) {
    const Plan& plan = m_plans->Get(job, [&] { return MakePlan(job); });
    const auto texture = plan.pool->ObtainTexture();
    const auto view = m_device->CreateTextureShaderResourceView(texture->GetResource());
    Draw draw = {.passes = plan.passes,
                 .visible = job.visible,
                 .target = target,
                 .views = {source, plan.rowWeights, view, plan.columnWeights},
                 .texture = texture,
                 .textureTarget = m_device->CreateRenderTargetView(texture->GetResource())};
    SetViews(*m_rowTextures, draw.views[0], draw.views[1]);
    SetViews(*m_columnTextures, draw.views[2], draw.views[3]);
    m_rowPass->MakePipelineState({&draw.textureTarget, 1});
    m_columnPass->MakePipelineState({&draw.target, 1});
    m_rowTextures->Clear(); // they ask for the kind of the views alone
    m_columnTextures->Clear();
    return draw;
}

void D12Scaler::SetViews(D12ViewTable& table, const boost::intrusive_ptr<D12Descriptor>& texture,
                         const boost::intrusive_ptr<D12Descriptor>& weights) {
    table.SetView(0, 0, texture, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    table.SetView(1, 1, weights, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
}

void D12Scaler::Record(D12DrawState& state, const Draw& draw) {
    D12GraphicsCommandList& list = state.GetList();
    const auto& rowQuad = m_rowPass->GetQuad(list);
    const auto& columnQuad = m_columnPass->GetQuad(list);
    const auto& [intermediate, rowValues, columnValues, weights, rows, columns] = draw.passes;
    const auto rowConstants = state.AddConstants(&rowValues, sizeof(rowValues));
    const auto columnConstants = state.AddConstants(&columnValues, sizeof(columnValues));
    const D12DrawEvent event = state.BeginEvent(kScalerEvent);
    const D12DrawState::Views views = draw.views;
    state.ReserveViews(views.size());
    const auto rowTextures = state.AddViews(views.first(kScalerTextureCount));
    const auto columnTextures = state.AddViews(views.last(kScalerTextureCount));
    list.TrackObject(boost::intrusive_ptr<IRefCountable>(draw.texture));
    const auto pass = [&](D12QuadPipeline& pipeline, const auto& target, const auto& area,
                          const auto& quad, auto constants, auto textures) {
        pipeline.Draw(state, {&target, 1}, area, quad, [&] {
            state.SetConstants(kScalerConstantsIndex, constants);
            state.SetTable(kScalerTexturesIndex, textures);
        });
    };
    const auto turn = [&](D3D12_RESOURCE_STATES before, D3D12_RESOURCE_STATES after) {
        list.ResourceBarrier(
            {CD3DX12_RESOURCE_BARRIER::Transition(draw.texture->GetResource(), before, after)});
    };
    pass(*m_rowPass, draw.textureTarget,
         Rect2DT<long>{0, 0, intermediate.width, intermediate.height}, rowQuad, rowConstants,
         rowTextures);
    turn(D3D12_RESOURCE_STATE_RENDER_TARGET, D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE);
    pass(*m_columnPass, draw.target, draw.visible, columnQuad, columnConstants, columnTextures);
    turn(D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE, D3D12_RESOURCE_STATE_RENDER_TARGET);
}

} // namespace Norvex::DX
