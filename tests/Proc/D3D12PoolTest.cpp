// Pools: of buffers, of textures, and the shared heaps of queries and views.

#include <chrono>
#include <thread>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace std::chrono_literals;
using namespace Norvex::Test;

constexpr auto kTime = D3D12_QUERY_TYPE_TIMESTAMP;

class D3D12PoolTest : public Direct3D12Test {
protected:
    static auto MakeBuffers(D3D12_HEAP_TYPE type = kUpload) {
        return Device()->CreateBufferPool(type);
    }
    static auto MakeTextures(unsigned arraySize = 1) {
        return D12Texture2DPool::Create(Device(),
                                        {.width = 64,
                                         .height = 32,
                                         .arraySize = static_cast<std::uint16_t>(arraySize),
                                         .format = kColor,
                                         .clearColor = {}});
    }
};

// Further handles count once, and out of use is what nobody holds.
TEST_F(D3D12PoolTest, StatisticsTellWhatIsInUseAndWhatIsIdle) {
    const auto tell = [](const PoolStatistics& pool) {
        return std::array<std::uint64_t, 4>{pool.inUse, pool.idle, pool.bytesInUse, pool.bytesIdle};
    };
    using Numbers = decltype(tell({}));
    const auto buffers = MakeBuffers();
    auto buffer = buffers->CreateBuffer(100);
    auto other = buffers->CreateBuffer(1000);
    Ptr<D12Buffer> further(new D12Buffer(*buffer));
    buffer.reset();
    EXPECT_EQ(tell(buffers->GetStatistics()), (Numbers{2, 0, 128 + 1024, 0}));
    further.reset();
    EXPECT_EQ(tell(buffers->GetStatistics()), (Numbers{1, 1, 1024, 128}));
    EXPECT_THROW(buffers->CreateBuffer(0), DirectX12Exception);
    for (const unsigned slices : {1U, 4U}) {
        const auto textures = MakeTextures(slices);
        const auto texture = textures->ObtainTexture();
        textures->ObtainTexture();
        const unsigned idle = slices == 1 ? 1 : 3;
        const std::uint64_t bytes = textures->GetStatistics().bytesInUse;
        EXPECT_GE(bytes, 64U * 32 * 4);
        EXPECT_EQ(tell(textures->GetStatistics()), (Numbers{1, idle, bytes, bytes * idle}));
    }
    const auto expect = [&, before = Device()->GetStatistics()](std::size_t used) {
        const D12DeviceStatistics now = Device()->GetStatistics();
        EXPECT_EQ(now.commandAllocators.inUse, before.commandAllocators.inUse + used);
        EXPECT_EQ(now.commandLists.inUse, before.commandLists.inUse + 2 * used);
        EXPECT_EQ(now.descriptorHeaps.inUse, before.descriptorHeaps.inUse + 2 * used);
        EXPECT_EQ(now.uploadBuffers.bytesInUse, before.uploadBuffers.bytesInUse + 128 * used);
        EXPECT_GE(now.references, before.references + used);
        return now;
    };
    {
        const Ptr<D12CommandQueue> queue(new D12CommandQueue(Device(), {}));
        const auto allocator = queue->CreateCommandAllocator();
        for (int i = 0; i < 2; ++i) {
            allocator->CreateCommandList(nullptr)->Close();
        }
        const std::array heaps = {Device()->CreateSamplerHeap(1), Device()->CreateSamplerHeap(1)};
        const auto upload = Device()->CreateUploadBuffer(100);
        expect(1);
    }
    EXPECT_GE(expect(0).commandLists.idle, 2U);

    const auto adapter =
        Platform::Query<IDXGIAdapter3>(DXGIFactory::Create()->GetPrimaryAdapter().Get());
    HRESULT result = S_OK;
    const MethodPatch<&IDXGIAdapter3::QueryVideoMemoryInfo> memory(
        adapter, [&](auto, auto*, UINT, auto group, auto* info) {
            *info = {group == DXGI_MEMORY_SEGMENT_GROUP_LOCAL ? 1000U : 2000U, 3, 2, 1};
            return result;
        });
    const auto expectMemory = [&](const DeviceStatistics& statistics) {
        EXPECT_EQ(statistics.localMemory.value().budget, 1000U);
        EXPECT_EQ(statistics.systemMemory.value().usage, 3U);
    };
    expectMemory(Device()->GetStatistics());
    expectMemory(D11Device::CreatePrimary()->GetStatistics());
    result = E_FAIL;
    EXPECT_FALSE(Device()->GetStatistics().localMemory.has_value());
}

TEST_F(D3D12PoolTest, HeapsAreReplacedWhenFullAndTheSmallestThatDoIsRecycled) {
    const Ptr<D12QueryHeapPool> pool(new D12QueryHeapPool(Raw()));
    const auto take = [&] { return pool->CreateQuery(kTime); };
    const auto makeHeap = [&](unsigned count) {
        return pool->CreateHeap(D3D12_QUERY_HEAP_TYPE_TIMESTAMP, count);
    };
    auto queries = ExpectLowestFirst(64, take, [](const auto& query) { return query->GetIndex(); });
    ID3D12QueryHeap* const first = queries[0]->GetHeap()->GetHeap();
    EXPECT_NE(take()->GetHeap()->GetHeap().p, first);
    queries[5].reset(); // its heap is no longer the shared one
    EXPECT_EQ(take()->GetIndex(), 0u);
    queries.clear();
    EXPECT_EQ(pool->CountFreeHeaps(), 1u);
    auto many = makeHeap(129);
    ID3D12QueryHeap* const manyHeap = many->GetHeap();
    many.reset();
    const auto most = makeHeap(193)->GetHeap();
    EXPECT_TRUE(most != manyHeap && most != first);
    const auto few = makeHeap(10);
    EXPECT_EQ(few->GetHeap().p, first);
    EXPECT_EQ(few->GetCount(), 10u);
    NORVEX_REFUSED("Invalid heap type", few->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION));
    NORVEX_REFUSED("Invalid query type", take()->GetPipelineStats());
    NORVEX_REFUSED("Invalid query type", pool->CreateQuery(static_cast<D3D12_QUERY_TYPE>(9)));
}

// The first tick finds the list empty, so the timer has to start anew. From then on something is
// returned all the time, which neither stops it nor makes what came before live longer. What a
// frame with much in it leaves goes within two ticks, on a busy machine later.
TEST_F(D3D12PoolTest, WhatIsNotUsedForTwoSecondsIsFreed) {
    using Clock = std::chrono::steady_clock;
    const auto buffers = MakeBuffers();
    std::vector<Ptr<D12Buffer>> used(12);
    std::ranges::generate(used, [&] { return buffers->CreateBuffer(100); });
    buffers->CreateBuffer(100);
    std::this_thread::sleep_for(2200ms);
    const LifeProbe first(used.back()->GetResource());
    const auto start = Clock::now();
    while (!used.empty() && first.IsAlive()) {
        used.pop_back();
        std::this_thread::sleep_for(400ms);
    }
    EXPECT_FALSE(first.IsAlive());
    EXPECT_GT(Clock::now() - start, 1950ms);
    const auto textures = MakeTextures();
    std::vector<Ptr<D12Texture2D>> drawn(200);
    used.resize(2000);
    std::ranges::generate(used, [&] { return buffers->CreateBuffer(100); });
    std::ranges::generate(drawn, [&] { return textures->ObtainTexture(); });
    used.clear();
    drawn.clear();
    const auto free = [&] { return buffers->CountFree().first + textures->GetStatistics().idle; };
    EXPECT_GE(free(), 2200U);
    const auto burst = Clock::now();
    while (free() > 0 && Clock::now() - burst < 30s) {
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_EQ(free(), 0U);
}

TEST_F(D3D12PoolTest, BuffersArePowersOfTwoAndAreKeptUntilCleared) {
    for (const auto& [requested, rounded] :
         {std::pair(1u, 2u), std::pair(255u, 256u), std::pair(256u, 512u)}) {
        const auto pool = MakeBuffers(D3D12_HEAP_TYPE_DEFAULT);
        const LifeProbe probe(pool->CreateBuffer(requested)->GetResource());
        pool->CreateBuffer(requested);
        EXPECT_EQ(pool->CountFree(), std::pair(std::size_t{1}, std::uint64_t{rounded}));
        pool->Clear();
        EXPECT_FALSE(probe.IsAlive());
    }
    NORVEX_REFUSED("Buffer size requested equal to zero", MakeBuffers()->CreateBuffer(0));
    NORVEX_REFUSED("Buffer size requested is too large", MakeBuffers()->CreateBuffer(1ull << 63));
}

TEST_F(D3D12PoolTest, BuffersAreReadOrWritten) {
    const auto upload = MakeBuffers()->CreateBuffer(64);
    const auto readback = MakeBuffers(kReadback)->CreateBuffer(64);
    const CallCount<&ID3D12Resource::Unmap> unmapped(upload->GetResource());
    upload->Write(16, 48, [](auto* data) { data[16] = 5; });
    upload->Write(16, 48, [](auto* data) { EXPECT_EQ(data[16], 5) << "not what lies at 16"; });
    EXPECT_THROW(readback->Read(16, 48, nullptr), std::bad_function_call);
    EXPECT_EQ(unmapped.Get(), 3);
    NORVEX_REFUSED("This buffer is not readable", upload->Read(0, 16, nullptr));
    NORVEX_REFUSED("This buffer is not writeable", readback->Write(0, 16, nullptr));
}

TEST_F(D3D12PoolTest, SlicesOfOneTextureKeepIt) {
    for (const unsigned count : {4u, 63u, 64u, 65u, 130u}) {
        auto pool = MakeTextures(count);
        auto slices = ExpectLowestFirst(
            count, [&] { return pool->ObtainTexture(); },
            [](const auto& slice) { return slice->GetSubresource(); });
        NORVEX_REFUSED("There are no free textures in the array", pool->ObtainTexture());
        const LifeProbe probe(slices[0]->GetResource());
        slices.resize(1);
        pool.reset();
        EXPECT_TRUE(probe.IsAlive());
    }
}

} // namespace
} // namespace Norvex::DX
