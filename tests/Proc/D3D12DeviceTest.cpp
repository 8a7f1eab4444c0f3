#include <cstring>

#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/Proc/Direct3D12Fixture.h"
#include "tests/support/FakeObject.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

using CheckFeatureSupport = MethodPatch<&ID3D12Device::CheckFeatureSupport>;

class D3D12DeviceTest : public DeviceTest {};

TEST_F(D3D12DeviceTest, CapabilitiesAreProbedDownwards) {
    HRESULT levels = DXGI_ERROR_UNSUPPORTED;
    D3D_FEATURE_LEVEL highest = {};
    unsigned refused = 0;
    std::vector<D3D_ROOT_SIGNATURE_VERSION> asked;
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> removed(Raw(), E_FAIL);
    const CheckFeatureSupport patch(Raw(), [&](auto original, auto* self, auto feature, void* data,
                                               UINT size) {
        if (feature == D3D12_FEATURE_FEATURE_LEVELS) {
            auto& wanted = *static_cast<D3D12_FEATURE_DATA_FEATURE_LEVELS*>(data);
            highest = wanted.pFeatureLevelsRequested[0];
            wanted.MaxSupportedFeatureLevel = D3D_FEATURE_LEVEL_12_1;
            return levels;
        }
        if (feature == D3D12_FEATURE_ROOT_SIGNATURE) {
            asked.push_back(static_cast<D3D12_FEATURE_DATA_ROOT_SIGNATURE*>(data)->HighestVersion);
            return asked.size() <= refused ? E_INVALIDARG : S_OK;
        }
        return original(self, feature, data, size);
    });
    EXPECT_EQ(D12Device::CreatePrimary()->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_1);
    levels = S_OK;
    EXPECT_EQ(D12Device::CreatePrimary()->GetLevelName(), "12.1");
    EXPECT_EQ(highest, D3D_FEATURE_LEVEL_12_2);
    constexpr D3D_ROOT_SIGNATURE_VERSION kVersions[] = {D3D_ROOT_SIGNATURE_VERSION_1_2,
                                                        D3D_ROOT_SIGNATURE_VERSION_1_1,
                                                        D3D_ROOT_SIGNATURE_VERSION_1_0};
    for (refused = 0; refused <= 3; ++refused) {
        asked.clear();
        const auto device = D12Device::CreatePrimary();
        const unsigned last = std::min(refused, 2u);
        EXPECT_EQ(device->GetRootSignatureVersion(), kVersions[last]);
        EXPECT_THAT(asked, testing::ElementsAreArray(kVersions, last + 1));
    }
    levels = E_ACCESSDENIED;
    ExpectFailure12([] { D12Device::CreatePrimary(); },
                    "Failed to check feature level for D3D12 device", "GetMaxSupportedFeatureLevel",
                    E_ACCESSDENIED);
}

TEST_F(D3D12DeviceTest, FormatQuestionsDoNotThrow) {
    EXPECT_EQ(s_device->GetLevelName(), "11.1");
    EXPECT_TRUE(
        s_device->CheckFormatSupport(kColor).first.has(D3D12_FORMAT_SUPPORT1_RENDER_TARGET));
    EXPECT_EQ(s_device->GetFormatPlaneCount(kColor), 1u);
    const FailingMethod<&ID3D12Device::CheckFeatureSupport> patch(Raw(), E_INVALIDARG);
    EXPECT_TRUE(s_device->CheckFormatSupport(DXGI_FORMAT_NV12).first.empty());
    EXPECT_EQ(s_device->GetFormatPlaneCount(DXGI_FORMAT_NV12), std::nullopt);
}

TEST_F(D3D12DeviceTest, BuffersAndFootprintsAreChecked) {
    constexpr auto kReadable = D3D12_RESOURCE_STATE_GENERIC_READ;
    const std::uint8_t data[16] = {1, 2, 3};
    const auto refuse = [](const D12BufferDesc& desc, const char* sentence, long result = E_FAIL) {
        ExpectFailure12([&] { s_device->CreateBuffer(desc); }, sentence, "CreateBuffer", result);
    };
    refuse({.heapType = kUpload, .size = 16}, "Invalid initial state");
    refuse({.heapType = kReadback, .size = 16}, "Invalid initial state");
    refuse({.heapType = kReadback, .size = 16, .initialState = kCopyTo, .initialData = data},
           "Invalid heap type");
    refuse({.size = 0}, "Failed to create buffer", E_INVALIDARG);
    refuse({.size = 1ull << 44}, "Failed to create buffer", E_OUTOFMEMORY);
    const D12BufferDesc filled = {
        .heapType = kUpload, .size = 16, .initialState = kReadable, .initialData = data};
    const auto buffer = s_device->CreateBuffer(filled);
    void* mapped = nullptr;
    ASSERT_EQ(buffer->Map(0, nullptr, &mapped), S_OK);
    EXPECT_EQ(std::memcmp(mapped, data, sizeof(data)), 0);
    NORVEX_FAILS_BY(ID3D12Resource::Map, buffer, "Failed to map buffer",
                    s_device->CreateBuffer(filled));

    const auto desc = CD3DX12_RESOURCE_DESC::Tex2D(kColor, 70, 3, 2, 1);
    std::vector<D12PlacedSubResourceFootprint> footprints(5);
    std::uint64_t total = 0;
    const auto ask = [&](unsigned first, unsigned count) {
        return SentenceOf(
            [&] { s_device->GetCopyableFootprints(desc, first, count, 512, footprints, total); });
    };
    constexpr unsigned kLast = D3D12_REQ_SUBRESOURCES - 1;
    constexpr auto kOutOfRange = "Subresource index out of range";
    EXPECT_EQ(ask(kLast, 1), "(nothing)");
    EXPECT_EQ(ask(kLast, 2), kOutOfRange);
    EXPECT_EQ(ask(kLast + 1, 0), kOutOfRange);
    EXPECT_EQ(ask(1, ~0u), kOutOfRange);
    EXPECT_EQ(ask(0, 0), "(nothing)");
    EXPECT_TRUE(footprints.empty());
    EXPECT_EQ(ask(0, 2), "(nothing)");
    ASSERT_EQ(footprints.size(), 2u);
    EXPECT_EQ(footprints[0].Offset, 512u);
    EXPECT_EQ(footprints[0].Footprint.RowPitch, 512u);
    EXPECT_EQ(footprints[1].NumRows, 3u);
    EXPECT_EQ(footprints[1].RowSizeInBytes, 280u);
}

TEST_F(D3D12DeviceTest, EveryFailedCallIsToldAndTheNextWorks) {
    const CComPtr<ID3D12CommandAllocator> memory(s_device->CreateCommandAllocator(kDirect).Get());
    const auto pool = s_device->CreateBufferPool(kUpload);
    const Ptr<D12DescriptorHeapPool> views(new D12DescriptorHeapPool(Raw()));
    const Ptr<D12QueryHeapPool> queries(new D12QueryHeapPool(Raw()));
    NORVEX_FAILS_BY(ID3D12Device::CreateFence, Raw(), "Failed to create fence",
                    D12CompletionEvent(Raw(), D3D12_FENCE_FLAG_NONE));
    NORVEX_FAILS_BY(ID3D12Device::CreateCommandQueue, Raw(), "Failed to create command queue",
                    D12CommandQueue(s_device, {}));
    NORVEX_FAILS_BY(ID3D12Device::CreateCommandAllocator, Raw(),
                    "Failed to create command allocator", D12AllocatorState(Raw(), kDirect));
    NORVEX_FAILS_BY(ID3D12Device::CreateCommittedResource, Raw(), "Failed to create buffer",
                    s_device->CreateBuffer({.size = 1}));
    NORVEX_FAILS_BY(ID3D12Device::CreateCommittedResource, Raw(), "Failed to create 2D texture",
                    s_device->CreateTexture2D(MakeTextureDesc(8, 8)));
    NORVEX_FAILS_BY(ID3D12Device::CreateQueryHeap, Raw(), "Failed to create query heap",
                    queries->CreateHeap(D3D12_QUERY_HEAP_TYPE_OCCLUSION, 1));
    ExpectFails12<&ID3D12Device::CreateCommittedResource>(
        Raw(), "Failed to create buffer", "CreateDimensionBuffer", [&] { pool->CreateBuffer(1); });
    ExpectFails12<&ID3D12Device::CreateDescriptorHeap>(
        Raw(), "Failed to create descriptor heap", "CreateHeap",
        [&] { views->CreateGPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER, 1); });
    ExpectFails12<&ID3D12Device::CreateCommandList>(
        Raw(), "Failed to create command list", "CreateCommandList",
        [&] { s_device->CreateCommandList(kDirect, memory, nullptr)->Close(); });
    // Which not every system has.
    ExpectFailure12By<&ID3D12Device::CreateSharedHandle>(
        Raw(), [] { D12CompletionEvent(Raw(), D3D12_FENCE_FLAG_SHARED); },
        "Failed to share d3d12 fence", "D12CompletionEvent");
    for (ID3D12DeviceChild* object : {static_cast<ID3D12DeviceChild*>(memory), {}}) {
        ExpectFailure12By<&ID3D12Device::CreateSharedHandle>(
            Raw(), [&] { s_device->CreateSharedHandle(object); }, "Failed to create shared handle",
            "CreateSharedHandle", E_INVALIDARG);
    }
}

TEST_F(D3D12DeviceTest, ListsAndAllocatorsAreReusedLastInFirstOut) {
    const auto device = D12Device::CreatePrimary();
    D12AllocatorState first = device->CreateCommandAllocator(kDirect);
    D12AllocatorState second = device->CreateCommandAllocator(kDirect);
    ID3D12CommandAllocator* const raws[] = {first.Get(), second.Get()};
    device->ReuseCommandAllocator(kDirect, std::move(first));
    device->ReuseCommandAllocator(kDirect, std::move(second));
    EXPECT_EQ(device->GetPoolSizes().commandAllocators, 2u);
    const D12AllocatorState reused = device->CreateCommandAllocator(kDirect);
    EXPECT_EQ(reused.Get(), raws[1]);
    EXPECT_EQ(device->CreateCommandAllocator(kDirect).Get(), raws[0]);

    const CComPtr<ID3D12CommandAllocator> allocator(reused.Get());
    const auto makeList = [&](auto type) { return device->CreateCommandList(type, allocator, {}); };
    auto list = makeList(kDirect);
    ID3D12GraphicsCommandList* const raw = list;
    ASSERT_EQ(list->Close(), S_OK);
    device->ReuseCommandList(CComPtr<ID3D12CommandList>(list.p));
    list = makeList(kDirect);
    EXPECT_EQ(list.p, raw);
    EXPECT_EQ(list->Close(), S_OK) << "it was open for recording";
    device->ReuseCommandList(CComPtr<ID3D12CommandList>(list.p));
    {
        const FailingMethod<&ID3D12GraphicsCommandList::Reset> patch(list, E_ABORT);
        ExpectFailure12([&] { makeList(kDirect); }, "Failed to reset command list",
                        "CreateCommandList", E_ABORT);
    }
    device->ReuseCommandList(CComPtr<ID3D12CommandList>(list.p));
    EXPECT_EQ(device->CreateClosedCommandList(kDirect, __uuidof(ID3D12GraphicsCommandList)).p, raw);

    // A new one, of any type; this system has none, so that the answer is the test's.
    constexpr auto kVideo = D3D12_COMMAND_LIST_TYPE_VIDEO_DECODE;
    FakeObject made;
    HRESULT answer = S_OK;
    CComPtr<ID3D12Device4> device4;
    ASSERT_EQ(device->Get()->QueryInterface(IID_PPV_ARGS(&device4)), S_OK);
    const MethodPatch<&ID3D12Device4::CreateCommandList1> patch(
        device4, [&](auto, auto, UINT nodes, auto type, auto flags, REFIID riid, void** out) {
            EXPECT_EQ(nodes, 0u);
            EXPECT_EQ(type, kVideo);
            EXPECT_EQ(flags, D3D12_COMMAND_LIST_FLAG_NONE);
            EXPECT_EQ(riid, __uuidof(ID3D12CommandList));
            return SUCCEEDED(answer) ? made.GiveTo(out) : answer;
        });
    const auto makeClosed = [&] {
        return device->CreateClosedCommandList(kVideo, __uuidof(ID3D12CommandList));
    };
    EXPECT_EQ(makeClosed().p, made.As<ID3D12CommandList>());
    answer = E_NOTIMPL;
    ExpectFailure12(makeClosed, "Failed to create command list", "CreateClosedCommandList",
                    E_NOTIMPL);
    ExpectFailure12([&] { makeList(kVideo); }, "Unsupported command list type: 4",
                    "CreateCommandList");

    EXPECT_EQ(device->GetPoolSizes().buffers, 0u);
    device->CreateUploadBuffer(100);
    device->CreateReadbackBuffer(1000);
    device->CreateShaderViewHeap(1);
    std::vector<Ptr<D12Query>> queries(65); // two heaps, one of them the shared one
    std::ranges::generate(queries, [&] { return device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP); });
    queries.clear();
    const auto& [allocators, lists, heaps, buffers, bytes, queryHeaps] = device->GetPoolSizes();
    EXPECT_THAT((std::vector<std::uint64_t>{allocators, lists, heaps, buffers, bytes, queryHeaps}),
                ElementsAre(0, 0, 1, 2, 128 + 1024, 1));
}

// After a time of much work at once a pool keeps what steady work needs, and that makes nothing
// new.
TEST_F(D3D12DeviceTest, PoolsShrink) {
    const auto use = [&](int count) {
        std::vector<D12AllocatorState> states;
        for (int i = 0; i < count; ++i) {
            states.push_back(s_device->CreateCommandAllocator(kDirect));
        }
        for (auto& state : states) {
            s_device->ReuseCommandAllocator(kDirect, std::move(state));
        }
    };
    use(40);
    EXPECT_EQ(s_device->GetPoolSizes().commandAllocators, 40u);
    const CallCount<&ID3D12Device::CreateCommandAllocator> made(Raw());
    for (int i = 0; i < 200; ++i) {
        use(3);
    }
    EXPECT_EQ(s_device->GetPoolSizes().commandAllocators, 3u);
    EXPECT_EQ(made.Get(), 0);
}

} // namespace
} // namespace Norvex::DX
