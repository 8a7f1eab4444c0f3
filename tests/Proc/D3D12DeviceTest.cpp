#include "Proc/DirectX/Manager/D3D12Device.h"

#include <algorithm>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/FakeObject.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::ExpectFailure12;
using Norvex::Test::MethodPatch;
using Norvex::Test::SentenceOf;

using CheckFeatureSupport = MethodPatch<&ID3D12Device::CheckFeatureSupport>;
constexpr auto kDirect = D3D12_COMMAND_LIST_TYPE_DIRECT;

class D3D12DeviceTest : public Norvex::Test::DeviceTest {};

TEST_F(D3D12DeviceTest, CapabilitiesAreProbedDownwards) {
    HRESULT levels = DXGI_ERROR_UNSUPPORTED;
    D3D_FEATURE_LEVEL highest = {};
    unsigned refused = 0;
    std::vector<D3D_ROOT_SIGNATURE_VERSION> asked;
    const Norvex::Test::FailingMethod<&ID3D12Device::GetDeviceRemovedReason> removed(Raw(), E_FAIL);
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
    EXPECT_TRUE(s_device->CheckFormatSupport(DXGI_FORMAT_R8G8B8A8_UNORM)
                    .first.has(D3D12_FORMAT_SUPPORT1_RENDER_TARGET));
    EXPECT_EQ(s_device->GetFormatPlaneCount(DXGI_FORMAT_R8G8B8A8_UNORM), 1u);
    const CheckFeatureSupport patch(Raw(), [](auto...) { return E_INVALIDARG; });
    EXPECT_TRUE(s_device->CheckFormatSupport(DXGI_FORMAT_NV12).first.empty());
    EXPECT_EQ(s_device->GetFormatPlaneCount(DXGI_FORMAT_NV12), std::nullopt);
}

TEST_F(D3D12DeviceTest, BuffersAndHandlesAreChecked) {
    constexpr auto kUploadType = D3D12_HEAP_TYPE_UPLOAD;
    constexpr auto kReadbackType = D3D12_HEAP_TYPE_READBACK;
    const std::uint8_t data[16] = {1, 2, 3};
    const auto refuse = [](const D12BufferDesc& desc, const char* sentence, long result = E_FAIL) {
        ExpectFailure12([&] { s_device->CreateBuffer(desc); }, sentence, "CreateBuffer", result);
    };
    refuse({.heapType = kUploadType, .size = 16}, "Invalid initial state");
    refuse({.heapType = kReadbackType, .size = 16}, "Invalid initial state");
    D12BufferDesc desc = {.heapType = kReadbackType, .size = 16};
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    desc.initialData = data;
    refuse(desc, "Invalid heap type");
    refuse({.size = 0}, "Failed to create buffer", E_INVALIDARG);
    refuse({.size = 1ull << 44}, "Failed to create buffer", E_OUTOFMEMORY);
    desc.heapType = kUploadType;
    desc.initialState = D3D12_RESOURCE_STATE_GENERIC_READ;
    EXPECT_NE(s_device->CreateBuffer(desc), nullptr);
    ExpectFailure12([&] { s_device->CreateSharedHandle(nullptr); }, "Failed to create shared handle",
                    "CreateSharedHandle", E_INVALIDARG);
}

TEST_F(D3D12DeviceTest, FootprintsAreLimitedToTheSubresourcesOfDirect3D) {
    const auto desc = CD3DX12_RESOURCE_DESC::Tex2D(DXGI_FORMAT_R8G8B8A8_UNORM, 70, 3, 2, 1);
    std::vector<D12PlacedSubResourceFootprint> footprints(5);
    std::uint64_t total = 0;
    s_device->GetCopyableFootprints(desc, 0, 2, 512, footprints, total);
    ASSERT_EQ(footprints.size(), 2u);
    EXPECT_EQ(footprints[0].Offset, 512u);
    EXPECT_EQ(footprints[0].Footprint.RowPitch, 512u);
    EXPECT_EQ(footprints[1].NumRows, 3u);
    EXPECT_EQ(footprints[1].RowSizeInBytes, 280u);
    s_device->GetCopyableFootprints(desc, 0, 0, 0, footprints, total);
    EXPECT_TRUE(footprints.empty());
    constexpr unsigned kLast = D3D12_REQ_SUBRESOURCES - 1;
    const auto ask = [&](unsigned first, unsigned count) {
        return SentenceOf(
            [&] { s_device->GetCopyableFootprints(desc, first, count, 0, footprints, total); });
    };
    EXPECT_EQ(ask(kLast, 1), "(nothing)");
    EXPECT_EQ(ask(kLast, 2), "Subresource index out of range");
    EXPECT_EQ(ask(kLast + 1, 0), "Subresource index out of range");
    EXPECT_EQ(ask(1, ~0u), "Subresource index out of range");
}

TEST_F(D3D12DeviceTest, ListsAndAllocatorsAreReusedLastInFirstOut) {
    const auto device = D12Device::CreatePrimary();
    D12AllocatorState first = device->CreateCommandAllocator(kDirect);
    D12AllocatorState second = device->CreateCommandAllocator(kDirect);
    ID3D12CommandAllocator* const firstRaw = first.Get();
    ID3D12CommandAllocator* const secondRaw = second.Get();
    device->ReuseCommandAllocator(kDirect, std::move(first));
    device->ReuseCommandAllocator(kDirect, std::move(second));
    EXPECT_EQ(device->GetPoolSizes().commandAllocators, 2u);
    const D12AllocatorState reused = device->CreateCommandAllocator(kDirect);
    EXPECT_EQ(reused.Get(), secondRaw);
    EXPECT_EQ(device->CreateCommandAllocator(kDirect).Get(), firstRaw);

    const CComPtr<ID3D12CommandAllocator> allocator(reused.Get());
    auto list = device->CreateCommandList(kDirect, allocator, nullptr);
    ID3D12GraphicsCommandList* const raw = list;
    ASSERT_EQ(list->Close(), S_OK);
    device->ReuseCommandList(CComPtr<ID3D12CommandList>(list.p));
    list.Release();
    const auto again = device->CreateCommandList(kDirect, allocator, nullptr);
    EXPECT_EQ(again.p, raw);
    EXPECT_EQ(again->Close(), S_OK) << "it was open for recording";
    device->ReuseCommandList(CComPtr<ID3D12CommandList>(again.p));
    EXPECT_EQ(device->CreateClosedCommandList(kDirect, __uuidof(ID3D12GraphicsCommandList)).p, raw);

    // A new one, of any type; this system has none, so that the answer is the test's.
    Norvex::Test::FakeObject made;
    HRESULT answer = S_OK;
    CComPtr<ID3D12Device4> device4;
    ASSERT_EQ(device->Get()->QueryInterface(IID_PPV_ARGS(&device4)), S_OK);
    const MethodPatch<&ID3D12Device4::CreateCommandList1> patch(
        device4, [&](auto, auto, UINT nodes, auto type, auto flags, REFIID riid, void** out) {
            EXPECT_EQ(nodes, 0u);
            EXPECT_EQ(type, D3D12_COMMAND_LIST_TYPE_VIDEO_DECODE);
            EXPECT_EQ(flags, D3D12_COMMAND_LIST_FLAG_NONE);
            EXPECT_EQ(riid, __uuidof(ID3D12CommandList));
            return SUCCEEDED(answer) ? made.GiveTo(out) : answer;
        });
    const auto makeClosed = [&] {
        return device->CreateClosedCommandList(D3D12_COMMAND_LIST_TYPE_VIDEO_DECODE,
                                               __uuidof(ID3D12CommandList));
    };
    EXPECT_EQ(makeClosed().p, made.As<ID3D12CommandList>());
    answer = E_NOTIMPL;
    ExpectFailure12(makeClosed, "Failed to create command list",
                                  "CreateClosedCommandList", E_NOTIMPL);
    EXPECT_EQ(SentenceOf([&] {
                  device->CreateCommandList(D3D12_COMMAND_LIST_TYPE_VIDEO_DECODE, allocator,
                                            nullptr);
              }),
              "Unsupported command list type: 4");

    EXPECT_EQ(device->GetPoolSizes().buffers, 0u);
    device->CreateUploadBuffer(100);
    device->CreateReadbackBuffer(1000);
    device->CreateShaderViewHeap(1);
    std::vector<boost::intrusive_ptr<D12Query>> queries; // two heaps, one of them the shared one
    for (int i = 0; i < 65; ++i) {
        queries.push_back(device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP));
    }
    queries.clear();
    const D12PoolSizes sizes = device->GetPoolSizes();
    EXPECT_EQ(sizes.commandAllocators + sizes.commandLists, 0u);
    EXPECT_EQ(sizes.descriptorHeaps, 1u);
    EXPECT_EQ(sizes.queryHeaps, 1u);
    EXPECT_EQ(sizes.buffers, 2u);
    EXPECT_EQ(sizes.bufferBytes, 128u + 1024u);
}

// After a time of much work at once a pool keeps what steady work needs, and that makes nothing
// new.
TEST_F(D3D12DeviceTest, PoolsShrink) {
    const auto device = D12Device::CreatePrimary();
    const auto use = [&](int count) {
        std::vector<D12AllocatorState> states;
        for (int i = 0; i < count; ++i) {
            states.push_back(device->CreateCommandAllocator(kDirect));
        }
        for (auto& state : states) {
            device->ReuseCommandAllocator(kDirect, std::move(state));
        }
    };
    use(40);
    EXPECT_EQ(device->GetPoolSizes().commandAllocators, 40u);
    int made = 0;
    const MethodPatch<&ID3D12Device::CreateCommandAllocator>
        patch(device->Get(), [&](auto original, auto... arguments) {
            ++made;
            return original(arguments...);
        });
    for (int i = 0; i < 200; ++i) {
        use(3);
    }
    EXPECT_EQ(device->GetPoolSizes().commandAllocators, 3u);
    EXPECT_EQ(made, 0);
}

} // namespace
} // namespace Norvex::DX
