// How the time of one operation grows with what is alive already.

#include <memory>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

constexpr std::uint64_t kSmallestBuffer = 256;

struct World {
    Scene12 scene;
    std::vector<boost::intrusive_ptr<IRefCountable>> alive;
    std::size_t next = 0;
};

template <class Make>
Ways MakeGrowth(std::size_t size, const Make& make) {
    const auto world = std::make_shared<World>();
    for (std::size_t i = 0; i < size; ++i) {
        world->alive.push_back(make(*world));
    }
    return {{MakeWay("library", [world, make] { make(*world); })}, {}};
}

boost::intrusive_ptr<IRefCountable> MakeView(World& world) {
    return world.scene.device->CreateRenderTargetView(world.scene.target->GetFirstResource());
}

boost::intrusive_ptr<IRefCountable> MakeQuery(World& world) {
    return world.scene.device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
}

boost::intrusive_ptr<IRefCountable> MakeBuffer(World& world) {
    return world.scene.device->CreateUploadBuffer(kSmallestBuffer);
}

// One more use of what a list keeps already.
Ways MakeTracking(std::size_t size) {
    const auto world = std::make_shared<World>();
    const auto allocator = world->scene.queue->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    for (std::size_t i = 0; i < size; ++i) {
        world->alive.push_back(MakeView(*world));
        list->TrackObject(world->alive.back());
    }
    const auto track = [world, allocator, list] {
        list->TrackObject(world->alive[world->next++ % world->alive.size()]);
    };
    return {{MakeWay("library", track)}, {}};
}

// Freeing as many buffers as are free.
Ways MakePurge(std::size_t size) {
    const auto world = std::make_shared<World>();
    const auto pool = world->scene.device->CreateBufferPool(D3D12_HEAP_TYPE_UPLOAD);
    Way way = {"library", [pool](std::int64_t) { pool->Clear(); }, {}, {}};
    way.prepare = [world, pool, size](std::int64_t) {
        for (std::size_t i = 0; i < size; ++i) {
            world->alive.emplace_back(pool->CreateBuffer(kSmallestBuffer));
        }
        world->alive.clear();
    };
    way.batch = 1;
    return {{way}, {}};
}

template <class Make>
void Add(std::vector<Case>& cases, const char* name, Clock clock, std::int64_t most,
         const Make& make) {
    for (std::int64_t size = 10; size <= most; size *= 10) {
        Case one = {fmt::format("d3d12/growth/{}/{}", name, size), clock,
                    [size, make] { return make(static_cast<std::size_t>(size)); }};
        one.size = size;
        cases.push_back(std::move(one));
    }
}

} // namespace

std::vector<Case> MakeGrowthCases() {
    constexpr std::int64_t kMostObjects = 100'000;
    constexpr std::int64_t kMostBuffers = 10'000; // each is memory of the system's
    std::vector<Case> cases;
    Add(cases, "rtv", Clock::Thread, kMostObjects,
        [](std::size_t size) { return MakeGrowth(size, &MakeView); });
    Add(cases, "query", Clock::Thread, kMostObjects,
        [](std::size_t size) { return MakeGrowth(size, &MakeQuery); });
    Add(cases, "buffer", Clock::Thread, kMostBuffers,
        [](std::size_t size) { return MakeGrowth(size, &MakeBuffer); });
    Add(cases, "track", Clock::Thread, kMostObjects, &MakeTracking);
    Add(cases, "purge", Clock::Wall, kMostBuffers, &MakePurge);
    return cases;
}

} // namespace Norvex::Bench
