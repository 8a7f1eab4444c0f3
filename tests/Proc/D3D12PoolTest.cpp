// Pools: of buffers, of textures, and the shared heaps of queries and views.

#include <mutex>
#include <set>
#include <thread>

#include "tests/Proc/Direct3D12Fixture.h"
#include "tests/support/Threads.h"

namespace Norvex::DX {
namespace {

using namespace std::chrono_literals;
using namespace Norvex::Test;
using Clock = std::chrono::steady_clock;

class D3D12PoolTest : public Direct3D12Test {
protected:
    static auto MakeBuffers(D3D12_HEAP_TYPE type = kUpload) {
        return Device()->CreateBufferPool(type);
    }
    static auto MakeTextures(unsigned arraySize = 1) {
        return D12Texture2DPool::Create(
            Device(), MakeTextureDesc(64, 32, static_cast<std::uint16_t>(arraySize)));
    }
};

// Four threads take and give back; no two of the objects in use are in one place.
template <class Take, class PlaceOf>
void ExpectThreadsNeverShare(const Take& take, const PlaceOf& placeOf) {
    std::mutex mutex;
    std::set<decltype(placeOf(*take()))> inUse;
    RunThreads(4, [&](unsigned) {
        std::vector<decltype(take())> mine(100);
        for (std::size_t round = 0; round < 1000; ++round) {
            auto& object = mine[round * 7 % mine.size()];
            if (object != nullptr) {
                const std::scoped_lock lock(mutex);
                inUse.erase(placeOf(*object));
            }
            object.reset();
            if (round < 900) {
                object = take();
                const std::scoped_lock lock(mutex);
                EXPECT_TRUE(inUse.insert(placeOf(*object)).second);
            }
        }
    });
}

TEST_F(D3D12PoolTest, ThreadsNeverShare) {
    const auto buffers = MakeBuffers();
    const auto slices = MakeTextures(400);
    const auto target = s_canvas->MakeTarget(8, 8, kColor)->GetFirstResource();
    const auto takeBuffer = [&] {
        buffers->Clear();
        return buffers->CreateBuffer(100);
    };
    ExpectThreadsNeverShare(takeBuffer, [](const auto& buffer) { return buffer.GetResource().p; });
    ExpectThreadsNeverShare([&] { return slices->ObtainTexture(); },
                            [](const auto& slice) { return slice.GetSubresource(); });
    ExpectThreadsNeverShare(
        [] { return Device()->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP); },
        [](const auto& query) { return std::pair(query.GetResource().p, query.GetIndex()); });
    ExpectThreadsNeverShare([&] { return Device()->CreateRenderTargetView(target); },
                            [](const auto& view) { return view.GetCPUHandle().ptr; });
}

TEST_F(D3D12PoolTest, HeapsAreReplacedWhenFullAndTheSmallestThatDoIsRecycled) {
    const Ptr<D12QueryHeapPool> pool(new D12QueryHeapPool(Raw()));
    const auto take = [&] { return pool->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP); };
    const auto makeHeap = [&](unsigned count) {
        return pool->CreateHeap(D3D12_QUERY_HEAP_TYPE_TIMESTAMP, count);
    };
    auto queries = ExpectLowestFirst(64, take, [](const auto& query) { return query->GetIndex(); });
    const auto first = queries[0]->GetHeap()->GetHeap().p;
    const auto next = take();
    EXPECT_NE(next->GetHeap()->GetHeap().p, first);
    queries[5].reset(); // its heap is no longer the shared one
    EXPECT_EQ(take()->GetIndex(), 1u);
    EXPECT_EQ(pool->CountFreeHeaps(), 0u) << "what is in use";
    queries.clear();
    auto few = makeHeap(10);
    EXPECT_EQ(few->GetHeap().p, first);
    auto many = makeHeap(129);
    ID3D12QueryHeap* const manyHeap = many->GetHeap();
    few.reset();
    many.reset();
    const auto most = makeHeap(193)->GetHeap();
    EXPECT_TRUE(most != manyHeap && most != first);
    many = makeHeap(65);
    few = makeHeap(10);
    EXPECT_EQ(many->GetHeap().p, manyHeap);
    EXPECT_EQ(few->GetHeap().p, first);
    EXPECT_EQ(few->GetCount(), 10u);
}

// The last returned, or the oldest; not what a further handle holds.
template <class Take>
void ExpectOrder(bool isLastFirst, const Take& take) {
    std::vector objects = {take(), take(), take()};
    const std::vector<ID3D12Resource*> raws = {objects[0]->GetResource(), objects[1]->GetResource(),
                                               objects[2]->GetResource()};
    const auto copy = CopyOf(objects[1]);
    objects.clear();
    objects = {take(), take()};
    EXPECT_EQ(objects[0]->GetResource(), raws[isLastFirst ? 2 : 0]);
    EXPECT_EQ(objects[1]->GetResource(), raws[isLastFirst ? 0 : 2]);
    EXPECT_EQ(std::ranges::count(raws, take()->GetResource().p), 0);
}

TEST_F(D3D12PoolTest, ReusesInOrderWhatTheLastHandleGaveBack) {
    const auto buffers = MakeBuffers();
    const auto textures = MakeTextures();
    buffers->CreateBuffer(1000);
    ExpectOrder(true, [&] { return buffers->CreateBuffer(100); });
    ExpectOrder(false, [&] { return textures->ObtainTexture(); });
}

// The first tick finds the list empty, so the timer has to start anew. From then on something is
// returned all the time, which neither stops it nor makes what came before live longer.
TEST_F(D3D12PoolTest, WhatIsNotUsedForTwoSecondsIsFreedBetweenTwoAndFour) {
    const auto buffers = MakeBuffers();
    std::vector<Ptr<D12Buffer>> used(12);
    std::ranges::generate(used, [&] { return buffers->CreateBuffer(100); });
    buffers->CreateBuffer(100);
    std::this_thread::sleep_for(2200ms);
    std::vector<std::pair<LifeProbe, Clock::time_point>> returned;
    const auto isAlive = [](const auto& item) { return item.first.IsAlive(); };
    do {
        if (!used.empty()) {
            returned.emplace_back(LifeProbe(used.back()->GetResource()), Clock::now());
            used.pop_back();
        }
        std::this_thread::sleep_for(400ms);
        for (const auto& item : returned) {
            const auto age = Clock::now() - item.second;
            ASSERT_TRUE(isAlive(item) ? age < 5500ms : age > 1950ms);
        }
    } while (std::ranges::any_of(returned, isAlive));
    EXPECT_EQ(buffers->CountFree(), std::pair(std::size_t{0}, std::uint64_t{0}));
}

TEST_F(D3D12PoolTest, BuffersArePowersOfTwoAndAreKeptUntilCleared) {
    for (const auto& [requested, rounded] :
         {std::pair(1u, 2u), std::pair(255u, 256u), std::pair(256u, 512u)}) {
        const auto pool = MakeBuffers(D3D12_HEAP_TYPE_DEFAULT);
        const auto used = pool->CreateBuffer(requested);
        EXPECT_EQ(used->GetSize(), rounded);
        const LifeProbe probe(pool->CreateBuffer(requested)->GetResource());
        EXPECT_EQ(pool->CountFree(), std::pair(std::size_t{1}, std::uint64_t{rounded}));
        pool->Clear();
        EXPECT_EQ(pool->CountFree().first, 0u);
        EXPECT_FALSE(probe.IsAlive());
    }
}

TEST_F(D3D12PoolTest, BuffersMapWhatIsReadAndUnmapWhatWasWritten) {
    const auto upload = MakeBuffers()->CreateBuffer(64);
    const auto readback = MakeBuffers(kReadback)->CreateBuffer(64);
    std::vector<SIZE_T> ranges;
    const auto note = [&](auto original, auto* self, UINT index, auto* range, auto... data) {
        ranges.insert(ranges.end(), {range->Begin, range->End});
        return original(self, index, range, data...);
    };
    const MethodPatch<&ID3D12Resource::Map> onMap(upload->GetResource(), note);
    const MethodPatch<&ID3D12Resource::Unmap> onUnmap(upload->GetResource(), note);
    upload->Write(16, 48, [](auto* data) { data[16] = 5; });
    upload->Write(16, 48, [](auto* data) { EXPECT_EQ(data[16], 5) << "not what lies at 16"; });
    readback->Read(16, 48, [](auto*) {});
    EXPECT_THROW(upload->Write(0, 8, nullptr), std::bad_function_call);
    EXPECT_THAT(ranges, ElementsAre(0, 0, 16, 48, 0, 0, 16, 48, 16, 48, 0, 0, 0, 0, 0, 8));

    const auto onGpu = MakeBuffers(D3D12_HEAP_TYPE_DEFAULT)->CreateBuffer(16);
    const auto nothing = [](auto*) {};
    for (const auto& buffer : {upload, onGpu}) {
        NORVEX_REFUSED("This buffer is not readable", buffer->Read(0, 16, nothing));
    }
    for (const auto& buffer : {readback, onGpu}) {
        NORVEX_REFUSED("This buffer is not writeable", buffer->Write(0, 16, nothing));
    }
    NORVEX_REFUSED("Buffer size requested equal to zero", MakeBuffers()->CreateBuffer(0));
    NORVEX_REFUSED("Buffer size requested is too large", MakeBuffers()->CreateBuffer(1ull << 63));
    ExpectFailure12([&] { MakeBuffers(D3D12_HEAP_TYPE_CUSTOM)->CreateBuffer(16); },
                    "Invalid heap type", "CreateDimensionBuffer");
    NORVEX_REFUSED("Failed to create 2D texture", D12Texture2DPool::Create(nullptr, {}));
}

TEST_F(D3D12PoolTest, TexturesAreTheirOwnOrSlicesOfOne) {
    EXPECT_FALSE(MakeTextures()->IsTextureArray());
    for (const unsigned count : {4u, 63u, 64u, 65u, 130u}) {
        auto pool = MakeTextures(count);
        EXPECT_TRUE(pool->IsTextureArray());
        auto slices = ExpectLowestFirst(
            count, [&] { return pool->ObtainTexture(); },
            [](const auto& slice) { return slice->GetSubresource(); });
        const LifeProbe probe(slices[0]->GetResource());
        EXPECT_EQ(slices[count - 1]->GetResource().p, slices[0]->GetResource().p);
        NORVEX_REFUSED("There are no free textures in the array", pool->ObtainTexture());
        pool.reset();
        EXPECT_TRUE(probe.IsAlive());
        slices.clear();
        EXPECT_FALSE(probe.IsAlive());
    }
}

} // namespace
} // namespace Norvex::DX
