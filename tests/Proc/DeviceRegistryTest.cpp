// The registry of devices, on both generations: one device an adapter, found again while it lives.

#include <atomic>
#include <chrono>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Threads.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

template <class Type>
struct DeviceRegistryTest : testing::Test {
    using Raw = std::remove_pointer_t<decltype(std::declval<Type>().Get())>;

    boost::intrusive_ptr<Type> device = Type::CreatePrimary();
    DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
};
struct NameOfDevice {
    template <class Type>
    static std::string GetName(int) {
        return std::is_same_v<Type, D11Device> ? "D3D11" : "D3D12";
    }
};
using Devices = testing::Types<D11Device, D12Device>;
TYPED_TEST_SUITE(DeviceRegistryTest, Devices, NameOfDevice);

TYPED_TEST(DeviceRegistryTest, OneDeviceAnAdapterWhileItLives) {
    auto& device = this->device;
    EXPECT_EQ(TypeParam::Create(this->adapter), device);
    if constexpr (std::is_same_v<TypeParam, D12Device>) {
        EXPECT_EQ(D12Device::Create(device->GetAdapterLuid()), device);
    }
    EXPECT_EQ(TypeParam::Find(device->Get()), device);
    EXPECT_EQ(TypeParam::Find(nullptr), nullptr);
    for (const LUID& difference : {LUID{1, 0}, LUID{0, 1}}) {
        const MethodPatch<&IDXGIAdapter1::GetDesc1> patch(
            this->adapter.Get(), [&](auto original, IDXGIAdapter1* self, auto* desc) {
                const HRESULT result = original(self, desc);
                desc->AdapterLuid.LowPart ^= difference.LowPart;
                desc->AdapterLuid.HighPart ^= difference.HighPart;
                return result;
            });
        const auto other = TypeParam::Create(this->adapter);
        EXPECT_NE(other, device) << "it is of another adapter";
        EXPECT_EQ(TypeParam::Create(this->adapter), other);
    }

    CComPtr<typename TestFixture::Raw> raw(device->Get());
    const LifeProbe probe(raw);
    device.reset();
    EXPECT_EQ(TypeParam::Find(raw), nullptr);
    EXPECT_EQ((raw.p->AddRef(), raw.p->Release()), 1u) << "the test's own reference is the last";
    raw.Release();
    EXPECT_FALSE(probe.IsAlive());
}

TYPED_TEST(DeviceRegistryTest, ARemovedDeviceIsReplacedButStillFound) {
    using Raw = typename TestFixture::Raw;
    const auto& removed = this->device;
    // All devices share the method table: only this one is removed.
    const MethodPatch<&Raw::GetDeviceRemovedReason> patch(
        removed->Get(), [&removed](auto original, Raw* self) {
            return self == removed->Get() ? DXGI_ERROR_DEVICE_HUNG : original(self);
        });
    const auto fresh = TypeParam::Create(this->adapter);
    EXPECT_NE(fresh, removed);
    EXPECT_NE(TypeParam::Find(removed->Get()), nullptr);
    if (fresh->Get() != removed->Get()) { // where an adapter has more than one raw device
        EXPECT_EQ(TypeParam::Find(removed->Get()), removed);
        EXPECT_EQ(TypeParam::CreatePrimary(), fresh);
    }
}

// Each thread finds or makes the device and drops it at once; a dead object handed out would crash.
TYPED_TEST(DeviceRegistryTest, CreateFindAndLastReleaseMayRace) {
    this->device.reset();
    std::atomic<typename TestFixture::Raw*> last{nullptr};
    constexpr int kAtLeast = 5; // on a busy machine too
    std::atomic<int> made{0};
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    RunThreads(4, [&](unsigned thread) {
        while (std::chrono::steady_clock::now() < until || made < kAtLeast) {
            const auto found = thread % 2 == 0 ? TypeParam::CreatePrimary() : TypeParam::Find(last);
            if (found != nullptr) {
                last = found->Get();
                EXPECT_FALSE(found->GetAdapterName().empty());
                ++made;
            }
        }
    });
}

} // namespace
} // namespace Norvex::DX
