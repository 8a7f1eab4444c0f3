// The same frames recorded by one thread and by two, each with an allocator and a drawer of its
// own: the ratio is how much faster two are. The expert's two say what the driver allows; they
// submit as well.

#include <array>
#include <memory>
#include <thread>

#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

constexpr unsigned kDraws = 64;

struct Recorder {
    Scene12 scene;
    boost::intrusive_ptr<DX::D12ImageDraw> drawer{new DX::D12ImageDraw(scene.device)};
    ExpertFrames12 expert{scene};

    // Recorded and dropped: the GPU has no part in it.
    void RecordOpenList() {
        scene.queue->CreateCommandAllocator()->RecordList(nullptr,
                                                          [&](const auto& list) { Draw(list); });
    }
    void RecordAsExpert() { expert.Draw(kDraws); }
    void RecordLists() { Draw(scene.queue->CreateCommandAllocator()); }
    void Draw(const auto& on) {
        for (unsigned i = 0; i < kDraws; ++i) {
            drawer->Encode(on, scene.source, scene.target, scene.conversion, scene.area);
        }
    }
};

using Recorders = std::array<Recorder, 2>;

Way MakeWayOf(const std::shared_ptr<Recorders>& recorders, const char* name,
              void (Recorder::*record)(), unsigned threads, std::vector<std::string> twins = {}) {
    const auto run = [recorders, record, threads](std::int64_t times) {
        const auto share = [&](unsigned thread) {
            for (std::int64_t i = thread; i < times; i += threads) {
                (recorders->at(thread).*record)();
            }
        };
        std::vector<std::jthread> others;
        for (unsigned i = 1; i < threads; ++i) {
            others.emplace_back(share, i);
        }
        share(0);
    };
    return {name, run, std::move(twins), {}};
}

Ways MakeRecordings() {
    const auto recorders = std::make_shared<Recorders>();
    return {{MakeWayOf(recorders, "list, 1", &Recorder::RecordOpenList, 1, {"list, 2"}),
             MakeWayOf(recorders, "list, 2", &Recorder::RecordOpenList, 2),
             MakeWayOf(recorders, "Encode, 1", &Recorder::RecordLists, 1, {"Encode, 2"}),
             MakeWayOf(recorders, "Encode, 2", &Recorder::RecordLists, 2),
             MakeWayOf(recorders, "expert, 1", &Recorder::RecordAsExpert, 1, {"expert, 2"}),
             MakeWayOf(recorders, "expert, 2", &Recorder::RecordAsExpert, 2)},
            {}};
}

} // namespace

std::vector<Case> MakeThreadCases() {
    return {{"d3d12/threads", Clock::Wall, &MakeRecordings}};
}

} // namespace Norvex::Bench
