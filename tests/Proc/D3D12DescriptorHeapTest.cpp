#include <functional>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/Proc/DescriptorHeapFixture.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::MethodPatch;
using Norvex::Test::SentenceOf;
namespace Slot = Norvex::Test::Slot;

constexpr D3D12_SAMPLER_DESC kSampler = {.Filter = D3D12_FILTER_MIN_MAG_MIP_LINEAR,
                                         .AddressU = D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         .AddressV = D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         .AddressW = D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         .MipLODBias = 0,
                                         .MaxAnisotropy = 1,
                                         .ComparisonFunc = D3D12_COMPARISON_FUNC_NEVER,
                                         .BorderColor = {},
                                         .MinLOD = 0,
                                         .MaxLOD = 0};

struct ViewKind {
    const char* words; // of the no-space sentence
    D3D12_DESCRIPTOR_HEAP_TYPE heapType;
    D12Descriptor::DescriptorType type;
    DXGI_FORMAT format;
    std::function<DescriptorPtr(CPUHeap&)> create;
};

TEST_F(D3D12DescriptorHeapTest, EveryKindOfViewTakesASlotOfItsHeap) {
    const ResourcePtr buffer = MakeBuffer(512, D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS);
    const ResourcePtr texture = MakeTexture();
    const ResourcePtr depth = MakeDepth();
    D3D12_UNORDERED_ACCESS_VIEW_DESC counted = {};
    counted.ViewDimension = D3D12_UAV_DIMENSION_BUFFER;
    counted.Buffer.NumElements = 16;
    counted.Buffer.StructureByteStride = 16;
    const ViewKind kinds[] = {
        {"a constant buffer view", kViews, D12Descriptor::ConstantBuffer, DXGI_FORMAT_UNKNOWN,
         [&](CPUHeap& heap) {
             return heap.CreateConstantBufferView(buffer, {buffer->GetGPUVirtualAddress(), 256});
         }},
        {"a shader resource view", kViews, D12Descriptor::ShaderResource,
         DXGI_FORMAT_R8G8B8A8_UNORM,
         [&](CPUHeap& heap) { return heap.CreateShaderResourceView(texture, std::nullopt); }},
        {"an unordered access view", kViews, D12Descriptor::UnorderedAccess, DXGI_FORMAT_UNKNOWN,
         [&](CPUHeap& heap) { return heap.CreateUnorderedAccessView(buffer, nullptr, counted); }},
        {"a sampler", kSamplers, D12Descriptor::Sampler, DXGI_FORMAT_UNKNOWN,
         [&](CPUHeap& heap) { return heap.CreateSampler(kSampler); }},
        {"a render target view", kRtv, D12Descriptor::RenderTarget, DXGI_FORMAT_R8G8B8A8_UNORM,
         [&](CPUHeap& heap) { return heap.CreateRenderTargetView(texture, std::nullopt); }},
        {"a depth stencil view", kDsv, D12Descriptor::DepthStencil, DXGI_FORMAT_D32_FLOAT,
         [&](CPUHeap& heap) { return heap.CreateDepthStencilView(depth, std::nullopt); }},
    };
    for (const auto& kind : kinds) {
        SCOPED_TRACE(kind.words);
        const auto wrongHeap = m_pool->CreateCPUHeap(kind.heapType == kRtv ? kDsv : kRtv, 1);
        EXPECT_EQ(SentenceOf([&] { kind.create(*wrongHeap); }), "Invalid heap type");

        const auto heap = m_pool->CreateCPUHeap(kind.heapType, 10);
        EXPECT_EQ(heap->NumDescriptors(), 64u);
        std::vector<DescriptorPtr> views;
        for (unsigned i = 0; i < heap->NumDescriptors(); ++i) {
            views.push_back(kind.create(*heap));
            EXPECT_EQ(views[i]->GetIndex(), i);
            EXPECT_EQ(views[i]->GetCPUHandle().ptr, heap->GetCPUHandle(i).ptr);
        }
        EXPECT_EQ(SentenceOf([&] { kind.create(*heap); }),
                  std::string("There is no free space in the heap to create ") + kind.words);
        views[41].reset();
        views[7].reset();
        EXPECT_EQ((views[7] = kind.create(*heap))->GetIndex(), 7u);
        EXPECT_EQ(views[7]->GetType(), kind.type);
        EXPECT_EQ(views[7]->GetFormat(), kind.format);
        EXPECT_EQ(views[7]->GetHeapType(), kind.heapType);
    }
}

TEST_F(D3D12DescriptorHeapTest, DescriptorTellsAndKeepsItsResources) {
    const auto views = m_pool->CreateCPUHeap(kViews, 4);
    ResourcePtr texture = MakeTexture();
    const Norvex::Test::LifeProbe probe(texture);
    D3D12_SHADER_RESOURCE_VIEW_DESC srgb = {};
    srgb.Format = DXGI_FORMAT_R8G8B8A8_UNORM_SRGB;
    srgb.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE2D;
    srgb.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
    srgb.Texture2D.MipLevels = 1;
    DescriptorPtr view = views->CreateShaderResourceView(texture, srgb);
    EXPECT_EQ(view->GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM_SRGB);
    EXPECT_EQ(view->GetRect(), (Rect2DT<long>{0, 0, 40, 30}));
    EXPECT_EQ(view->GetSize(), (Size2DT<long>{40, 30}));
    EXPECT_EQ(view->GetFirstResource(), texture);
    const auto barrier =
        view->Transition(D3D12_RESOURCE_STATE_COPY_DEST, D3D12_RESOURCE_STATE_RENDER_TARGET, 3,
                         D3D12_RESOURCE_BARRIER_FLAG_END_ONLY);
    EXPECT_EQ(barrier.Type, D3D12_RESOURCE_BARRIER_TYPE_TRANSITION);
    EXPECT_EQ(barrier.Flags, D3D12_RESOURCE_BARRIER_FLAG_END_ONLY);
    EXPECT_EQ(barrier.Transition.pResource, texture);
    EXPECT_EQ(barrier.Transition.Subresource, 3u);
    EXPECT_EQ(barrier.Transition.StateBefore, D3D12_RESOURCE_STATE_COPY_DEST);
    EXPECT_EQ(barrier.Transition.StateAfter, D3D12_RESOURCE_STATE_RENDER_TARGET);
    texture.Release();
    EXPECT_TRUE(probe.IsAlive());
    view.reset();
    EXPECT_FALSE(probe.IsAlive());

    const auto sampler = m_pool->CreateCPUHeap(kSamplers, 1)->CreateSampler(kSampler);
    EXPECT_TRUE(sampler->GetResources().empty());
    EXPECT_EQ(sampler->GetSize(), (Size2DT<long>{0, 0}));
    EXPECT_EQ(SentenceOf([&] { sampler->Transition({}, {}, 0, D3D12_RESOURCE_BARRIER_FLAG_NONE); }),
              "There are no resources available");
}

TEST_F(D3D12DescriptorHeapTest, CounterIsTheSecondResource) {
    const auto views = m_pool->CreateCPUHeap(kViews, 4);
    const ResourcePtr buffer = MakeBuffer(1024, D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS);
    const ResourcePtr counter = MakeBuffer(4096, D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS);
    const auto with =
        views->CreateBufferUnorderedAccessView(buffer, 16, D3D12_BUFFER_UAV_FLAG_NONE, 0, counter);
    EXPECT_THAT(with->GetResources(), testing::ElementsAre(buffer, counter));
    const auto without =
        views->CreateBufferUnorderedAccessView(buffer, 16, D3D12_BUFFER_UAV_FLAG_NONE, 0, nullptr);
    EXPECT_THAT(without->GetResources(), testing::ElementsAre(buffer));
}

TEST_F(D3D12DescriptorHeapTest, SlotIsFreedWithTheLastHandle) {
    const auto heap = m_pool->CreateCPUHeap(kSamplers, 1);
    DescriptorPtr original = heap->CreateSampler(kSampler);
    DescriptorPtr copy(new D12Descriptor(*original));
    DescriptorPtr copyOfCopy(new D12Descriptor(*copy));
    original.reset();
    copy.reset();
    EXPECT_EQ(heap->CreateSampler(kSampler)->GetIndex(), 1u);
    copyOfCopy.reset();
    EXPECT_EQ(heap->CreateSampler(kSampler)->GetIndex(), 0u);
}

TEST_F(D3D12DescriptorHeapTest, CapacityIsAMultipleOf64) {
    for (const auto& [count, capacity] :
         std::vector<std::pair<unsigned, unsigned>>{{1, 64}, {64, 64}, {65, 128}, {200, 256}}) {
        const auto heap = m_pool->CreateCPUHeap(kSamplers, count);
        EXPECT_EQ(heap->NumDescriptors(), capacity);
        EXPECT_EQ(heap->GetType(), kSamplers);
        EXPECT_EQ(SentenceOf([&] { heap->GetCPUHandle(capacity - 1); }), "(nothing)");
        EXPECT_EQ(SentenceOf([&] { heap->GetCPUHandle(capacity); }),
                  "Descriptor index out of range");
    }
}

TEST_F(D3D12DescriptorHeapTest, FailedCreationIsReported) {
    const MethodPatch<Slot::kDeviceCreateDescriptorHeap,
                      HRESULT(ID3D12Device*, const D3D12_DESCRIPTOR_HEAP_DESC*, REFIID, void**)>
        patch(Raw(), [](auto...) { return E_OUTOFMEMORY; });
    const auto thrown = Norvex::Test::ThrownBy([&] { m_pool->CreateCPUHeap(kRtv, 1); });
    EXPECT_EQ(thrown.sentence, "Failed to create descriptor heap");
    EXPECT_EQ(thrown.function, "CreateHeap");
    EXPECT_EQ(thrown.result, E_OUTOFMEMORY);
}

TEST_F(D3D12DescriptorHeapTest, RecyclesTheSmallestHeapThatIsLargeEnough) {
    const auto heapOf = [](const auto& wrapper) { return wrapper->GetHeap().p; };
    auto small = m_pool->CreateCPUHeap(kViews, 1);
    auto large = m_pool->CreateCPUHeap(kViews, 192);
    auto visible = m_pool->CreateGPUHeap(kViews, 1);
    ID3D12DescriptorHeap* const smallHeap = heapOf(small);
    ID3D12DescriptorHeap* const largeHeap = heapOf(large);
    ID3D12DescriptorHeap* const visibleHeap = heapOf(visible);
    large.reset();
    small.reset();
    visible.reset();

    EXPECT_NE(heapOf(m_pool->CreateCPUHeap(kSamplers, 10)), smallHeap); // another type
    const auto tooLarge = m_pool->CreateCPUHeap(kViews, 193);
    EXPECT_NE(heapOf(tooLarge), largeHeap);
    const auto first = m_pool->CreateCPUHeap(kViews, 64);
    EXPECT_EQ(heapOf(first), smallHeap);
    const auto second = m_pool->CreateCPUHeap(kViews, 64);
    EXPECT_EQ(heapOf(second), largeHeap);
    EXPECT_EQ(second->NumDescriptors(), 192u);
    EXPECT_EQ(heapOf(m_pool->CreateGPUHeap(kViews, 64)), visibleHeap);
}

TEST_F(D3D12DescriptorHeapTest, HeapLivesAsLongAsItsDescriptors) {
    auto heap = m_pool->CreateCPUHeap(kSamplers, 1);
    ID3D12DescriptorHeap* const raw = heap->GetHeap();
    DescriptorPtr sampler = heap->CreateSampler(kSampler);
    heap.reset();
    EXPECT_NE(m_pool->CreateCPUHeap(kSamplers, 1)->GetHeap(), raw);
    sampler.reset();
    const auto first = m_pool->CreateCPUHeap(kSamplers, 1);
    const auto second = m_pool->CreateCPUHeap(kSamplers, 1);
    EXPECT_TRUE(first->GetHeap() == raw || second->GetHeap() == raw);
}

TEST_F(D3D12DescriptorHeapTest, SharedHeapIsReplacedWhenFullAndRecycledLater) {
    const ResourcePtr texture = MakeTexture();
    std::vector<DescriptorPtr> views;
    views.reserve(64);
    for (int i = 0; i < 64; ++i) {
        views.push_back(i % 2 == 0 ? m_pool->CreateRenderTargetView(texture)
                                   : m_pool->CreateRenderTargetView(texture, std::nullopt));
    }
    EXPECT_EQ(views[63]->GetIndex(), 63u);
    const SIZE_T firstHeapStart = views[0]->GetCPUHandle().ptr;
    const DescriptorPtr next = m_pool->CreateRenderTargetView(texture);
    EXPECT_EQ(next->GetIndex(), 0u);
    EXPECT_NE(next->GetCPUHandle().ptr, firstHeapStart);
    EXPECT_EQ(m_pool->CreateTextureShaderResourceView(texture)->GetHeapType(), kViews);
    views[5].reset(); // its heap is no longer the shared one
    EXPECT_EQ(m_pool->CreateRenderTargetView(texture)->GetIndex(), 1u);
    views.clear();
    EXPECT_EQ(m_pool->CreateCPUHeap(kRtv, 64)->GetCPUHandle(0).ptr, firstHeapStart);
}

TEST_F(D3D12DescriptorHeapTest, NothingKeepsThePoolAlive) {
    const ResourcePtr texture = MakeTexture();
    const auto countReferences = [] {
        Raw()->AddRef();
        return Raw()->Release();
    };
    m_pool.reset();
    const ULONG before = countReferences();
    m_pool.reset(new D12DescriptorHeapPool(RawPtr()));
    std::vector<DescriptorPtr> views;
    views.reserve(65);
    for (int i = 0; i < 65; ++i) {
        views.push_back(m_pool->CreateRenderTargetView(texture));
    }
    auto heap = m_pool->CreateGPUHeap(kViews, 1);
    m_pool.reset();
    heap.reset();
    views.clear();
    EXPECT_EQ(countReferences(), before);
}

TEST_F(D3D12DescriptorHeapTest, OnlyViewsAndSamplersAreShaderVisible) {
    for (const auto type : {kRtv, kDsv}) {
        EXPECT_EQ(SentenceOf([&] { m_pool->CreateGPUHeap(type, 1); }),
                  "Invalid heap type for GPU descriptor heap");
    }
    for (const auto type : {kViews, kSamplers}) {
        const auto heap = m_pool->CreateGPUHeap(type, 10);
        EXPECT_EQ(heap->NumDescriptors(), 64u);
        EXPECT_EQ(heap->GetGPUHandle(3).ptr - heap->GetGPUHandle(0).ptr,
                  3u * Raw()->GetDescriptorHandleIncrementSize(type));
        EXPECT_EQ(SentenceOf([&] { heap->GetGPUHandle(64); }), "Descriptor index out of range");
    }
}

TEST_F(D3D12DescriptorHeapTest, CopyKeepsTheResourcesButNotTheSlot) {
    const auto source = m_pool->CreateCPUHeap(kViews, 1);
    const auto samplers = m_pool->CreateCPUHeap(kSamplers, 1);
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    ResourcePtr texture = MakeTexture();
    const Norvex::Test::LifeProbe probe(texture);
    DescriptorPtr view = source->CreateShaderResourceView(texture, std::nullopt);
    texture.Release();
    EXPECT_EQ(SentenceOf([&] { visible->CopyDescriptor(0, samplers->CreateSampler(kSampler)); }),
              "Descriptor heap types are different");
    EXPECT_EQ(SentenceOf([&] { visible->CopyDescriptor(64, view); }),
              "Descriptor index out of range");
    DescriptorPtr copy = visible->CopyDescriptor(63, view);
    view.reset();
    EXPECT_EQ(source->CreateConstantBufferView(MakeBuffer(256))->GetIndex(), 0u);
    EXPECT_TRUE(probe.IsAlive());
    EXPECT_EQ(copy->GetIndex(), 63u);
    EXPECT_EQ(copy->GetCPUHandle().ptr, visible->GetCPUHandle(63).ptr);
    EXPECT_EQ(copy->GetType(), D12Descriptor::ShaderResource);
    EXPECT_EQ(copy->GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM);
    copy.reset();
    EXPECT_FALSE(probe.IsAlive());
}

TEST_F(D3D12DescriptorHeapTest, ConstantBufferSizeIsCheckedFirst) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    const ResourcePtr buffer = MakeBuffer(512);
    const auto sizeSentence = "Constant Buffer View requires SizeInBytes be a multiple of 256";
    const auto address = buffer->GetGPUVirtualAddress();
    for (const unsigned size : {100u, 257u}) {
        EXPECT_EQ(SentenceOf([&] { targets->CreateConstantBufferView(buffer, {address, size}); }),
                  sizeSentence);
    }
    EXPECT_EQ(SentenceOf([&] { targets->CreateConstantBufferView(buffer, {address, 256}); }),
              "Invalid heap type");
    EXPECT_EQ(SentenceOf([&] { views->CreateConstantBufferView(MakeBuffer(300)); }), sizeSentence);
    EXPECT_EQ(SentenceOf([&] { views->CreateConstantBufferView(MakeTexture()); }),
              "Unsupported resource");

    D3D12_CONSTANT_BUFFER_VIEW_DESC desc = {};
    const MethodPatch<Slot::kDeviceCreateConstantBufferView,
                      void(ID3D12Device*, const D3D12_CONSTANT_BUFFER_VIEW_DESC*,
                           D3D12_CPU_DESCRIPTOR_HANDLE)>
        patch(Raw(), [&](auto original, auto device, auto given, auto handle) {
            desc = *given;
            original(device, given, handle);
        });
    views->CreateConstantBufferView(buffer);
    EXPECT_EQ(desc.BufferLocation, address);
    EXPECT_EQ(desc.SizeInBytes, 512u);
}

TEST_F(D3D12DescriptorHeapTest, ThreadsShareTheSharedHeaps) {
    const ResourcePtr texture = MakeTexture();
    std::vector<std::vector<DescriptorPtr>> views(4);
    std::vector<std::thread> threads;
    threads.reserve(views.size());
    for (auto& mine : views) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                mine.push_back(m_pool->CreateRenderTargetView(texture));
                m_pool->CreateTextureShaderResourceView(texture);
            }
        });
    }
    std::set<SIZE_T> handles;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        for (const auto& view : views[i]) {
            handles.insert(view->GetCPUHandle().ptr);
        }
    }
    EXPECT_EQ(handles.size(), 800u) << "two views in one slot";
}

TEST_F(D3D12DescriptorHeapTest, InputBuffersDescribeThemselves) {
    const ResourcePtr buffer = MakeBuffer(1024);
    const auto vertices = D12VertexBuffer::Create(buffer, 20, 6);
    EXPECT_EQ(vertices->GetView().BufferLocation, buffer->GetGPUVirtualAddress());
    EXPECT_EQ(vertices->GetView().SizeInBytes, 120u);
    EXPECT_EQ(vertices->GetStride(), 20u);
    EXPECT_EQ(vertices->GetCount(), 6u);
    const auto indices = D12IndexBuffer::Create(buffer, DXGI_FORMAT_R16_UINT, 6, 12);
    EXPECT_EQ(indices->GetView().BufferLocation, buffer->GetGPUVirtualAddress());
    EXPECT_EQ(indices->GetView().SizeInBytes, 12u);
    EXPECT_EQ(indices->GetFormat(), DXGI_FORMAT_R16_UINT);
    EXPECT_EQ(indices->GetCount(), 6u);
}

} // namespace
} // namespace Norvex::DX
