#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

constexpr auto kFrameEvent = "frame conversion"; // what debuggers show

constexpr auto kFrameRead = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kFrameDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;

} // namespace

struct D12FrameConverter::Passes : FrameVariants<D12FramePass> {
    KeptConstants<ID3D12Resource> imageConstants;
    boost::intrusive_ptr<D12Descriptor> pattern; // null before it is needed
};

struct D12FrameConverter::Conversion {
    struct Step {
        D12FramePass& pass;
        CComPtr<ID3D12PipelineState> state;
        D12DrawState::Targets targets;
        Size2DT<long> size; // of the planes
        CComPtr<ID3D12Resource> frameConstants = {};
    };

    std::vector<boost::intrusive_ptr<D12Descriptor>> views; // planes, pattern
    std::vector<boost::intrusive_ptr<D12Descriptor>> targets;
    std::vector<Step> steps = {};
    CComPtr<ID3D12Resource> imageConstants = {};
    std::vector<D3D12_RESOURCE_BARRIER> before = {};
    std::vector<D3D12_RESOURCE_BARRIER> after = {};
};

D12FrameConverter::D12FrameConverter(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_passes(std::make_unique<Passes>()) {}

D12FrameConverter::~D12FrameConverter() = default;

std::size_t D12FrameConverter::GetShaderCount() const {
    return m_passes->GetCount();
}

D12FrameConverter::Conversion
D12FrameConverter::Prepare(const D12Frame& source, const D12Frame& destination,
                           const std::array<D12ResourceStates, 2>& states,
                           const FrameConvertParams& params, const std::source_location& location) {
    CheckFrames<DirectX12Exception>(source, destination, params, location);
    const auto make = [this](std::span<const std::uint8_t> bytes) {
        return CreateConstants(*m_device, bytes, L"Frame params buffer");
    };
    const FrameConversion wanted = MakeFrameConversion(
        source.desc, HasArrays(source), destination.desc, params, GetLutDimensions(m_colorLut));
    const D12PlaneViews planeViews = MakePlaneViews(*m_device, source, m_colorLut);
    Conversion conversion = {{planeViews.begin(), planeViews.end()},
                             MakePlaneTargets(*m_device, destination)};
    if (params.dither == FrameDither::BlueNoise) {
        if (m_passes->pattern == nullptr) {
            m_passes->pattern = MakePatternView(*m_device);
        }
        conversion.views.push_back(m_passes->pattern);
    }
    conversion.imageConstants =
        m_passes->imageConstants.Get(D3ImageRenderer::MakeParamsBytes(wanted.image), make);
    for (std::size_t i = 0; i < wanted.passes.size(); ++i) {
        const FramePass& planes = wanted.passes[i];
        const FrameShaderKey& key = wanted.shaders[i];
        D12FramePass& pass = m_passes->Get(key, [&] {
            auto made = std::make_unique<D12FramePass>(m_device, kFrameEvent,
                                                       std::string(Shaders::kQuadVertex), key,
                                                       D3D12_SHADER_VISIBILITY_PIXEL);
            made->pipeline.SetBlendState({}); // not every system blends in every format of a plane
            return made;
        });
        const auto targets =
            std::span(conversion.targets).subspan(planes.firstPlane, planes.planeCount);
        const D12PlanesOfOneDraw views(*pass.planes, conversion.views);
        // Asks the table for its kind of view alone.
        conversion.steps.push_back({pass, pass.pipeline.MakePipelineState(targets), targets,
                                    destination.desc.GetPlane(planes.firstPlane).size,
                                    pass.frameConstants.Get(BytesOf(wanted.frames[i]), make)});
    }
    AddFrameTransitions(conversion.before, source, states[0].before, kFrameRead);
    AddFrameTransitions(conversion.before, destination, states[1].before, kFrameDrawn);
    AddFrameTransitions(conversion.after, source, kFrameRead, states[0].after);
    AddFrameTransitions(conversion.after, destination, kFrameDrawn, states[1].after);
    return conversion;
}

void D12FrameConverter::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                               const D12Frame& source, const D12Frame& destination,
                               const std::array<D12ResourceStates, 2>& states,
                               const FrameConvertParams& params) {
    const auto location = std::source_location::current();
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator");
    const Conversion conversion = Prepare(source, destination, states, params, location);
    const auto& first = conversion.steps.front().state;
    allocator->RecordList(first, [&](const D12QuadPipeline::List& list) {
        for (const auto& step : conversion.steps) {
            step.pass.pipeline.GetQuad(*list); // before anything is recorded: it may fail
        }
        const D12DrawEvent event(list->GetGraphics(), kFrameEvent);
        list->ResourceBarrier(conversion.before);
        for (const auto& [pass, pipelineState, targets, size, constants] : conversion.steps) {
            const D12PlanesOfOneDraw planes(*pass.planes, conversion.views);
            pass.image->SetBuffer(conversion.imageConstants);
            pass.frame->SetBuffer(constants);
            list->SetPipelineState(pipelineState);
            pass.pipeline.Draw(list, targets, {0, 0, size.width, size.height}, size,
                               pass.pipeline.GetQuad(*list));
        }
        list->ResourceBarrier(conversion.after);
    });
}

void D12FrameConverter::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                               const D12Frame& source, const D12Frame& destination,
                               const std::array<D12ResourceStates, 2>& states,
                               const FrameConvertParams& params) {
    const auto location = std::source_location::current();
    D12DrawState& state = D12DrawState::Of(list, location);
    const Conversion conversion = Prepare(source, destination, states, params, location);
    const D12DrawEvent event = state.BeginEvent(kFrameEvent);
    const auto textures = state.AddViews(conversion.views);
    for (const auto& step : conversion.steps) {
        step.pass.pipeline.GetQuad(*list);
        list->TrackObject(step.frameConstants.p);
    }
    list->TrackObject(conversion.imageConstants.p);
    list->ResourceBarrier(conversion.before);
    for (const auto& [pass, pipelineState, targets, size, constants] : conversion.steps) {
        pass.pipeline.Draw(
            state, targets, {0, 0, size.width, size.height}, pass.pipeline.GetQuad(*list), [&] {
                state.SetConstants(kFrameImageIndex,
                                   conversion.imageConstants->GetGPUVirtualAddress());
                state.SetConstants(kFrameConstantsIndex, constants->GetGPUVirtualAddress());
                state.SetTable(kFramePlanesIndex, textures);
            });
    }
    list->ResourceBarrier(conversion.after);
}

} // namespace Norvex::DX
