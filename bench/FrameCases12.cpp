// Frames of draws on Direct3D 12: recorded, submitted, and waited for when the GPU is a few frames
// behind.

#include <deque>
#include <memory>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

struct Frames12 {
    Scene12 scene;
    boost::intrusive_ptr<DX::D12ImageDraw> drawer{new DX::D12ImageDraw(scene.device)};
    ExpertFrames12 expert{scene};
    FramesOfLists12 sameCalls{scene};
    std::deque<boost::intrusive_ptr<DX::D12CommandAllocator>> inFlight;

    template <class Record>
    void RunFrame(const Record& record) {
        const auto frame = scene.queue->CreateCommandAllocator();
        record(frame);
        frame->Execute();
        inFlight.push_back(frame);
        if (inFlight.size() == kFramesInFlight) {
            inFlight.front()->WaitComplete();
            inFlight.pop_front();
        }
    }
    void Draw(const auto& on, unsigned draws) {
        for (unsigned i = 0; i < draws; ++i) {
            drawer->Encode(on, scene.source, scene.target, scene.conversion, scene.area);
        }
    }
};

Ways MakeFrames12(unsigned draws) {
    const auto all = std::make_shared<Frames12>();
    const auto drawLists = [all, draws] {
        all->RunFrame([&](const auto& frame) { all->Draw(frame, draws); });
    };
    const auto drawOpenList = [all, draws] {
        all->RunFrame([&](const auto& frame) {
            frame->RecordList(nullptr, [&](const auto& list) { all->Draw(list, draws); });
        });
    };
    return {{MakeWay("Encode", drawLists, {"same calls", "expert"}),
             MakeWay("open list", drawOpenList, {"expert"}),
             MakeWay("same calls", [all, draws] { all->sameCalls.Draw(draws); }),
             MakeWay("expert", [all, draws] { all->expert.Draw(draws); })},
            [all](const Work& work) {
                return Test::CountCalls<Test::CountedObjects12>(all->scene.device->Get(), work);
            }};
}

} // namespace

std::vector<Case> MakeFrameCases12() {
    std::vector<Case> cases;
    for (const unsigned draws : {1U, 16U, 256U}) {
        cases.push_back({fmt::format("d3d12/frame/{}", draws), Clock::Thread,
                         [draws] { return MakeFrames12(draws); }});
    }
    return cases;
}

} // namespace Norvex::Bench
