#include "Proc/DirectX/Manager/D3D12BufferPool.h"

#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Platform/D3D12Abi.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace std::chrono_literals;
using Norvex::Test::LifeProbe;
using Norvex::Test::MethodPatch;
using Norvex::Test::SentenceOf;
namespace Slot = Norvex::Test::Slot;

using BufferPtr = boost::intrusive_ptr<D12Buffer>;
using CreateCommittedResource =
    MethodPatch<Slot::kDeviceCreateCommittedResource,
                HRESULT(ID3D12Device*, const D3D12_HEAP_PROPERTIES*, D3D12_HEAP_FLAGS,
                        const D3D12_RESOURCE_DESC*, D3D12_RESOURCE_STATES, const D3D12_CLEAR_VALUE*,
                        REFIID, void**)>;
using Map =
    MethodPatch<Slot::kResourceMap, HRESULT(ID3D12Resource*, UINT, const D3D12_RANGE*, void**)>;
using Unmap = MethodPatch<Slot::kResourceUnmap, void(ID3D12Resource*, UINT, const D3D12_RANGE*)>;

class D3D12BufferPoolTest : public Norvex::Test::DeviceTest {
protected:
    static boost::intrusive_ptr<D12BufferPool>
    MakePool(D3D12_HEAP_TYPE heapType = D3D12_HEAP_TYPE_UPLOAD) {
        return s_device->CreateBufferPool(heapType);
    }
};

TEST_F(D3D12BufferPoolTest, SizeIsTheNextLargerPowerOfTwo) {
    const auto pool = MakePool();
    const std::pair<std::uint64_t, std::uint64_t> sizes[] = {
        {1, 2}, {2, 4}, {255, 256}, {256, 512}, {257, 512}, {300, 512}, {65536, 131072}};
    for (const auto& [requested, rounded] : sizes) {
        const BufferPtr buffer = pool->CreateBuffer(requested);
        EXPECT_EQ(buffer->GetSize(), rounded) << requested;
        EXPECT_EQ(Platform::GetDesc(buffer->GetResource()).Width, rounded) << requested;
    }
}

TEST_F(D3D12BufferPoolTest, RefusesWhatItCannotMake) {
    const auto pool = MakePool();
    EXPECT_EQ(SentenceOf([&] { pool->CreateBuffer(0); }), "Buffer size requested equal to zero");
    EXPECT_EQ(SentenceOf([&] { pool->CreateBuffer(1ull << 63); }),
              "Buffer size requested is too large");
    const auto customPool = MakePool(D3D12_HEAP_TYPE_CUSTOM);
    EXPECT_EQ(SentenceOf([&] { customPool->CreateBuffer(16); }), "Invalid heap type");
}

TEST_F(D3D12BufferPoolTest, CreatesOnTheHeapInItsState) {
    const struct {
        D3D12_HEAP_TYPE heapType;
        D3D12_RESOURCE_STATES state;
    } cases[] = {{D3D12_HEAP_TYPE_DEFAULT, D3D12_RESOURCE_STATE_COMMON},
                 {D3D12_HEAP_TYPE_UPLOAD, D3D12_RESOURCE_STATE_GENERIC_READ},
                 {D3D12_HEAP_TYPE_READBACK, D3D12_RESOURCE_STATE_COPY_DEST}};
    for (const auto& c : cases) {
        D3D12_HEAP_PROPERTIES heap = {};
        D3D12_RESOURCE_DESC desc = {};
        D3D12_RESOURCE_STATES state = {};
        const CreateCommittedResource patch(Raw(), [&](auto original, auto device, auto properties,
                                                       auto flags, auto description, auto initial,
                                                       auto... rest) {
            heap = *properties;
            desc = *description;
            state = initial;
            return original(device, properties, flags, description, initial, rest...);
        });
        const auto pool = MakePool(c.heapType);
        EXPECT_EQ(pool->GetType(), c.heapType);
        pool->CreateBuffer(1000);
        EXPECT_EQ(heap.Type, c.heapType);
        EXPECT_EQ(heap.CPUPageProperty, D3D12_CPU_PAGE_PROPERTY_UNKNOWN);
        EXPECT_EQ(desc.Width, 1024u);
        EXPECT_EQ(desc.Layout, D3D12_TEXTURE_LAYOUT_ROW_MAJOR);
        EXPECT_EQ(desc.Flags, D3D12_RESOURCE_FLAG_NONE);
        EXPECT_EQ(state, c.state);
    }
}

TEST_F(D3D12BufferPoolTest, FailedCreationIsReportedAndChangesNothing) {
    const auto pool = MakePool();
    {
        const CreateCommittedResource patch(Raw(), [](auto...) { return E_OUTOFMEMORY; });
        const auto thrown = Norvex::Test::ThrownBy([&] { pool->CreateBuffer(16); });
        EXPECT_EQ(thrown.sentence, "Failed to create buffer");
        EXPECT_EQ(thrown.function, "CreateDimensionBuffer");
        EXPECT_EQ(thrown.result, E_OUTOFMEMORY);
    }
    EXPECT_EQ(pool->CreateBuffer(16)->GetSize(), 32u);
}

TEST_F(D3D12BufferPoolTest, ReusesTheLastReturnedOfTheSize) {
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
    int created = 0;
    const CreateCommittedResource patch(Raw(), [&](auto original, auto... args) {
        ++created;
        return original(args...);
    });
    const BufferPtr third = pool->CreateBuffer(256);
    EXPECT_EQ(created, 1);
}

TEST_F(D3D12BufferPoolTest, ResourceReturnsWithTheLastHandle) {
    const auto pool = MakePool();
    BufferPtr original = pool->CreateBuffer(64);
    ID3D12Resource* const resource = original->GetResource();
    BufferPtr copy(new D12Buffer(*original));
    BufferPtr copyOfCopy(new D12Buffer(*copy));
    original.reset();
    copy.reset();
    const BufferPtr other = pool->CreateBuffer(64);
    EXPECT_NE(other->GetResource(), resource);
    EXPECT_EQ(copyOfCopy->GetResource(), resource);
    copyOfCopy.reset();
    EXPECT_EQ(pool->CreateBuffer(64)->GetResource(), resource);
}

TEST_F(D3D12BufferPoolTest, PoolLivesAsLongAsItsBuffers) {
    auto pool = MakePool();
    BufferPtr used = pool->CreateBuffer(64);
    const LifeProbe usedProbe(used->GetResource());
    BufferPtr free = pool->CreateBuffer(64);
    const LifeProbe freeProbe(free->GetResource());
    free.reset();
    pool.reset();
    EXPECT_TRUE(freeProbe.IsAlive());
    used->Write(0, 64, [](std::uint8_t* data) { data[63] = 1; });
    used.reset();
    EXPECT_FALSE(usedProbe.IsAlive());
    EXPECT_FALSE(freeProbe.IsAlive());
}

TEST_F(D3D12BufferPoolTest, ClearFreesWhatIsNotInUse) {
    const auto pool = MakePool();
    const BufferPtr used = pool->CreateBuffer(64);
    const LifeProbe usedProbe(used->GetResource());
    BufferPtr free = pool->CreateBuffer(64);
    const LifeProbe freeProbe(free->GetResource());
    free.reset();
    EXPECT_TRUE(freeProbe.IsAlive());
    pool->Clear();
    EXPECT_FALSE(freeProbe.IsAlive());
    EXPECT_TRUE(usedProbe.IsAlive());
    EXPECT_EQ(pool->CreateBuffer(64)->GetSize(), 128u);
}

// Two periods: the first tick finds the list empty, so the timer has to start anew for the second
// return.
TEST_F(D3D12BufferPoolTest, TimerFreesWhatIsNotUsedForTwoSeconds) {
    const auto pool = MakePool();
    BufferPtr buffer = pool->CreateBuffer(64);
    const LifeProbe probe(buffer->GetResource());
    buffer.reset();
    buffer = pool->CreateBuffer(64);
    std::this_thread::sleep_for(2200ms);
    EXPECT_TRUE(probe.IsAlive());
    buffer.reset();
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(probe.IsAlive());
    for (int tenths = 0; tenths < 60 && probe.IsAlive(); ++tenths) {
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_FALSE(probe.IsAlive());
}

TEST_F(D3D12BufferPoolTest, ReadsAndWritesGoTheirWay) {
    const struct {
        D3D12_HEAP_TYPE heapType;
        const char* read;
        const char* write;
    } cases[] = {
        {D3D12_HEAP_TYPE_UPLOAD, "This buffer is not readable", "(nothing)"},
        {D3D12_HEAP_TYPE_READBACK, "(nothing)", "This buffer is not writeable"},
        {D3D12_HEAP_TYPE_DEFAULT, "This buffer is not readable", "This buffer is not writeable"},
    };
    for (const auto& c : cases) {
        const BufferPtr buffer = MakePool(c.heapType)->CreateBuffer(16);
        EXPECT_EQ(SentenceOf([&] { buffer->Read(0, 16, [](const std::uint8_t*) {}); }), c.read);
        EXPECT_EQ(SentenceOf([&] { buffer->Write(0, 16, [](std::uint8_t*) {}); }), c.write);
    }
}

TEST_F(D3D12BufferPoolTest, MapsWhatIsReadAndUnmapsWhatWasWritten) {
    const BufferPtr upload = MakePool()->CreateBuffer(64);
    const BufferPtr readback = MakePool(D3D12_HEAP_TYPE_READBACK)->CreateBuffer(64);
    std::vector<SIZE_T> ranges;
    const auto note = [&](const D3D12_RANGE* range) {
        ranges.push_back(range->Begin);
        ranges.push_back(range->End);
    };
    void* start = nullptr;
    const Map map(upload->GetResource(),
                  [&](auto original, auto self, auto index, auto range, auto data) {
                      note(range);
                      const HRESULT result = original(self, index, range, data);
                      start = *data;
                      return result;
                  });
    const Unmap unmap(upload->GetResource(), [&](auto original, auto self, auto index, auto range) {
        note(range);
        original(self, index, range);
    });
    upload->Write(16, 48, [&](std::uint8_t* data) { EXPECT_EQ(data, start); });
    EXPECT_THAT(ranges, testing::ElementsAre(0, 0, 16, 48));
    ranges.clear();
    readback->Read(16, 48, [&](const std::uint8_t* data) { EXPECT_EQ(data, start); });
    EXPECT_THAT(ranges, testing::ElementsAre(16, 48, 0, 0));
    ranges.clear();
    EXPECT_THROW(upload->Write(0, 8, nullptr), std::bad_function_call);
    EXPECT_EQ(ranges.size(), 4u) << "mapped, but not unmapped";
}

TEST_F(D3D12BufferPoolTest, FailedMappingIsReported) {
    const BufferPtr upload = MakePool()->CreateBuffer(64);
    const BufferPtr readback = MakePool(D3D12_HEAP_TYPE_READBACK)->CreateBuffer(64);
    bool isCalled = false;
    const Map map(upload->GetResource(), [](auto...) { return DXGI_ERROR_DEVICE_HUNG; });
    const auto write = Norvex::Test::ThrownBy(
        [&] { upload->Write(0, 64, [&](std::uint8_t*) { isCalled = true; }); });
    const auto read = Norvex::Test::ThrownBy(
        [&] { readback->Read(0, 64, [&](const std::uint8_t*) { isCalled = true; }); });
    EXPECT_EQ(write.sentence, "Failed to map upload buffer");
    EXPECT_EQ(read.sentence, "Failed to map readback buffer");
    EXPECT_EQ(write.result, DXGI_ERROR_DEVICE_HUNG);
    EXPECT_EQ(read.result, DXGI_ERROR_DEVICE_HUNG);
    EXPECT_FALSE(isCalled);
}

TEST_F(D3D12BufferPoolTest, TransitionsTheWholeBuffer) {
    const BufferPtr buffer = MakePool(D3D12_HEAP_TYPE_DEFAULT)->CreateBuffer(64);
    const auto barrier =
        buffer->Transition(D3D12_RESOURCE_STATE_COPY_DEST, D3D12_RESOURCE_STATE_INDEX_BUFFER,
                           D3D12_RESOURCE_BARRIER_FLAG_BEGIN_ONLY);
    EXPECT_EQ(barrier.Type, D3D12_RESOURCE_BARRIER_TYPE_TRANSITION);
    EXPECT_EQ(barrier.Flags, D3D12_RESOURCE_BARRIER_FLAG_BEGIN_ONLY);
    EXPECT_EQ(barrier.Transition.pResource, buffer->GetResource());
    EXPECT_EQ(barrier.Transition.StateBefore, D3D12_RESOURCE_STATE_COPY_DEST);
    EXPECT_EQ(barrier.Transition.StateAfter, D3D12_RESOURCE_STATE_INDEX_BUFFER);
    EXPECT_EQ(barrier.Transition.Subresource, D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES);
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

} // namespace
} // namespace Norvex::DX
