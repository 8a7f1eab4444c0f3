#include <array>
#include <bit>
#include <cstddef>
#include <source_location>
#include <string>
#include <utility>
#include <vector>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3FramePeak.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3FrameViews.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

constexpr auto kPeakEvent = "frame peak"; // what debuggers show

constexpr auto kPeakRead = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kPeakDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;

} // namespace

struct D12FramePeak::Passes : FrameVariants<D12FramePass> {
    // What a pass leaves. In the state in which it is drawn on but while the next pass reads it.
    struct Level {
        D12Frame frame;
        boost::intrusive_ptr<D12Descriptor> target;
        KeptConstants<ID3D12Resource> constants = {}; // of the pass that draws it
    };
    struct Step {
        D12FramePass& pass;
        CComPtr<ID3D12PipelineState> state;
        D12PlaneViews views;
        CComPtr<ID3D12Resource> constants;
        const Level& level;
    };

    void SetSize(D12Device& device, const Size2DT<long>& wanted);
    Step MakeStep(const boost::intrusive_ptr<D12Device>& device, const D12Frame& from,
                  Level& level);
    // All that may fail, before anything is recorded. The frame has been checked.
    std::vector<Step> Prepare(const boost::intrusive_ptr<D12Device>& device,
                              const D12Frame& source);
    // draw(step) of each, when the one before may be read.
    template <class Draw>
    static void Record(D12GraphicsCommandList& list, const std::vector<Step>& steps,
                       const Draw& draw);

    Size2DT<long> size; // of the frames
    std::vector<Level> levels;
};

void D12FramePeak::Passes::SetSize(D12Device& device, const Size2DT<long>& wanted) {
    if (!levels.empty() && size == wanted) {
        return;
    }
    std::vector<Level> made;
    for (const auto& left : GetPeakSizes(wanted)) {
        D12Texture2DDesc desc;
        desc.width = static_cast<std::uint64_t>(left.width);
        desc.height = static_cast<std::uint32_t>(left.height);
        desc.format = DXGI_FORMAT_R32_FLOAT;
        desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
        desc.initialState = kPeakDrawn;
        const auto texture = device.CreateTexture2D(desc);
        made.push_back({{.desc = D3FrameDesc::MakeRGB(left), .textures = {texture}},
                        device.CreateRenderTargetView(texture)});
    }
    levels = std::move(made);
    size = wanted;
}

D12FramePeak::Passes::Step
D12FramePeak::Passes::MakeStep(const boost::intrusive_ptr<D12Device>& device, const D12Frame& from,
                               Level& level) {
    const FrameShaderKey key = MakeFramePeakKey(from.desc, HasArrays(from));
    D12FramePass& pass = Get(key, [&] {
        auto made =
            std::make_unique<D12FramePass>(device, kPeakEvent, std::string(Shaders::kQuadVertex),
                                           key, D3D12_SHADER_VISIBILITY_PIXEL);
        made->pipeline.SetBlendState({}); // not every system blends in floats
        return made;
    });
    const auto views = MakePlaneViews(*device, from, nullptr);
    const D12PlanesOfOneDraw planes(*pass.planes, views);
    const D3FrameParams params = MakeFrameParams(from.desc);
    const auto make = [&](std::span<const std::uint8_t> bytes) {
        return CreateConstants(*device, bytes, L"Frame params buffer");
    };
    return {pass, pass.pipeline.MakePipelineState({&level.target, 1}), views,
            level.constants.Get(BytesOf(params), make), level};
}

std::vector<D12FramePeak::Passes::Step>
D12FramePeak::Passes::Prepare(const boost::intrusive_ptr<D12Device>& device,
                              const D12Frame& source) {
    SetSize(*device, source.desc.size);
    std::vector<Step> steps;
    const D12Frame* from = &source;
    for (Level& level : levels) {
        steps.push_back(MakeStep(device, *from, level));
        from = &level.frame;
    }
    return steps;
}

template <class Draw>
void D12FramePeak::Passes::Record(D12GraphicsCommandList& list, const std::vector<Step>& steps,
                                  const Draw& draw) {
    for (const Step& step : steps) {
        step.pass.pipeline.GetQuad(list); // before anything is recorded: it may fail
    }
    for (std::size_t i = 0; i < steps.size(); ++i) {
        std::vector<D3D12_RESOURCE_BARRIER> before;
        std::vector<D3D12_RESOURCE_BARRIER> after;
        if (i > 0) {
            const D12Frame& read = steps[i - 1].level.frame;
            AddFrameTransitions(before, read, kPeakDrawn, kPeakRead);
            AddFrameTransitions(after, read, kPeakRead, kPeakDrawn);
        }
        list.ResourceBarrier(before);
        draw(steps[i]);
        list.ResourceBarrier(after);
    }
}

D12FramePeak::D12FramePeak(const boost::intrusive_ptr<D12Device>& device)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_passes(std::make_unique<Passes>()) {}

D12FramePeak::~D12FramePeak() = default;

void D12FramePeak::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                          const D12Frame& source) {
    CheckPeakFrame<DirectX12Exception>(source.desc, DescribeTextures(source), source.slice,
                                       std::source_location::current());
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator");
    const auto steps = m_passes->Prepare(m_device, source);
    allocator->RecordList(steps.front().state, [&](const D12QuadPipeline::List& list) {
        const D12DrawEvent event(list->GetGraphics(), kPeakEvent);
        Passes::Record(*list, steps, [&](const Passes::Step& step) {
            D12FramePass& pass = step.pass;
            const D12PlanesOfOneDraw planes(*pass.planes, step.views);
            pass.image->SetBuffer(step.constants); // which it does not read
            pass.frame->SetBuffer(step.constants);
            list->SetPipelineState(step.state);
            const Size2DT<long> size = step.level.frame.desc.size;
            pass.pipeline.Draw(list, {&step.level.target, 1}, {0, 0, size.width, size.height}, size,
                               pass.pipeline.GetQuad(*list));
        });
    });
}

void D12FramePeak::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                          const D12Frame& source) {
    const auto location = std::source_location::current();
    D12DrawState& state = D12DrawState::Of(list, location);
    CheckPeakFrame<DirectX12Exception>(source.desc, DescribeTextures(source), source.slice,
                                       location);
    const auto steps = m_passes->Prepare(m_device, source);
    const D12DrawEvent event = state.BeginEvent(kPeakEvent);
    std::vector<D3D12_GPU_DESCRIPTOR_HANDLE> tables;
    state.ReserveViews(steps.size() * std::tuple_size_v<D12PlaneViews>);
    for (const Passes::Step& step : steps) { // before anything is recorded
        tables.push_back(state.AddViews(step.views));
        list->TrackObject(step.constants.p);
    }
    auto textures = tables.begin();
    Passes::Record(*list, steps, [&](const Passes::Step& step) {
        const Size2DT<long> size = step.level.frame.desc.size;
        const auto constants = step.constants->GetGPUVirtualAddress();
        step.pass.pipeline.Draw(state, {&step.level.target, 1}, {0, 0, size.width, size.height},
                                step.pass.pipeline.GetQuad(*list), [&] {
                                    state.SetConstants(kFrameImageIndex, constants);
                                    state.SetConstants(kFrameConstantsIndex, constants);
                                    state.SetTable(kFramePlanesIndex, *textures++);
                                });
    });
}

float D12FramePeak::Read(const boost::intrusive_ptr<D12CommandQueue>& queue) const {
    ThrowUnless<DirectX12Exception>(!m_passes->levels.empty(), "No frame was measured");
    ThrowUnless<DirectX12Exception>(queue != nullptr, "Command queue is null");
    std::array<std::uint8_t, sizeof(float)> bytes = {};
    D12DownloadResourceParams params;
    params.source = m_passes->levels.back().frame.textures[0];
    params.stateBefore = kPeakDrawn;
    params.stateAfter = kPeakDrawn;
    params.subresources = {{bytes.data(), bytes.size(), bytes.size()}};
    queue->DownloadResource(params);
    return static_cast<float>(GetLuminanceOfPQ(double{std::bit_cast<float>(bytes)}));
}

} // namespace Norvex::DX
