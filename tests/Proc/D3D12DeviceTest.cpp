#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

class D3D12DeviceTest : public DeviceTest {};

TEST_F(D3D12DeviceTest, CapabilitiesAreProbedDownwards) {
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
}

TEST_F(D3D12DeviceTest, BuffersAreChecked) {
    const std::uint8_t data[16] = {};
    const D12BufferDesc upload = {.heapType = kUpload, .size = 16};
    const D12BufferDesc readback = {.heapType = kReadback, .size = 16};
    const D12BufferDesc filled = {.size = 16, .initialData = data};
    NORVEX_REFUSED("Invalid initial state", s_device->CreateBuffer(upload));
    NORVEX_REFUSED("Invalid initial state", s_device->CreateBuffer(readback));
    NORVEX_REFUSED("Invalid heap type", s_device->CreateBuffer(filled));
}

// After a time of much work at once a pool keeps what steady work needs, and that makes nothing
// new.
TEST_F(D3D12DeviceTest, PoolsShrinkAndCount) {
    const auto use = [](std::size_t count) {
        std::vector<D12AllocatorState> states;
        while (states.size() < count) {
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
                          [] { return s_device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP); });
    queries.clear();
    const auto& [allocators, lists, heaps, buffers, bytes, queryHeaps] = s_device->GetPoolSizes();
    EXPECT_THAT((std::vector<std::uint64_t>{allocators, lists, heaps, buffers, bytes, queryHeaps}),
                ElementsAre(3, 0, 1, 2, 128 + 1024, 1));
}

} // namespace
} // namespace Norvex::DX
