// The registry of devices, on both generations: one device an adapter, found again while it lives.

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

struct Generation11 {
    using Device = D11Device;
    using Raw = ID3D11Device;
    static constexpr auto kGetDeviceRemovedReason = &ID3D11Device::GetDeviceRemovedReason;

    static auto CreateOnAdapterOf(Device&) {
        return Device::Create(DXGIFactory::Create()->GetPrimaryAdapter());
    }
};

struct Generation12 {
    using Device = D12Device;
    using Raw = ID3D12Device;
    static constexpr auto kGetDeviceRemovedReason = &ID3D12Device::GetDeviceRemovedReason;

    static auto CreateOnAdapterOf(Device& device) {
        return Device::Create(device.GetAdapterLuid());
    }
};

template <class Generation>
class DeviceRegistryTest : public testing::Test {};
TYPED_TEST_SUITE_P(DeviceRegistryTest);

TYPED_TEST_P(DeviceRegistryTest, OneDeviceAnAdapterWhileItLives) {
    using Device = typename TypeParam::Device;
    auto device = Device::CreatePrimary();
    EXPECT_EQ(Device::CreatePrimary(), device);
    EXPECT_EQ(TypeParam::CreateOnAdapterOf(*device), device);
    EXPECT_EQ(Device::Find(device->Get()), device);
    EXPECT_EQ(Device::Find(nullptr), nullptr);
    EXPECT_EQ(device->GetRefCount(), 1u) << "nothing kept a reference";
    const auto primary = DXGIFactory::Create()->GetPrimaryAdapter();
    for (const LUID& difference : {LUID{1, 0}, LUID{0, 1}}) {
        const MethodPatch<&IDXGIAdapter1::GetDesc1>
            patch(primary.Get(), [&](auto original, IDXGIAdapter1* self, DXGI_ADAPTER_DESC1* desc) {
                const HRESULT result = original(self, desc);
                desc->AdapterLuid.LowPart ^= difference.LowPart;
                desc->AdapterLuid.HighPart ^= difference.HighPart;
                return result;
            });
        EXPECT_NE(Device::Create(primary), device) << "it is of another adapter";
    }

    CComPtr<typename TypeParam::Raw> raw(device->Get());
    const LifeProbe probe(raw);
    device.reset();
    EXPECT_EQ(Device::Find(raw), nullptr);
    EXPECT_EQ((raw.p->AddRef(), raw.p->Release()), 1u) << "the test's own reference is the last";
    raw.Release();
    EXPECT_FALSE(probe.IsAlive());
    EXPECT_NE(Device::CreatePrimary(), nullptr);
}

TYPED_TEST_P(DeviceRegistryTest, ARemovedDeviceIsReplacedButStillFound) {
    using Device = typename TypeParam::Device;
    using Raw = typename TypeParam::Raw;
    const auto removed = Device::CreatePrimary();
    // All devices share the method table: only this one is removed.
    const MethodPatch<TypeParam::kGetDeviceRemovedReason, HRESULT(Raw*)> patch(
        removed->Get(), [&removed](auto original, Raw* self) {
            return self == removed->Get() ? DXGI_ERROR_DEVICE_HUNG : original(self);
        });
    EXPECT_EQ(removed->GetDeviceRemovedReason(), DXGI_ERROR_DEVICE_HUNG);
    const auto fresh = TypeParam::CreateOnAdapterOf(*removed);
    EXPECT_NE(fresh, removed);
    ASSERT_NE(Device::Find(removed->Get()), nullptr);
    EXPECT_EQ(Device::Find(removed->Get())->Get(), removed->Get());
    if (fresh->Get() != removed->Get()) { // where an adapter has more than one raw device
        EXPECT_EQ(Device::Find(removed->Get()), removed);
        EXPECT_EQ(Device::CreatePrimary(), fresh);
    }
}

TYPED_TEST_P(DeviceRegistryTest, AnotherAdapterHasAnotherDevice) {
    using Device = typename TypeParam::Device;
    const auto device = Device::CreatePrimary();
    const auto adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    const MethodPatch<&IDXGIAdapter1::GetDesc1> patch(
        adapter.Get(), [](auto original, auto* self, auto* desc) {
            const HRESULT result = original(self, desc);
            desc->AdapterLuid.HighPart ^= 1;
            return result;
        });
    const auto other = Device::Create(adapter);
    EXPECT_NE(other, device);
    EXPECT_EQ(Device::Create(adapter), other);
}

// Each thread finds or makes the device and drops it at once; a dead object handed out would crash.
TYPED_TEST_P(DeviceRegistryTest, CreateFindAndLastReleaseMayRace) {
    using Device = typename TypeParam::Device;
    std::atomic<typename TypeParam::Raw*> last{nullptr};
    constexpr int kAtLeast = 5; // on a busy machine too
    std::atomic<int> made{0};
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            while (std::chrono::steady_clock::now() < until || made < kAtLeast) {
                const auto device = i % 2 == 0 ? Device::CreatePrimary() : Device::Find(last);
                if (device != nullptr) {
                    last = device->Get();
                    EXPECT_FALSE(device->GetAdapterName().empty());
                    ++made;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

REGISTER_TYPED_TEST_SUITE_P(DeviceRegistryTest, OneDeviceAnAdapterWhileItLives,
                            ARemovedDeviceIsReplacedButStillFound, AnotherAdapterHasAnotherDevice,
                            CreateFindAndLastReleaseMayRace);
INSTANTIATE_TYPED_TEST_SUITE_P(D3D11, DeviceRegistryTest, Generation11);
INSTANTIATE_TYPED_TEST_SUITE_P(D3D12, DeviceRegistryTest, Generation12);

} // namespace
} // namespace Norvex::DX
