// Pools of buffers and of textures.

#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/OutOfMemory.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace std::chrono_literals;
using Norvex::Test::ExpectFailure12;
using Norvex::Test::FailingMethod;
using Norvex::Test::LifeProbe;
using Norvex::Test::MethodPatch;
using testing::ElementsAre;
namespace Slot = Norvex::Test::Slot;

using BufferPtr = boost::intrusive_ptr<D12Buffer>;
using TexturePtr = boost::intrusive_ptr<D12Texture2D>;
using Clock = std::chrono::steady_clock;

struct Buffers {
    static auto MakePool(const boost::intrusive_ptr<D12Device>& device) {
        return device->CreateBufferPool(D3D12_HEAP_TYPE_UPLOAD);
    }
    static BufferPtr Take(D12BufferPool& pool) { return pool.CreateBuffer(100); }
    static constexpr auto kFailed = "Failed to create buffer";
    static constexpr auto kFunction = "CreateDimensionBuffer";
};

struct Textures {
    static boost::intrusive_ptr<D12Texture2DPool>
    MakePool(const boost::intrusive_ptr<D12Device>& device, std::uint16_t arraySize = 1) {
        D12Texture2DDesc desc;
        desc.width = 64;
        desc.height = 32;
        desc.arraySize = arraySize;
        desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
        return D12Texture2DPool::Create(device, desc);
    }
    static TexturePtr Take(D12Texture2DPool& pool) { return pool.ObtainTexture(); }
    static constexpr auto kFailed = "Failed to create 2D texture";
    static constexpr auto kFunction = "CreateTexture2D";
};

template <class Kind>
class D3D12PoolTest : public Norvex::Test::DeviceTest {};
using Kinds = testing::Types<Buffers, Textures>;
TYPED_TEST_SUITE(D3D12PoolTest, Kinds);

TYPED_TEST(D3D12PoolTest, ReturnsWithTheLastHandleUnlessMemoryRanOut) {
    const auto pool = TypeParam::MakePool(this->s_device);
    auto original = TypeParam::Take(*pool);
    using Object = std::remove_reference_t<decltype(*original)>;
    ID3D12Resource* const resource = original->GetResource();
    const LifeProbe probe(resource);
    boost::intrusive_ptr<Object> copy(new Object(*original));
    boost::intrusive_ptr<Object> copyOfCopy(new Object(*copy));
    original.reset();
    copy.reset();
    auto other = TypeParam::Take(*pool);
    EXPECT_NE(other->GetResource(), resource);
    EXPECT_EQ(copyOfCopy->GetResource(), resource);
    copyOfCopy.reset();
    auto again = TypeParam::Take(*pool);
    EXPECT_EQ(again->GetResource(), resource);
    {
        const Norvex::Test::OutOfMemory outOfMemory;
        again.reset();
        EXPECT_THROW(TypeParam::Take(*pool), std::bad_alloc);
    }
    EXPECT_FALSE(probe.IsAlive());
    ID3D12Resource* const otherResource = other->GetResource();
    other.reset();
    EXPECT_EQ(TypeParam::Take(*pool)->GetResource(), otherResource);
}

TYPED_TEST(D3D12PoolTest, FailedCreationIsReportedAndChangesNothing) {
    const auto pool = TypeParam::MakePool(this->s_device);
    {
        const FailingMethod<Slot::kDeviceCreateCommittedResource> fail(this->Raw(), E_OUTOFMEMORY);
        ExpectFailure12([&] { TypeParam::Take(*pool); }, TypeParam::kFailed, TypeParam::kFunction,
                        E_OUTOFMEMORY);
    }
    EXPECT_NE(TypeParam::Take(*pool), nullptr);
}

// The last object is released on another thread just as the pool's owner lets go.
TYPED_TEST(D3D12PoolTest, LivesAsLongAsItsObjects) {
    for (int i = 0; i < 100; ++i) {
        auto pool = TypeParam::MakePool(this->s_device);
        auto used = TypeParam::Take(*pool);
        auto free = TypeParam::Take(*pool);
        const LifeProbe usedProbe(used->GetResource());
        const LifeProbe freeProbe(free->GetResource());
        free.reset();
        std::atomic<bool> go{false};
        std::thread releaser([&] {
            while (!go) {
            }
            used.reset();
        });
        EXPECT_TRUE(freeProbe.IsAlive());
        go = true;
        pool.reset();
        releaser.join();
        ASSERT_FALSE(usedProbe.IsAlive() || freeProbe.IsAlive());
    }
}

class D3D12BufferPoolTest : public Norvex::Test::DeviceTest {
protected:
    static auto MakePool(D3D12_HEAP_TYPE heapType = D3D12_HEAP_TYPE_UPLOAD) {
        return s_device->CreateBufferPool(heapType);
    }
};

// The first tick finds the lists empty, so the timers have to start anew. From then on something is
// returned all the time, which neither stops the timers nor makes what came before live longer.
TEST_F(D3D12BufferPoolTest, WhatIsNotUsedForTwoSecondsIsFreedBetweenTwoAndFour) {
    const auto buffers = Buffers::MakePool(s_device);
    const auto textures = Textures::MakePool(s_device);
    struct Item {
        boost::intrusive_ptr<IRefCountable> object;
        LifeProbe probe;
        Clock::time_point returned;
    };
    std::vector<Item> items;
    buffers->CreateBuffer(100);
    textures->ObtainTexture();
    for (int i = 0; i < 20; ++i) {
        const BufferPtr buffer = buffers->CreateBuffer(i % 3 == 0 ? 1000 : 100);
        const TexturePtr texture = textures->ObtainTexture();
        items.push_back({buffer, LifeProbe(buffer->GetResource()), {}});
        items.push_back({texture, LifeProbe(texture->GetResource()), {}});
    }
    std::this_thread::sleep_for(2200ms);
    std::size_t alive = items.size();
    for (std::size_t next = 0; alive > 0; next += 2) {
        for (std::size_t i = next; i < std::min(next + 2, items.size()); ++i) {
            items[i].returned = Clock::now();
            items[i].object.reset();
        }
        std::this_thread::sleep_for(250ms);
        alive = 0;
        for (const Item& item : items) {
            const bool isAlive = item.probe.IsAlive();
            alive += isAlive ? 1 : 0;
            if (item.object == nullptr) {
                const auto age = Clock::now() - item.returned;
                ASSERT_TRUE(isAlive || age > 1950ms);
                ASSERT_TRUE(!isAlive || age < 5500ms);
            }
        }
    }
    EXPECT_EQ(buffers->CountFree(), std::pair(std::size_t{0}, std::uint64_t{0}));
    EXPECT_NE(textures->ObtainTexture(), nullptr) << "the pool goes on";
}

TEST_F(D3D12BufferPoolTest, MakesPowersOfTwoOnTheHeapInItsState) {
    const struct {
        D3D12_HEAP_TYPE heapType;
        D3D12_RESOURCE_STATES state;
        std::uint64_t requested;
        std::uint64_t rounded;
    } cases[] = {{D3D12_HEAP_TYPE_DEFAULT, D3D12_RESOURCE_STATE_COMMON, 1, 2},
                 {D3D12_HEAP_TYPE_UPLOAD, D3D12_RESOURCE_STATE_GENERIC_READ, 255, 256},
                 {D3D12_HEAP_TYPE_UPLOAD, D3D12_RESOURCE_STATE_GENERIC_READ, 256, 512},
                 {D3D12_HEAP_TYPE_READBACK, D3D12_RESOURCE_STATE_COPY_DEST, 65536, 131072}};
    for (const auto& c : cases) {
        bool isAsked = false;
        const MethodPatch<Slot::kDeviceCreateCommittedResource,
                          HRESULT(ID3D12Device*, const D3D12_HEAP_PROPERTIES*, D3D12_HEAP_FLAGS,
                                  const D3D12_RESOURCE_DESC*, D3D12_RESOURCE_STATES,
                                  const D3D12_CLEAR_VALUE*, REFIID, void**)>
            patch(Raw(), [&](auto original, auto device, auto heap, auto flags, auto desc,
                             auto state, auto... rest) {
                isAsked = true;
                EXPECT_EQ(heap->Type, c.heapType);
                EXPECT_EQ(desc->Width, c.rounded);
                EXPECT_EQ(desc->Layout, D3D12_TEXTURE_LAYOUT_ROW_MAJOR);
                EXPECT_EQ(desc->Flags, D3D12_RESOURCE_FLAG_NONE);
                EXPECT_EQ(state, c.state);
                return original(device, heap, flags, desc, state, rest...);
            });
        const auto pool = MakePool(c.heapType);
        EXPECT_EQ(pool->GetType(), c.heapType);
        EXPECT_EQ(pool->CreateBuffer(c.requested)->GetSize(), c.rounded);
        EXPECT_TRUE(isAsked);
    }
}

TEST_F(D3D12BufferPoolTest, RefusesWhatCannotBe) {
    const BufferPtr upload = MakePool()->CreateBuffer(16);
    const BufferPtr readback = MakePool(D3D12_HEAP_TYPE_READBACK)->CreateBuffer(16);
    const BufferPtr onGpu = MakePool(D3D12_HEAP_TYPE_DEFAULT)->CreateBuffer(16);
    const auto read = [](D12Buffer& buffer) { buffer.Read(0, 16, [](auto*) { FAIL(); }); };
    const auto write = [](D12Buffer& buffer) { buffer.Write(0, 16, [](auto*) { FAIL(); }); };
    const FailingMethod<Slot::kResourceMap> fail(upload->GetResource(), DXGI_ERROR_DEVICE_HUNG);
    const struct {
        std::function<void()> call;
        const char* sentence;
        const char* function;
        long result = E_FAIL;
    } cases[] = {
        {[] { MakePool()->CreateBuffer(0); }, "Buffer size requested equal to zero",
         "CreateBuffer"},
        {[] { MakePool()->CreateBuffer(1ull << 63); }, "Buffer size requested is too large",
         "CreateBuffer"},
        {[] { MakePool(D3D12_HEAP_TYPE_CUSTOM)->CreateBuffer(16); }, "Invalid heap type",
         "CreateDimensionBuffer"},
        {[&] { read(*upload); }, "This buffer is not readable", "Read"},
        {[&] { read(*onGpu); }, "This buffer is not readable", "Read"},
        {[&] { write(*readback); }, "This buffer is not writeable", "Write"},
        {[&] { write(*onGpu); }, "This buffer is not writeable", "Write"},
        {[&] { read(*readback); }, "Failed to map readback buffer", "Read", DXGI_ERROR_DEVICE_HUNG},
        {[&] { write(*upload); }, "Failed to map upload buffer", "Write", DXGI_ERROR_DEVICE_HUNG},
        {[] { Textures::MakePool(nullptr); }, "Failed to create 2D texture", "Create"},
    };
    for (const auto& c : cases) {
        ExpectFailure12(c.call, c.sentence, c.function, c.result);
    }
}

TEST_F(D3D12BufferPoolTest, ReusesTheLastReturnedOfTheSizeUntilCleared) {
    const auto pool = MakePool();
    BufferPtr first = pool->CreateBuffer(256);
    BufferPtr second = pool->CreateBuffer(300);
    BufferPtr other = pool->CreateBuffer(1000);
    ID3D12Resource* const firstResource = first->GetResource();
    ID3D12Resource* const secondResource = second->GetResource();
    first.reset();
    second.reset();
    other.reset();
    first = pool->CreateBuffer(511);
    second = pool->CreateBuffer(256);
    EXPECT_EQ(first->GetResource(), secondResource);
    EXPECT_EQ(second->GetResource(), firstResource);
    EXPECT_EQ(pool->CountFree(), std::pair(std::size_t{1}, std::uint64_t{1024}));
    const LifeProbe usedProbe(firstResource);
    const LifeProbe freeProbe(secondResource);
    first.reset();
    pool->Clear();
    EXPECT_FALSE(freeProbe.IsAlive());
    EXPECT_TRUE(usedProbe.IsAlive());
    EXPECT_EQ(pool->CreateBuffer(256)->GetSize(), 512u);
}

TEST_F(D3D12BufferPoolTest, MapsWhatIsReadAndUnmapsWhatWasWritten) {
    const BufferPtr upload = MakePool()->CreateBuffer(64);
    const BufferPtr readback = MakePool(D3D12_HEAP_TYPE_READBACK)->CreateBuffer(64);
    std::vector<SIZE_T> ranges;
    void* start = nullptr;
    const MethodPatch<Slot::kResourceMap,
                      HRESULT(ID3D12Resource*, UINT, const D3D12_RANGE*, void**)>
        map(upload->GetResource(),
            [&](auto original, auto self, auto index, auto range, auto data) {
                ranges = {range->Begin, range->End};
                const HRESULT result = original(self, index, range, data);
                start = *data;
                return result;
            });
    const MethodPatch<Slot::kResourceUnmap, void(ID3D12Resource*, UINT, const D3D12_RANGE*)> unmap(
        upload->GetResource(), [&](auto original, auto self, auto index, auto range) {
            ranges.insert(ranges.end(), {range->Begin, range->End});
            original(self, index, range);
        });
    upload->Write(16, 48, [&](std::uint8_t* data) { EXPECT_EQ(data, start); });
    EXPECT_THAT(ranges, ElementsAre(0, 0, 16, 48));
    readback->Read(16, 48, [&](const std::uint8_t* data) { EXPECT_EQ(data, start); });
    EXPECT_THAT(ranges, ElementsAre(16, 48, 0, 0));
    EXPECT_THROW(upload->Write(0, 8, nullptr), std::bad_function_call);
    EXPECT_THAT(ranges, ElementsAre(0, 0, 0, 8)) << "mapped, but not unmapped";
}

TEST_F(D3D12BufferPoolTest, ThreadsNeverShareABuffer) {
    const auto pool = MakePool();
    std::mutex mutex;
    std::set<ID3D12Resource*> inUse;
    int shared = 0;
    const auto work = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int round = 0; round < 500; ++round) {
            BufferPtr buffer = pool->CreateBuffer(1 + random() % 1000);
            {
                const std::scoped_lock lock(mutex);
                shared += inUse.insert(buffer->GetResource()).second ? 0 : 1;
            }
            if (round % 50 == 0) {
                pool->Clear();
            }
            const std::scoped_lock lock(mutex);
            inUse.erase(buffer->GetResource());
            buffer.reset();
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        threads.emplace_back(work, seed);
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shared, 0);
}

class D3D12TexturePoolTest : public Norvex::Test::DeviceTest {};

TEST_F(D3D12TexturePoolTest, SeparateTexturesAreReusedOldestFirst) {
    const auto pool = Textures::MakePool(s_device);
    EXPECT_FALSE(pool->IsTextureArray());
    EXPECT_EQ(pool->GetWidth(), 64u);
    EXPECT_EQ(pool->GetHeight(), 32u);
    std::vector<TexturePtr> textures = {pool->ObtainTexture(), pool->ObtainTexture(),
                                        pool->ObtainTexture()};
    std::vector<ID3D12Resource*> resources;
    for (TexturePtr& texture : textures) {
        EXPECT_EQ(texture->GetSubresource(), 0u);
        resources.push_back(texture->GetResource());
        texture.reset();
    }
    for (std::size_t i = 0; i < textures.size(); ++i) {
        textures[i] = pool->ObtainTexture();
        EXPECT_EQ(textures[i]->GetResource(), resources[i]);
    }
}

TEST_F(D3D12TexturePoolTest, AnArrayHandsOutItsSlices) {
    auto pool = Textures::MakePool(s_device, 4);
    EXPECT_TRUE(pool->IsTextureArray());
    std::vector<TexturePtr> slices;
    for (unsigned i = 0; i < 4; ++i) {
        slices.push_back(pool->ObtainTexture());
        EXPECT_EQ(slices[i]->GetSubresource(), i);
        EXPECT_EQ(slices[i]->GetResource().p, slices[0]->GetResource().p);
        EXPECT_TRUE(slices[i]->IsTextureArray());
    }
    ExpectFailure12([&] { pool->ObtainTexture(); }, "There are no free textures in the array",
                    "ObtainTexture");
    slices[2].reset();
    EXPECT_EQ(pool->ObtainTexture()->GetSubresource(), 2u);
    // Of what is named, not of the texture's own slice.
    const auto barrier =
        slices[3]->Transition(D3D12_RESOURCE_STATE_COMMON, D3D12_RESOURCE_STATE_COPY_DEST, 1,
                              D3D12_RESOURCE_BARRIER_FLAG_BEGIN_ONLY);
    EXPECT_EQ(barrier.Transition.pResource, slices[0]->GetResource());
    EXPECT_EQ(barrier.Transition.Subresource, 1u);
    EXPECT_EQ(barrier.Transition.StateAfter, D3D12_RESOURCE_STATE_COPY_DEST);
    EXPECT_EQ(barrier.Flags, D3D12_RESOURCE_BARRIER_FLAG_BEGIN_ONLY);
    const auto whole = Buffers::MakePool(s_device)->CreateBuffer(64)->Transition(
        D3D12_RESOURCE_STATE_GENERIC_READ, D3D12_RESOURCE_STATE_COPY_SOURCE,
        D3D12_RESOURCE_BARRIER_FLAG_END_ONLY);
    EXPECT_EQ(whole.Transition.Subresource, D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES);
    EXPECT_EQ(whole.Transition.StateBefore, D3D12_RESOURCE_STATE_GENERIC_READ);
    EXPECT_EQ(whole.Flags, D3D12_RESOURCE_BARRIER_FLAG_END_ONLY);
    const LifeProbe probe(slices[0]->GetResource());
    pool.reset();
    EXPECT_TRUE(probe.IsAlive());
    slices.clear();
    EXPECT_FALSE(probe.IsAlive());
}

} // namespace
} // namespace Norvex::DX
