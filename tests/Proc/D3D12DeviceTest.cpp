#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

class D3D12DeviceTest : public DeviceTest {};

TEST_F(D3D12DeviceTest, CapabilitiesAreProbedDownwardsAndFormatQuestionsDoNotThrow) {
    HRESULT answer = DXGI_ERROR_UNSUPPORTED;
    int newest = D3D_ROOT_SIGNATURE_VERSION_1_2;
    const auto ask = [&](auto, auto*, auto feature, void* data, UINT) -> HRESULT {
        if (feature == D3D12_FEATURE_FEATURE_LEVELS) {
            auto& levels = *static_cast<D3D12_FEATURE_DATA_FEATURE_LEVELS*>(data);
            levels.MaxSupportedFeatureLevel = levels.pFeatureLevelsRequested[0];
            return answer;
        }
        const auto version = static_cast<D3D12_FEATURE_DATA_ROOT_SIGNATURE*>(data)->HighestVersion;
        return feature == D3D12_FEATURE_ROOT_SIGNATURE && version <= newest ? S_OK : E_INVALIDARG;
    };
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> removed(Raw(), E_FAIL);
    const MethodPatch<&ID3D12Device::CheckFeatureSupport> patch(Raw(), ask);
    EXPECT_EQ(D12Device::CreatePrimary()->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_1);
    answer = S_OK;
    EXPECT_EQ(D12Device::CreatePrimary()->GetLevelName(), "12.2");
    for (; newest >= 0; --newest) {
        EXPECT_EQ(D12Device::CreatePrimary()->GetRootSignatureVersion(), std::max(newest, 1));
    }
    answer = E_ACCESSDENIED;
    ExpectFailure12([] { D12Device::CreatePrimary(); },
                    "Failed to check feature level for D3D12 device", "GetMaxSupportedFeatureLevel",
                    E_ACCESSDENIED);
    EXPECT_TRUE(s_device->CheckFormatSupport(kColor).first.empty());
    EXPECT_EQ(s_device->GetFormatPlaneCount(kColor), std::nullopt);
}

TEST_F(D3D12DeviceTest, BuffersAndFootprintsAreChecked) {
    const std::uint8_t data[16] = {1, 2, 3};
    const auto refuse = [](const D12BufferDesc& desc, const char* sentence, long result = E_FAIL) {
        ExpectFailure12([&] { s_device->CreateBuffer(desc); }, sentence, "CreateBuffer", result);
    };
    refuse({.heapType = kUpload, .size = 16}, "Invalid initial state");
    refuse({.heapType = kReadback, .size = 16}, "Invalid initial state");
    refuse({.heapType = kReadback, .size = 16, .initialState = kCopyTo, .initialData = data},
           "Invalid heap type");
    refuse({.size = 0}, "Failed to create buffer", E_INVALIDARG);

    const auto desc = CD3DX12_RESOURCE_DESC::Tex2D(kColor, 70, 3, 2, 1);
    std::vector<D12PlacedSubResourceFootprint> footprints(5);
    std::uint64_t total = 0;
    const auto ask = [&](unsigned first, unsigned count) {
        return SentenceOf(
            [&] { s_device->GetCopyableFootprints(desc, first, count, 512, footprints, total); });
    };
    constexpr unsigned kLast = D3D12_REQ_SUBRESOURCES - 1;
    EXPECT_EQ(ask(kLast, 1), "(nothing)");
    EXPECT_EQ(ask(kLast, 2), "Subresource index out of range");
    EXPECT_EQ(ask(1, ~0u), "Subresource index out of range");
    EXPECT_EQ(ask(0, 2), "(nothing)");
    ASSERT_EQ(footprints.size(), 2u);
    EXPECT_EQ(footprints[0].Offset, 512u);
    EXPECT_EQ(footprints[1].RowSizeInBytes, 280u);
}

TEST_F(D3D12DeviceTest, WhatNotEverySystemSharesIsTold) {
    ExpectFailure12By<&ID3D12Device::CreateSharedHandle>(
        Raw(), [] { D12CompletionEvent(Raw(), D3D12_FENCE_FLAG_SHARED); },
        "Failed to share d3d12 fence", "D12CompletionEvent");
    ExpectFailure12By<&ID3D12Device::CreateSharedHandle>(
        Raw(), [] { s_device->CreateSharedHandle(s_device->CreateBuffer({.size = 1})); },
        "Failed to create shared handle", "CreateSharedHandle", E_INVALIDARG);
}

TEST_F(D3D12DeviceTest, ListsAndAllocatorsAreReused) {
    const auto device = D12Device::CreatePrimary();
    D12AllocatorState state = device->CreateCommandAllocator(kDirect);
    const CComPtr<ID3D12CommandAllocator> allocator(state.Get());
    device->ReuseCommandAllocator(kDirect, std::move(state));
    state = device->CreateCommandAllocator(kDirect);
    EXPECT_EQ(state.Get(), allocator);

    const auto makeList = [&](auto type) { return device->CreateCommandList(type, allocator, {}); };
    const auto list = makeList(kDirect);
    const auto reuse = [&] {
        ASSERT_EQ(list->Close(), S_OK);
        device->ReuseCommandList(CComPtr<ID3D12CommandList>(list.p));
    };
    reuse();
    EXPECT_EQ(makeList(kDirect).p, list.p);
    reuse(); // it was open for recording
    ExpectFailure12By<&ID3D12GraphicsCommandList::Reset>(
        list, [&] { makeList(kDirect); }, "Failed to reset command list", "CreateCommandList");
    device->ReuseCommandList(CComPtr<ID3D12CommandList>(list.p));
    EXPECT_EQ(device->CreateClosedCommandList(kDirect, __uuidof(ID3D12CommandList)).p, list.p);
    ExpectFailure12([&] { makeList(D3D12_COMMAND_LIST_TYPE_VIDEO_DECODE); },
                    "Unsupported command list type: 4", "CreateCommandList");
}

// After a time of much work at once a pool keeps what steady work needs, and that makes nothing
// new.
TEST_F(D3D12DeviceTest, PoolsShrinkAndCount) {
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
    EXPECT_EQ(made.Get(), 0);
    s_device->CreateUploadBuffer(100);
    s_device->CreateReadbackBuffer(1000);
    s_device->CreateShaderViewHeap(1);
    std::vector<Ptr<D12Query>> queries(65); // two heaps, one of them the shared one
    std::ranges::generate(queries,
                          [&] { return s_device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP); });
    queries.clear();
    const auto& [allocators, lists, heaps, buffers, bytes, queryHeaps] = s_device->GetPoolSizes();
    EXPECT_THAT((std::vector<std::uint64_t>{allocators, lists, heaps, buffers, bytes, queryHeaps}),
                ElementsAre(3, 0, 1, 2, 128 + 1024, 1));
}

} // namespace
} // namespace Norvex::DX
