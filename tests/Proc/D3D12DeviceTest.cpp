#include "Proc/DirectX/Manager/D3D12Device.h"

#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::MethodPatch;
using Norvex::Test::SentenceOf;
using Norvex::Test::ThrownBy;
namespace Slot = Norvex::Test::Slot;

using CheckFeatureSupport = MethodPatch<Slot::kDeviceCheckFeatureSupport,
                                        HRESULT(ID3D12Device*, D3D12_FEATURE, void*, UINT)>;
using GetDeviceRemovedReason =
    MethodPatch<Slot::kDeviceGetDeviceRemovedReason, HRESULT(ID3D12Device*)>;

TEST(D3D12DeviceTest, CapabilitiesAreProbedDownwards) {
    HRESULT levels = DXGI_ERROR_UNSUPPORTED;
    int versionsRefused = 0;
    const auto template12 = D12Device::CreatePrimary();
    const GetDeviceRemovedReason removed(template12->Get(),
                                         [](auto, ID3D12Device*) { return E_FAIL; });
    const CheckFeatureSupport patch(
        template12->Get(),
        [&](auto original, ID3D12Device* self, D3D12_FEATURE feature, void* data, UINT size) {
            if (feature == D3D12_FEATURE_FEATURE_LEVELS) {
                return levels;
            }
            if (feature == D3D12_FEATURE_ROOT_SIGNATURE && versionsRefused > 0) {
                --versionsRefused;
                return E_INVALIDARG;
            }
            return original(self, feature, data, size);
        });
    EXPECT_EQ(D12Device::CreatePrimary()->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_1);
    versionsRefused = 2;
    EXPECT_EQ(D12Device::CreatePrimary()->GetRootSignatureVersion(),
              D3D_ROOT_SIGNATURE_VERSION_1_0);
    versionsRefused = 3;
    EXPECT_EQ(D12Device::CreatePrimary()->GetRootSignatureVersion(),
              D3D_ROOT_SIGNATURE_VERSION_1_0);

    levels = E_ACCESSDENIED;
    const auto failure = ThrownBy([] { D12Device::CreatePrimary(); });
    EXPECT_EQ(failure.sentence, "Failed to check feature level for D3D12 device");
    EXPECT_EQ(failure.result, E_ACCESSDENIED);
}

TEST(D3D12DeviceTest, FormatQuestionsDoNotThrow) {
    const auto device = D12Device::CreatePrimary();
    EXPECT_EQ(device->GetLevelName(), "11.1");
    EXPECT_TRUE(device->CheckFormatSupport(DXGI_FORMAT_R8G8B8A8_UNORM)
                    .first.has(D3D12_FORMAT_SUPPORT1_RENDER_TARGET));
    EXPECT_EQ(device->GetFormatPlaneCount(DXGI_FORMAT_R8G8B8A8_UNORM), 1u);
    const CheckFeatureSupport patch(device->Get(), [](auto, ID3D12Device*, D3D12_FEATURE, void*,
                                                      UINT) { return E_INVALIDARG; });
    EXPECT_TRUE(device->CheckFormatSupport(DXGI_FORMAT_NV12).first.empty());
    EXPECT_EQ(device->GetFormatPlaneCount(DXGI_FORMAT_NV12), std::nullopt);
}

TEST(D3D12DeviceTest, BuffersCheckStateAndHeap) {
    const auto device = D12Device::CreatePrimary();
    const std::uint8_t data[16] = {1, 2, 3};
    const auto make = [&](D3D12_HEAP_TYPE heap, D3D12_RESOURCE_STATES state,
                          const std::uint8_t* initialData) {
        D12BufferDesc desc;
        desc.heapType = heap;
        desc.size = sizeof(data);
        desc.initialState = state;
        desc.initialData = initialData;
        return SentenceOf([&] { device->CreateBuffer(desc); });
    };
    EXPECT_EQ(make(D3D12_HEAP_TYPE_UPLOAD, D3D12_RESOURCE_STATE_COMMON, nullptr),
              "Invalid initial state");
    EXPECT_EQ(make(D3D12_HEAP_TYPE_READBACK, D3D12_RESOURCE_STATE_COMMON, nullptr),
              "Invalid initial state");
    EXPECT_EQ(make(D3D12_HEAP_TYPE_DEFAULT, D3D12_RESOURCE_STATE_COMMON, nullptr), "(nothing)");
    EXPECT_EQ(make(D3D12_HEAP_TYPE_READBACK, D3D12_RESOURCE_STATE_COPY_DEST, data),
              "Invalid heap type");
    EXPECT_EQ(make(D3D12_HEAP_TYPE_UPLOAD, D3D12_RESOURCE_STATE_GENERIC_READ, data), "(nothing)");

    D12BufferDesc huge;
    huge.size = 1ull << 44;
    const auto failure = ThrownBy([&] { device->CreateBuffer(huge); });
    EXPECT_EQ(failure.sentence, "Failed to create buffer");
    EXPECT_EQ(failure.result, E_OUTOFMEMORY);
}

TEST(D3D12DeviceTest, FootprintsAreLimitedToTheSubresourcesOfDirect3D) {
    const auto device = D12Device::CreatePrimary();
    const auto desc = CD3DX12_RESOURCE_DESC::Tex2D(DXGI_FORMAT_R8G8B8A8_UNORM, 70, 3, 2, 1);
    std::vector<D12PlacedSubResourceFootprint> footprints(5);
    std::uint64_t total = 0;
    device->GetCopyableFootprints(desc, 0, 2, 512, footprints, total);
    ASSERT_EQ(footprints.size(), 2u);
    EXPECT_EQ(footprints[0].Offset, 512u);
    EXPECT_EQ(footprints[0].Footprint.RowPitch, 512u);
    EXPECT_EQ(footprints[1].NumRows, 3u);
    EXPECT_EQ(footprints[1].RowSizeInBytes, 280u);
    device->GetCopyableFootprints(desc, 0, 0, 0, footprints, total);
    EXPECT_TRUE(footprints.empty());
    constexpr unsigned kLast = D3D12_REQ_SUBRESOURCES - 1;
    const auto ask = [&](unsigned first, unsigned count) {
        return SentenceOf(
            [&] { device->GetCopyableFootprints(desc, first, count, 0, footprints, total); });
    };
    EXPECT_EQ(ask(kLast, 1), "(nothing)");
    EXPECT_EQ(ask(kLast, 2), "Subresource index out of range");
    EXPECT_EQ(ask(kLast + 1, 0), "Subresource index out of range");
    EXPECT_EQ(ask(1, ~0u), "Subresource index out of range");
}

TEST(D3D12DeviceTest, ListsAndAllocatorsAreReusedLastInFirstOut) {
    constexpr auto kDirect = D3D12_COMMAND_LIST_TYPE_DIRECT;
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

    EXPECT_EQ(SentenceOf([&] {
                  device->CreateCommandList(D3D12_COMMAND_LIST_TYPE_VIDEO_DECODE, allocator,
                                            nullptr);
              }),
              "Unsupported command list type: 4");

    EXPECT_EQ(device->GetPoolSizes().buffers, 0u);
    device->CreateUploadBuffer(100);
    device->CreateReadbackBuffer(1000);
    device->CreateShaderViewHeap(1);
    const D12PoolSizes sizes = device->GetPoolSizes();
    EXPECT_EQ(sizes.commandAllocators, 0u);
    EXPECT_EQ(sizes.commandLists, 0u);
    EXPECT_EQ(sizes.descriptorHeaps, 1u);
    EXPECT_EQ(sizes.buffers, 2u);
    EXPECT_EQ(sizes.bufferBytes, 128u + 1024u);
}

} // namespace
} // namespace Norvex::DX
