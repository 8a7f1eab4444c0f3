// Pools: of buffers, of textures, and the shared heaps of views and queries.

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/OutOfMemory.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace std::chrono_literals;
using namespace Norvex::Test;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;
using Place = std::pair<const void*, SIZE_T>; // what no two objects share
using DevicePtr = boost::intrusive_ptr<D12Device>;

constexpr auto kUpload = D3D12_HEAP_TYPE_UPLOAD;
constexpr auto kBeginOnly = D3D12_RESOURCE_BARRIER_FLAG_BEGIN_ONLY;
constexpr auto kReadback = D3D12_HEAP_TYPE_READBACK;

struct Buffers {
    static auto MakePool(const DevicePtr& device, D3D12_HEAP_TYPE type = kUpload) {
        return device->CreateBufferPool(type);
    }
    static auto Take(D12BufferPool& pool) { return pool.CreateBuffer(100); }
    static Place PlaceOf(const D12Buffer& buffer) { return {buffer.GetResource(), 0}; }
    static constexpr auto kFailed = "Failed to create buffer";
    static constexpr auto kFunction = "CreateDimensionBuffer";
};

struct Textures {
    static auto MakePool(const DevicePtr& device, std::uint16_t arraySize = 1) {
        D12Texture2DDesc desc;
        desc.width = 64;
        desc.height = 32;
        desc.arraySize = arraySize;
        desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
        return D12Texture2DPool::Create(device, desc);
    }
    static auto Take(D12Texture2DPool& pool) { return pool.ObtainTexture(); }
    static Place PlaceOf(const D12Texture2D& texture) { return {texture.GetResource(), 0}; }
    static constexpr auto kFailed = "Failed to create 2D texture";
    static constexpr auto kFunction = "CreateTexture2D";
};

struct Views {
    static constexpr auto kType = D3D12_DESCRIPTOR_HEAP_TYPE_RTV;
    static auto MakePool(const DevicePtr& device) {
        s_increment = device->Get()->GetDescriptorHandleIncrementSize(kType);
        return boost::intrusive_ptr(new D12DescriptorHeapPool(CComPtr(device->Get())));
    }
    static auto Take(D12DescriptorHeapPool& pool) {
        const D3D12_RENDER_TARGET_VIEW_DESC desc = {
            DXGI_FORMAT_R8G8B8A8_UNORM, D3D12_RTV_DIMENSION_TEXTURE2D, {}};
        return pool.CreateRenderTargetView({}, desc);
    }
    static Place PlaceOf(const D12Descriptor& view) { return {nullptr, view.GetCPUHandle().ptr}; }
    static auto MakeHeap(D12DescriptorHeapPool& pool, unsigned count) {
        return pool.CreateCPUHeap(kType, count);
    }
    static SIZE_T HeapOf(const D12Descriptor& view) {
        return view.GetCPUHandle().ptr - SIZE_T{view.GetIndex()} * s_increment;
    }
    static SIZE_T HeapOf(const D12DescriptorCPUHeap& heap) { return heap.GetCPUHandle(0).ptr; }

    static inline SIZE_T s_increment = 0;
};

struct Queries {
    static auto MakePool(const DevicePtr& device) {
        return boost::intrusive_ptr(new D12QueryHeapPool(CComPtr(device->Get())));
    }
    static auto Take(D12QueryHeapPool& pool) {
        return pool.CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    }
    static Place PlaceOf(const D12Query& query) { return {query.GetResource(), query.GetIndex()}; }
    static auto MakeHeap(D12QueryHeapPool& pool, unsigned count) {
        return pool.CreateHeap(D3D12_QUERY_HEAP_TYPE_TIMESTAMP, count);
    }
    static auto* HeapOf(const D12Query& query) { return query.GetHeap()->GetHeap().p; }
    static auto* HeapOf(const D12QueryHeap& heap) { return heap.GetHeap().p; }
};

template <class Kind>
class D3D12PoolTest : public DeviceTest {};
using ResourceKinds = testing::Types<Buffers, Textures>;
TYPED_TEST_SUITE(D3D12PoolTest, ResourceKinds);
template <class Kind>
class D3D12AnyPoolTest : public DeviceTest {};
using AnyKinds = testing::Types<Buffers, Textures, Views, Queries>;
TYPED_TEST_SUITE(D3D12AnyPoolTest, AnyKinds);
template <class Kind>
class D3D12HeapPoolTest : public DeviceTest {};
using HeapKinds = testing::Types<Views, Queries>;
TYPED_TEST_SUITE(D3D12HeapPoolTest, HeapKinds);

TYPED_TEST(D3D12AnyPoolTest, ThreadsNeverShare) {
    const auto pool = TypeParam::MakePool(this->s_device);
    std::mutex mutex;
    std::set<Place> inUse;
    RunThreads(4, [&](unsigned) {
        std::vector<decltype(TypeParam::Take(*pool))> mine(100);
        for (std::size_t round = 0; round < 500; ++round) {
            auto& object = mine[round * 7 % mine.size()];
            if (object != nullptr) {
                const std::scoped_lock lock(mutex);
                inUse.erase(TypeParam::PlaceOf(*object));
            }
            object.reset();
            object = TypeParam::Take(*pool);
            if constexpr (requires { pool->Clear(); }) {
                pool->Clear();
            }
            const std::scoped_lock lock(mutex);
            EXPECT_TRUE(inUse.insert(TypeParam::PlaceOf(*object)).second) << "two in one place";
        }
        const std::scoped_lock lock(mutex);
        for (const auto& object : mine) {
            inUse.erase(TypeParam::PlaceOf(*object));
        }
    });
}

TYPED_TEST(D3D12HeapPoolTest, HeapsAreReplacedWhenFullAndTheSmallestThatDoIsRecycled) {
    using Kind = TypeParam;
    const auto countReferences = [&] { return (this->Raw()->AddRef(), this->Raw()->Release()); };
    const ULONG before = countReferences();
    auto pool = Kind::MakePool(this->s_device);
    std::vector<decltype(Kind::Take(*pool))> objects;
    for (unsigned i = 0; i < 65; ++i) {
        objects.push_back(Kind::Take(*pool));
        EXPECT_EQ(objects[i]->GetIndex(), i % 64);
    }
    const auto first = Kind::HeapOf(*objects[0]);
    EXPECT_NE(Kind::HeapOf(*objects[64]), first);
    objects[5].reset(); // its heap is no longer the shared one
    EXPECT_EQ(Kind::Take(*pool)->GetIndex(), 1u);
    EXPECT_EQ(pool->CountFreeHeaps(), 0u) << "what is in use";
    objects.erase(objects.begin(), objects.begin() + 64);
    EXPECT_EQ(pool->CountFreeHeaps(), 1u);
    auto small = Kind::MakeHeap(*pool, 10);
    auto large = Kind::MakeHeap(*pool, 129);
    const auto largeHeap = Kind::HeapOf(*large);
    const LifeProbe probe(small->GetHeap());
    EXPECT_EQ(Kind::HeapOf(*small), first);
    EXPECT_EQ(pool->CountFreeHeaps(), 0u);
    large.reset();
    small.reset();
    EXPECT_NE(Kind::HeapOf(*Kind::MakeHeap(*pool, 193)), largeHeap);
    large = Kind::MakeHeap(*pool, 65);
    small = Kind::MakeHeap(*pool, 10);
    EXPECT_EQ(Kind::HeapOf(*large), largeHeap);
    EXPECT_EQ(Kind::HeapOf(*small), first);
    {
        const OutOfMemory outOfMemory;
        small.reset();
    }
    EXPECT_FALSE(probe.IsAlive()) << "freed where it cannot be kept";
    large.reset();
    pool.reset();
    objects.clear();
    EXPECT_EQ(countReferences(), before);
}

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
        const OutOfMemory outOfMemory;
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
    ExpectFailure12By<&ID3D12Device::CreateCommittedResource>(
        this->Raw(), [&] { TypeParam::Take(*pool); }, TypeParam::kFailed, TypeParam::kFunction);
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

class D3D12BufferPoolTest : public DeviceTest {
protected:
    static auto MakePool(D3D12_HEAP_TYPE type = kUpload) {
        return Buffers::MakePool(s_device, type);
    }
};

// The first tick finds the lists empty, so the timers have to start anew. From then on something is
// returned all the time, which neither stops the timers nor makes what came before live longer.
TEST_F(D3D12BufferPoolTest, WhatIsNotUsedForTwoSecondsIsFreedBetweenTwoAndFour) {
    const auto buffers = MakePool();
    const auto textures = Textures::MakePool(s_device);
    struct Item {
        boost::intrusive_ptr<IRefCountable> object;
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

TEST_F(D3D12BufferPoolTest, MakesPowersOfTwoOnTheHeapInItsState) {
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
        const auto pool = MakePool(type);
        EXPECT_EQ(pool->GetType(), type);
        EXPECT_EQ(pool->CreateBuffer(requested)->GetSize(), rounded);
        EXPECT_EQ(asked, expected);
    };
    check(D3D12_HEAP_TYPE_DEFAULT, 1, 2, "1 0 2 1 0");
    check(kUpload, 255, 256, "2 2755 256 1 0");
    check(kUpload, 256, 512, "2 2755 512 1 0");
    check(kReadback, 65536, 131072, "3 1024 131072 1 0");
}

TEST_F(D3D12BufferPoolTest, RefusesWhatCannotBe) {
    const auto upload = MakePool()->CreateBuffer(16);
    const auto readback = MakePool(kReadback)->CreateBuffer(16);
    const auto onGpu = MakePool(D3D12_HEAP_TYPE_DEFAULT)->CreateBuffer(16);
    NORVEX_EXPECT_REFUSED12("Buffer size requested equal to zero", MakePool()->CreateBuffer(0));
    NORVEX_EXPECT_REFUSED12("Buffer size requested is too large",
                            MakePool()->CreateBuffer(1ull << 63));
    ExpectFailure12([&] { MakePool(D3D12_HEAP_TYPE_CUSTOM)->CreateBuffer(16); },
                    "Invalid heap type", "CreateDimensionBuffer");
    NORVEX_EXPECT_REFUSED12("Failed to create 2D texture",
                            D12Texture2DPool::Create(nullptr, D12Texture2DDesc()));
    const auto notMapped = [](auto*) { FAIL(); };
    for (const auto& buffer : {upload, onGpu}) {
        NORVEX_EXPECT_REFUSED12("This buffer is not readable", buffer->Read(0, 16, notMapped));
    }
    for (const auto& buffer : {readback, onGpu}) {
        NORVEX_EXPECT_REFUSED12("This buffer is not writeable", buffer->Write(0, 16, notMapped));
    }
    ExpectFailure12By<&ID3D12Resource::Map>(
        upload->GetResource(), [&] { readback->Read(0, 16, notMapped); },
        "Failed to map readback buffer", "Read");
    ExpectFailure12By<&ID3D12Resource::Map>(
        upload->GetResource(), [&] { upload->Write(0, 16, notMapped); },
        "Failed to map upload buffer", "Write");
}

TEST_F(D3D12BufferPoolTest, ReusesTheLastReturnedOfTheSizeUntilCleared) {
    const auto pool = MakePool();
    auto first = pool->CreateBuffer(256);
    auto second = pool->CreateBuffer(300);
    const LifeProbe usedProbe(first->GetResource());
    const LifeProbe freeProbe(second->GetResource());
    ID3D12Resource* const resources[] = {first->GetResource(), second->GetResource()};
    pool->CreateBuffer(1000);
    first.reset();
    second.reset();
    first = pool->CreateBuffer(511);
    second = pool->CreateBuffer(256);
    EXPECT_EQ(first->GetResource(), resources[1]);
    EXPECT_EQ(second->GetResource(), resources[0]);
    EXPECT_EQ(pool->CountFree(), std::pair(std::size_t{1}, std::uint64_t{1024}));
    first.reset();
    pool->Clear();
    EXPECT_FALSE(freeProbe.IsAlive());
    EXPECT_TRUE(usedProbe.IsAlive());
    const auto buffer = pool->CreateBuffer(256);
    EXPECT_EQ(buffer->GetSize(), 512u);
    EXPECT_EQ(BarrierText(buffer->Transition(D3D12_RESOURCE_STATE_GENERIC_READ,
                                             D3D12_RESOURCE_STATE_COPY_SOURCE, kBeginOnly)),
              BarrierText(CD3DX12_RESOURCE_BARRIER::Transition(
                  buffer->GetResource(), D3D12_RESOURCE_STATE_GENERIC_READ,
                  D3D12_RESOURCE_STATE_COPY_SOURCE, D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES,
                  kBeginOnly)));
}

TEST_F(D3D12BufferPoolTest, MapsWhatIsReadAndUnmapsWhatWasWritten) {
    const auto upload = MakePool()->CreateBuffer(64);
    const auto readback = MakePool(kReadback)->CreateBuffer(64);
    std::vector<SIZE_T> ranges;
    void* start = nullptr;
    const MethodPatch<&ID3D12Resource::Map> map(
        upload->GetResource(), [&](auto original, auto* self, UINT index, auto* range, auto data) {
            ranges = {range->Begin, range->End};
            const HRESULT result = original(self, index, range, data);
            start = *data;
            return result;
        });
    const MethodPatch<&ID3D12Resource::Unmap> unmap(
        upload->GetResource(), [&](auto original, auto* self, UINT index, auto* range) {
            ranges.insert(ranges.end(), {range->Begin, range->End});
            original(self, index, range);
        });
    const auto isStart = [&](const std::uint8_t* data) { EXPECT_EQ(data, start); };
    upload->Write(16, 48, isStart);
    EXPECT_THAT(ranges, ElementsAre(0, 0, 16, 48));
    readback->Read(16, 48, isStart);
    EXPECT_THAT(ranges, ElementsAre(16, 48, 0, 0));
    EXPECT_THROW(upload->Write(0, 8, nullptr), std::bad_function_call);
    EXPECT_THAT(ranges, ElementsAre(0, 0, 0, 8)) << "mapped, but not unmapped";
}

class D3D12TexturePoolTest : public DeviceTest {};

TEST_F(D3D12TexturePoolTest, SeparateTexturesAreReusedOldestFirst) {
    const auto pool = Textures::MakePool(s_device);
    EXPECT_FALSE(pool->IsTextureArray());
    EXPECT_EQ(pool->GetWidth(), 64u);
    EXPECT_EQ(pool->GetHeight(), 32u);
    std::vector textures = {pool->ObtainTexture(), pool->ObtainTexture(), pool->ObtainTexture()};
    std::vector<ID3D12Resource*> resources;
    for (auto& texture : textures) {
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
    std::vector<boost::intrusive_ptr<D12Texture2D>> slices;
    for (unsigned i = 0; i < 4; ++i) {
        slices.push_back(pool->ObtainTexture());
        EXPECT_EQ(slices[i]->GetSubresource(), i);
        EXPECT_EQ(slices[i]->GetResource().p, slices[0]->GetResource().p);
        EXPECT_TRUE(slices[i]->IsTextureArray());
    }
    NORVEX_EXPECT_REFUSED12("There are no free textures in the array", pool->ObtainTexture());
    slices[2].reset();
    EXPECT_EQ(pool->ObtainTexture()->GetSubresource(), 2u);
    // Of what is named, not of the texture's own slice.
    constexpr auto kFrom = D3D12_RESOURCE_STATE_COPY_SOURCE;
    constexpr auto kTo = D3D12_RESOURCE_STATE_COPY_DEST;
    EXPECT_EQ(BarrierText(slices[3]->Transition(kFrom, kTo, 1, kBeginOnly)),
              BarrierText(CD3DX12_RESOURCE_BARRIER::Transition(slices[0]->GetResource(), kFrom, kTo,
                                                               1, kBeginOnly)));
    const LifeProbe probe(slices[0]->GetResource());
    pool.reset();
    EXPECT_TRUE(probe.IsAlive());
    slices.clear();
    EXPECT_FALSE(probe.IsAlive());
}

} // namespace
} // namespace Norvex::DX
