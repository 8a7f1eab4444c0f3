// Pools: of buffers, of textures, and the shared heaps of queries and views.

#include <deque>
#include <map>
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
    EXPECT_TRUE(inUse.empty());
}

TEST_F(D3D12PoolTest, ThreadsNeverShare) {
    const auto resourceOf = [](const auto& object) { return object.GetResource().p; };
    const auto buffers = MakeBuffers();
    const auto textures = MakeTextures();
    const auto slices = MakeTextures(400);
    const auto takeBuffer = [&] {
        buffers->Clear();
        return buffers->CreateBuffer(100);
    };
    ExpectThreadsNeverShare(takeBuffer, resourceOf);
    ExpectThreadsNeverShare([&] { return textures->ObtainTexture(); }, resourceOf);
    ExpectThreadsNeverShare([&] { return slices->ObtainTexture(); },
                            [](const auto& slice) { return slice.GetSubresource(); });
    ExpectThreadsNeverShare(
        [] { return Device()->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP); },
        [](const auto& query) { return std::pair(query.GetResource().p, query.GetIndex()); });
    const auto target = s_canvas->MakeTarget(8, 8, kColor)->GetFirstResource();
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
    EXPECT_EQ(next->GetIndex(), 0u);
    EXPECT_NE(next->GetHeap()->GetHeap().p, first);
    queries[5].reset(); // its heap is no longer the shared one
    EXPECT_EQ(take()->GetIndex(), 1u);
    EXPECT_EQ(pool->CountFreeHeaps(), 0u) << "what is in use";
    queries.clear();
    EXPECT_EQ(pool->CountFreeHeaps(), 1u);
    auto few = makeHeap(10);
    auto many = makeHeap(129);
    ID3D12QueryHeap* const manyHeap = many->GetHeap();
    const LifeProbe probe(few->GetHeap());
    EXPECT_EQ(few->GetHeap().p, first);
    EXPECT_EQ(pool->CountFreeHeaps(), 0u);
    many.reset();
    few.reset();
    EXPECT_NE(makeHeap(193)->GetHeap().p, manyHeap);
    many = makeHeap(65);
    few = makeHeap(10);
    EXPECT_EQ(many->GetHeap().p, manyHeap);
    EXPECT_EQ(few->GetHeap().p, first);
    {
        const OutOfMemory outOfMemory;
        few.reset();
    }
    EXPECT_FALSE(probe.IsAlive()) << "freed where it cannot be kept";
}

// Random use beside a model: of buffers the last returned of the size comes first, of textures the
// oldest.
template <class Take, class SizeOf>
void ExpectOrder(bool isLastFirst, const Take& take, const SizeOf& sizeOf) {
    std::map<std::uint64_t, std::deque<ID3D12Resource*>> idle;
    std::vector<decltype(take(1))> used;
    std::mt19937 random(1);
    for (int round = 0; round < 500; ++round) {
        if (used.empty() || random() % 2 == 0) {
            used.push_back(take(100u << random() % 3));
            auto& candidates = idle[sizeOf(*used.back())];
            if (!candidates.empty()) {
                ID3D12Resource* const next = isLastFirst ? candidates.back() : candidates.front();
                ASSERT_EQ(used.back()->GetResource(), next) << round;
                std::erase(candidates, next);
            }
        } else if (auto& any = used[random() % used.size()]; random() % 2 == 0) {
            any = CopyOf(any);
        } else {
            idle[sizeOf(*any)].push_back(any->GetResource());
            used.erase(std::ranges::find(used, any));
        }
    }
}

TEST_F(D3D12PoolTest, ReusesInOrderWhatTheLastHandleGaveBack) {
    const auto buffers = MakeBuffers();
    const auto textures = MakeTextures();
    ExpectOrder(
        true, [&](unsigned size) { return buffers->CreateBuffer(size); },
        [](const auto& buffer) { return buffer.GetSize(); });
    ExpectOrder(
        false, [&](unsigned) { return textures->ObtainTexture(); }, [](const auto&) { return 0u; });
}

// Takes two, gives back one without memory to keep it and the other on another thread, just as the
// pool's owner lets go.
template <class Pool, class Take>
void ExpectEnds(Ptr<Pool> pool, const Take& take) {
    auto lost = take(*pool);
    auto used = take(*pool);
    auto free = take(*pool);
    const LifeProbe probes[] = {LifeProbe(lost->GetResource()), LifeProbe(used->GetResource()),
                                LifeProbe(free->GetResource())};
    {
        const OutOfMemory outOfMemory;
        lost.reset();
        EXPECT_THROW(take(*pool), std::bad_alloc);
    }
    free.reset();
    EXPECT_TRUE(!probes[0].IsAlive() && probes[2].IsAlive());
    std::atomic<bool> go{false};
    std::thread releaser([&] {
        go.wait(false);
        used.reset();
    });
    go = true;
    go.notify_one();
    pool.reset();
    releaser.join();
    EXPECT_FALSE(probes[1].IsAlive() || probes[2].IsAlive());
}

TEST_F(D3D12PoolTest, LivesAsLongAsItsObjects) {
    for (int i = 0; i < 50; ++i) {
        ExpectEnds(MakeBuffers(), [](D12BufferPool& pool) { return pool.CreateBuffer(100); });
        ExpectEnds(MakeTextures(), [](D12Texture2DPool& pool) { return pool.ObtainTexture(); });
    }
}

// The first tick finds the lists empty, so the timers have to start anew. From then on something is
// returned all the time, which neither stops the timers nor makes what came before live longer.
TEST_F(D3D12PoolTest, WhatIsNotUsedForTwoSecondsIsFreedBetweenTwoAndFour) {
    const auto buffers = MakeBuffers();
    const auto textures = MakeTextures();
    struct Item {
        Ptr<IRefCountable> object;
        LifeProbe probe;
        Clock::time_point returned;
    };
    std::vector<Item> items;
    const auto add = [&](const auto& object) {
        items.push_back({object, LifeProbe(object->GetResource()), {}});
    };
    buffers->CreateBuffer(100);
    textures->ObtainTexture();
    for (int i = 0; i < 20; ++i) {
        add(buffers->CreateBuffer(i % 3 == 0 ? 1000 : 100));
        add(textures->ObtainTexture());
    }
    std::this_thread::sleep_for(2200ms);
    const auto isAlive = [](const Item& item) { return item.probe.IsAlive(); };
    for (std::size_t returned = 0; std::ranges::any_of(items, isAlive);) {
        for (int i = 0; i < 2 && returned < items.size(); ++i, ++returned) {
            items[returned].returned = Clock::now();
            items[returned].object.reset();
        }
        std::this_thread::sleep_for(250ms);
        for (std::size_t i = 0; i < returned; ++i) {
            const bool lives = isAlive(items[i]);
            const auto age = Clock::now() - items[i].returned;
            ASSERT_TRUE(lives ? age < 5500ms : age > 1950ms);
        }
    }
    EXPECT_EQ(buffers->CountFree(), std::pair(std::size_t{0}, std::uint64_t{0}));
    EXPECT_NE(textures->ObtainTexture(), nullptr) << "the pool goes on";
}

TEST_F(D3D12PoolTest, MakesPowersOfTwoOnTheHeapInItsStateUntilCleared) {
    std::string asked; // heap, state, size, layout, flags
    const MethodPatch<&ID3D12Device::CreateCommittedResource> patch(
        Raw(), [&](auto original, auto* device, auto* heap, auto flags, auto* desc, auto state,
                   auto... rest) {
            asked = fmt::format("{} {} {} {} {}", +heap->Type, +state, desc->Width, +desc->Layout,
                                +desc->Flags);
            return original(device, heap, flags, desc, state, rest...);
        });
    const auto check = [&](D3D12_HEAP_TYPE type, std::uint64_t requested, std::uint64_t rounded,
                           const char* expected) {
        const auto pool = MakeBuffers(type);
        const LifeProbe probe(pool->CreateBuffer(requested)->GetResource());
        const auto kept = pool->CreateBuffer(requested);
        EXPECT_EQ(pool->GetType(), type);
        EXPECT_EQ(kept->GetSize(), rounded);
        EXPECT_EQ(asked, expected);
        const LifeProbe freeProbe(pool->CreateBuffer(requested)->GetResource());
        EXPECT_EQ(pool->CountFree(), std::pair(std::size_t{1}, rounded));
        pool->Clear();
        EXPECT_EQ(pool->CountFree().first, 0u);
        EXPECT_TRUE(probe.IsAlive() && !freeProbe.IsAlive()) << "in use, and not";
        EXPECT_EQ(pool->CreateBuffer(requested)->GetSize(), rounded);
    };
    check(D3D12_HEAP_TYPE_DEFAULT, 1, 2, "1 0 2 1 0");
    check(kUpload, 255, 256, "2 2755 256 1 0");
    check(kUpload, 256, 512, "2 2755 512 1 0");
    check(kReadback, 65536, 131072, "3 1024 131072 1 0");
}

TEST_F(D3D12PoolTest, RefusesWhatCannotBe) {
    const auto upload = MakeBuffers()->CreateBuffer(16);
    const auto readback = MakeBuffers(kReadback)->CreateBuffer(16);
    const auto onGpu = MakeBuffers(D3D12_HEAP_TYPE_DEFAULT)->CreateBuffer(16);
    NORVEX_REFUSED("Buffer size requested equal to zero", MakeBuffers()->CreateBuffer(0));
    NORVEX_REFUSED("Buffer size requested is too large", MakeBuffers()->CreateBuffer(1ull << 63));
    ExpectFailure12([&] { MakeBuffers(D3D12_HEAP_TYPE_CUSTOM)->CreateBuffer(16); },
                    "Invalid heap type", "CreateDimensionBuffer");
    NORVEX_REFUSED("Failed to create 2D texture",
                   D12Texture2DPool::Create(nullptr, D12Texture2DDesc()));
    const auto nothing = [](auto*) {};
    for (const auto& buffer : {upload, onGpu}) {
        NORVEX_REFUSED("This buffer is not readable", buffer->Read(0, 16, nothing));
    }
    for (const auto& buffer : {readback, onGpu}) {
        NORVEX_REFUSED("This buffer is not writeable", buffer->Write(0, 16, nothing));
    }
    NORVEX_FAILS_BY(ID3D12Resource::Map, upload->GetResource(), "Failed to map readback buffer",
                    readback->Read(0, 16, nothing));
    NORVEX_FAILS_BY(ID3D12Resource::Map, upload->GetResource(), "Failed to map upload buffer",
                    upload->Write(0, 16, nothing));
}

TEST_F(D3D12PoolTest, MapsWhatIsReadAndUnmapsWhatWasWritten) {
    const auto upload = MakeBuffers()->CreateBuffer(64);
    const auto readback = MakeBuffers(kReadback)->CreateBuffer(64);
    std::vector<SIZE_T> ranges;
    const MethodPatches<&ID3D12Resource::Map, &ID3D12Resource::Unmap> patches(
        upload->GetResource(),
        [&](auto original, auto* self, UINT index, auto* range, auto... data) {
            ranges.insert(ranges.end(), {range->Begin, range->End});
            return original(self, index, range, data...);
        });
    upload->Write(16, 48, [](auto* data) { data[16] = 5; });
    upload->Write(16, 48, [](auto* data) { EXPECT_EQ(data[16], 5) << "not what lies at 16"; });
    EXPECT_THAT(std::exchange(ranges, {}), ElementsAre(0, 0, 16, 48, 0, 0, 16, 48));
    readback->Read(16, 48, [](auto*) {});
    EXPECT_THAT(std::exchange(ranges, {}), ElementsAre(16, 48, 0, 0));
    EXPECT_THROW(upload->Write(0, 8, nullptr), std::bad_function_call);
    EXPECT_THAT(ranges, ElementsAre(0, 0, 0, 8)) << "mapped, but not unmapped";
}

TEST_F(D3D12PoolTest, TexturesAreTheirOwnOrSlicesOfOne) {
    const auto separate = MakeTextures();
    EXPECT_FALSE(separate->IsTextureArray());
    EXPECT_EQ(separate->GetWidth() * separate->GetHeight(), 64u * 32u);
    EXPECT_EQ(separate->ObtainTexture()->GetSubresource(), 0u);
    for (const unsigned count : {4u, 63u, 64u, 65u, 130u}) {
        auto pool = MakeTextures(count);
        EXPECT_TRUE(pool->IsTextureArray());
        auto slices = ExpectLowestFirst(
            count, [&] { return pool->ObtainTexture(); },
            [](const auto& slice) { return slice->GetSubresource(); });
        for (const auto& slice : slices) {
            EXPECT_EQ(slice->GetResource().p, slices[0]->GetResource().p);
            EXPECT_TRUE(slice->IsTextureArray());
        }
        NORVEX_REFUSED("There are no free textures in the array", pool->ObtainTexture());
        const LifeProbe probe(slices[0]->GetResource());
        pool.reset();
        EXPECT_TRUE(probe.IsAlive());
        slices.clear();
        EXPECT_FALSE(probe.IsAlive());
    }
}

} // namespace
} // namespace Norvex::DX
