#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <tuple>

#include "Host/WaitableTimer.h"
#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "Proc/DirectX/Manager/D3ScalerPlan.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

// Root parameters, in the order in which they are added.
constexpr unsigned kScalerConstantsIndex = 0;
constexpr unsigned kScalerViewsIndex = 1;
constexpr unsigned kScalerFrameIndex = 2; // where a pass reads one

// What a pass reads, the weights last.
constexpr unsigned kTextureViewCount = 2;
constexpr unsigned kFrameViewCount = 4;
static_assert(kFrameViewCount == std::tuple_size_v<D12PlaneViews>);

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kIdlePeriod{2000}; // after which intermediates are freed

constexpr auto kScalerEvent = "scaling"; // what debuggers show

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

std::optional<D3ScalerJob> CheckScaling(const boost::intrusive_ptr<D12Descriptor>& source,
                                        const D12Descriptor* target, const ScaleParams& params,
                                        const std::source_location& location) {
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

std::optional<D3ScalerJob> CheckScaling(const D12Frame& source, const D12Descriptor* target,
                                        const ScaleParams& params,
                                        const std::source_location& location) {
    CheckFrame<DirectX12Exception>(source.desc, DescribeTextures(source), source.slice, location);
    ThrowUnless<DirectX12Exception>(
        target != nullptr && target->GetType() == D12Descriptor::RenderTarget,
        "The texture is expected to be the render target view", location);
    for (const auto& texture : source.textures) {
        ThrowUnless<DirectX12Exception>(texture.p != target->GetFirstResource(),
                                        "The source and the target are the same texture", location);
    }
    return MakeScalerJob<DirectX12Exception>(params, source.desc, target->GetSize(),
                                             target->GetFormat(), location);
}

} // namespace

// Between the passes: a pooled texture with its views, in the render-target state. Lists keep those
// that they draw with.
struct D12Scaler::Intermediate : LiveObject {
    explicit Intermediate(D12Texture2DPool& pool)
        : texture(pool.ObtainTexture()),
          view(pool.GetDevice()->CreateTextureShaderResourceView(texture->GetResource())),
          target(pool.GetDevice()->CreateRenderTargetView(texture->GetResource())) {}

    bool IsIdle() const { return GetRefCount() == 1; } // nobody but its plan could add another

    boost::intrusive_ptr<D12Texture2D> texture;
    boost::intrusive_ptr<D12Descriptor> view;
    boost::intrusive_ptr<D12Descriptor> target;
    Clock::time_point taken;
};

struct D12Scaler::Plan {
    explicit Plan(const D3ScalerJob& job) : passes(job) {}

    D3ScalerPasses passes;
    boost::intrusive_ptr<D12Descriptor> rowWeights;
    boost::intrusive_ptr<D12Descriptor> columnWeights;
    boost::intrusive_ptr<D12Texture2DPool> pool;
    Intermediates intermediates; // all that were taken from the pool
};

struct D12Scaler::Pass {
    // frame: of rows of one, or null.
    Pass(const boost::intrusive_ptr<D12Device>& device, ScalerPass which,
         const FrameShaderKey* frame = nullptr)
        : pipeline(device, kScalerEvent, std::string(Shaders::kQuadVertex),
                   GetScalerPixelShader(which, frame)) {
        pipeline.SetBlendState({}); // not every system blends in every format
        D12ShaderParameters& parameters = pipeline.GetParameters();
        const auto addConstants = [&](unsigned shaderRegister) {
            parameters.AddConstantBufferView(shaderRegister, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE,
                                             D3D12_SHADER_VISIBILITY_PIXEL);
        };
        addConstants(0);
        table = parameters.AddViewTable(frame != nullptr ? kFrameViewCount : kTextureViewCount,
                                        D3D12_SHADER_VISIBILITY_PIXEL);
        if (frame != nullptr) {
            addConstants(1);
        }
    }

    D12QuadPipeline pipeline;
    boost::intrusive_ptr<D12ViewTable> table;
};

struct D12Scaler::Passes {
    explicit Passes(const boost::intrusive_ptr<D12Device>& device)
        : rows(device, ScalerPass::Rows),
          columns(device, ScalerPass::Columns) {}

    Pass rows;
    Pass columns;
    FrameVariants<Pass> rowsOfFrames;
};

struct D12Scaler::Source {
    Pass& pass;
    D12PlaneViews views; // from t0 on, the weights last
    std::size_t viewCount = kTextureViewCount;
    std::optional<D3FrameParams> frame = std::nullopt;

    D12DrawState::Views GetViews() const { return std::span(views).first(viewCount); }
};

struct D12Scaler::Draw {
    const D3ScalerPasses& passes;
    Rect2DT<long> visible;
    Source source; // with the weights
    std::array<boost::intrusive_ptr<D12Descriptor>, kTextureViewCount> columnViews;
    boost::intrusive_ptr<D12Descriptor> target;
    boost::intrusive_ptr<Intermediate> intermediate;
};

D12Scaler::D12Scaler(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_passes(std::make_unique<Passes>(device)),
      m_plans(std::make_unique<D3ScalerPlans<Plan>>()),
      m_timer(std::make_unique<Core::WaitableTimer>([this] { FreeIntermediates(); })) {}

D12Scaler::~D12Scaler() = default;

template <class AnySource>
void D12Scaler::EncodeAny(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const AnySource& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const ScaleParams& params, const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator",
                                    location);
    const auto job = CheckScaling(source, target.get(), params, location);
    const std::lock_guard guard(m_mutex);
    const auto draw =
        job ? std::optional(Prepare(MakeSource(source, params), target, *job)) : std::nullopt;
    allocator->RecordList(nullptr, [&](const D12QuadPipeline::List& list) {
        if (draw) {
            Record(D12DrawState::Of(list, location), *draw);
        }
    });
}

template <class AnySource>
void D12Scaler::EncodeAny(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const AnySource& source,
                          const boost::intrusive_ptr<D12Descriptor>& target,
                          const ScaleParams& params, const std::source_location& location) {
    D12DrawState& state = D12DrawState::Of(list, location);
    const auto job = CheckScaling(source, target.get(), params, location);
    const std::lock_guard guard(m_mutex);
    if (job) {
        Record(state, Prepare(MakeSource(source, params), target, *job));
    }
}

void D12Scaler::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                       const boost::intrusive_ptr<D12Descriptor>& source,
                       const boost::intrusive_ptr<D12Descriptor>& target,
                       const ScaleParams& params) {
    EncodeAny(allocator, source, target, params, std::source_location::current());
}

void D12Scaler::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                       const boost::intrusive_ptr<D12Descriptor>& source,
                       const boost::intrusive_ptr<D12Descriptor>& target,
                       const ScaleParams& params) {
    EncodeAny(list, source, target, params, std::source_location::current());
}

void D12Scaler::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                       const D12Frame& source, const boost::intrusive_ptr<D12Descriptor>& target,
                       const ScaleParams& params) {
    EncodeAny(allocator, source, target, params, std::source_location::current());
}

void D12Scaler::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                       const D12Frame& source, const boost::intrusive_ptr<D12Descriptor>& target,
                       const ScaleParams& params) {
    EncodeAny(list, source, target, params, std::source_location::current());
}

D12Scaler::Source D12Scaler::MakeSource(const boost::intrusive_ptr<D12Descriptor>& source,
                                        const ScaleParams& /*params*/) {
    return {m_passes->rows, {source}};
}

D12Scaler::Source D12Scaler::MakeSource(const D12Frame& source, const ScaleParams& params) {
    const FrameShaderKey key =
        MakeFrameSourceKey(source.desc, HasArrays(source), params.chromaFilter);
    Pass& pass = m_passes->rowsOfFrames.Get(
        key, [&] { return std::make_unique<Pass>(m_device, ScalerPass::Rows, &key); });
    const D12PlaneViews planes = MakePlaneViews(*m_device, source, nullptr);
    return {pass, planes, kFrameViewCount, MakeFrameParams(source.desc)};
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

boost::intrusive_ptr<D12Scaler::Intermediate> D12Scaler::Take(Plan& plan) {
    auto found =
        std::ranges::find_if(plan.intermediates, [](const auto& each) { return each->IsIdle(); });
    if (found == plan.intermediates.end()) {
        const boost::intrusive_ptr made(new Intermediate(*plan.pool));
        found = plan.intermediates.insert(found, made);
    }
    (*found)->taken = Clock::now();
    if (!m_timer->IsRunning()) {
        m_timer->StartPeriodic(kIdlePeriod);
    }
    return *found;
}

// Called by the timer. They are released after the lock.
void D12Scaler::FreeIntermediates() {
    Intermediates expired;
    const std::lock_guard guard(m_mutex);
    bool isEmpty = true;
    m_plans->ForEach([&](Plan& plan) {
        const auto kept = std::partition(
            plan.intermediates.begin(), plan.intermediates.end(), [](const auto& each) {
                return !each->IsIdle() || Clock::now() < each->taken + kIdlePeriod;
            });
        expired.insert(expired.end(), std::make_move_iterator(kept),
                       std::make_move_iterator(plan.intermediates.end()));
        plan.intermediates.erase(kept, plan.intermediates.end());
        isEmpty = isEmpty && plan.intermediates.empty();
    });
    if (isEmpty) {
        m_timer->Stop();
    }
}

D12Scaler::Draw D12Scaler::Prepare(const Source& source,
                                   const boost::intrusive_ptr<D12Descriptor>& target,
                                   const D3ScalerJob& job) {
    Plan& plan = m_plans->Get(job, [&] { return MakePlan(job); });
    const auto intermediate = Take(plan);
    Draw draw = {.passes = plan.passes,
                 .visible = job.visible,
                 .source = source,
                 .columnViews = {intermediate->view, plan.columnWeights},
                 .target = target,
                 .intermediate = intermediate};
    draw.source.views.at(source.viewCount - 1) = plan.rowWeights;
    const auto prepare = [](Pass& pass, D12DrawState::Views views, const auto& to) {
        const D12PlanesOfOneDraw reads(*pass.table, views); // asks for the kind of the views alone
        pass.pipeline.MakePipelineState({&to, 1});
    };
    prepare(draw.source.pass, draw.source.GetViews(), intermediate->target);
    prepare(m_passes->columns, draw.columnViews, draw.target);
    return draw;
}

void D12Scaler::Record(D12DrawState& state, const Draw& draw) {
    D12GraphicsCommandList& list = state.GetList();
    const Source& source = draw.source;
    const Intermediate& between = *draw.intermediate;
    D12QuadPipeline& rowPipeline = source.pass.pipeline;
    D12QuadPipeline& columnPipeline = m_passes->columns.pipeline;
    const auto& rowQuad = rowPipeline.GetQuad(list);
    const auto& columnQuad = columnPipeline.GetQuad(list);
    const auto& [size, rowValues, columnValues, weights, rows, columns] = draw.passes;
    const auto rowConstants = state.AddConstants(&rowValues, sizeof(rowValues));
    const auto columnConstants = state.AddConstants(&columnValues, sizeof(columnValues));
    const auto frameConstants =
        source.frame ? state.AddConstants(&*source.frame, sizeof(*source.frame)) : 0;
    const D12DrawEvent event = state.BeginEvent(kScalerEvent);
    state.ReserveViews(source.viewCount + draw.columnViews.size());
    const auto rowViews = state.AddViews(source.GetViews());
    const auto columnViews = state.AddViews(draw.columnViews);
    list.TrackObject(boost::intrusive_ptr<IRefCountable>(draw.intermediate));
    rowPipeline.Draw(state, {&between.target, 1}, {0, 0, size.width, size.height}, rowQuad, [&] {
        state.SetConstants(kScalerConstantsIndex, rowConstants);
        state.SetTable(kScalerViewsIndex, rowViews);
        if (source.frame) {
            state.SetConstants(kScalerFrameIndex, frameConstants);
        }
    });
    constexpr auto kDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;
    constexpr auto kRead = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    state.Transition(between.texture->GetResource(), kDrawn, kRead);
    columnPipeline.Draw(state, {&draw.target, 1}, draw.visible, columnQuad, [&] {
        state.SetConstants(kScalerConstantsIndex, columnConstants);
        state.SetTable(kScalerViewsIndex, columnViews);
    });
    state.Transition(between.texture->GetResource(), kRead, kDrawn);
}

} // namespace Norvex::DX
