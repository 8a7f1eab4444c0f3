// Devices of Direct3D 11, and the registry of devices of either generation: one device an adapter,
// found again while it lives.

#include "Proc/DirectX/Manager/D3D11Device.h"

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using std::chrono::steady_clock;
using ContextPtr = boost::intrusive_ptr<D11DeviceContext>;

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
    for (const LUID& difference : {LUID{1, 0}, LUID{0, 1}}) {
        const MethodPatch<&IDXGIAdapter1::GetDesc1> patch(
            this->adapter.Get(), [&](auto original, IDXGIAdapter1* self, auto* desc) {
                const HRESULT result = original(self, desc);
                desc->AdapterLuid.LowPart ^= difference.LowPart;
                desc->AdapterLuid.HighPart ^= difference.HighPart;
                return result;
            });
        EXPECT_NE(TypeParam::Create(this->adapter), device) << "it is of another adapter";
    }
    CComPtr<typename TestFixture::Raw> raw(device->Get());
    device.reset();
    EXPECT_EQ(TypeParam::Find(raw), nullptr);
    EXPECT_EQ((raw.p->AddRef(), raw.p->Release()), 1u) << "the test's own reference is the last";
}

TYPED_TEST(DeviceRegistryTest, ARemovedDeviceIsReplacedButStillFound) {
    using Raw = typename TestFixture::Raw;
    const auto& removed = this->device;
    // All devices share the method table: only this one is removed.
    const MethodPatch<&Raw::GetDeviceRemovedReason> patch(
        removed->Get(), [&removed](auto original, Raw* self) {
            return self == removed->Get() ? DXGI_ERROR_DEVICE_HUNG : original(self);
        });
    EXPECT_NE(TypeParam::Create(this->adapter), removed);
    EXPECT_EQ(TypeParam::Find(removed->Get()), removed);
}

// Each thread finds or makes the device and drops it at once; a dead object handed out would crash.
TYPED_TEST(DeviceRegistryTest, CreateFindAndLastReleaseMayRace) {
    this->device.reset();
    std::atomic<typename TestFixture::Raw*> last{nullptr};
    constexpr int kAtLeast = 5; // on a busy machine too
    std::atomic<int> made{0};
    const auto until = steady_clock::now() + std::chrono::seconds(3);
    RunThreads(4, [&](unsigned thread) {
        while (steady_clock::now() < until || made < kAtLeast) {
            const auto found = thread % 2 == 0 ? TypeParam::CreatePrimary() : TypeParam::Find(last);
            if (found != nullptr) {
                last = found->Get();
                EXPECT_FALSE(found->GetAdapterName().empty());
                ++made;
            }
        }
    });
}

// What a host stores in its device goes with it, and may call the library.
struct Stored : FakeObject {
    Stored() {
        Set(2, [](Stored* self) {
            self->isReleased = D11Device::Find(nullptr) == nullptr;
            return ULONG{0};
        });
    }
    bool isReleased = false;
};

TEST(D3D11DeviceTest, AttachedDevicesAreFoundUntilTheirLastRelease) {
    Stored stored;
    auto raw = MakeRawDevice11(D3D_FEATURE_LEVEL_10_0);
    raw->SetPrivateDataInterface(__uuidof(IUnknown), stored.As<IUnknown>());
    auto first = D11Device::Attach(raw);
    auto second = D11Device::Attach(raw);
    EXPECT_NE(first, second);
    EXPECT_EQ(first->GetLevelName(), "10.0");
    first.reset();
    EXPECT_EQ(D11Device::Find(raw), second);
    EXPECT_EQ(D11Device::CreatePrimary(), second);
    {
        const MethodPatch<&ID3D11Device::GetCreationFlags> patch(
            raw, [](auto...) { return D3D11_CREATE_DEVICE_SINGLETHREADED; });
        EXPECT_NE(D11Device::CreatePrimary(), second);
        const InterfacePatch<ID3D11Device, IDXGIDevice> none(raw, nullptr);
        ExpectFailure11([&] { D11Device::Attach(raw); }, "Failed to get DXGI device", "Attach",
                        E_NOINTERFACE);
    }
    NORVEX_EXPECT_REFUSED11("DirectX 11 device is null", D11Device::Attach(nullptr));
    raw.Release();
    second.reset();
    EXPECT_TRUE(stored.isReleased) << "a lock was held";
}

TEST(D3D11DeviceTest, AttachWaitsWhileCreateLooksAtTheRegistry) {
    const auto raw = MakeRawDevice11();
    std::future<boost::intrusive_ptr<D11Device>> attached;
    const CreateDevice11Patch patch([&](auto...) -> HRESULT {
        attached = std::async(std::launch::async, [&raw] { return D11Device::Attach(raw); });
        EXPECT_EQ(attached.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
        return S_OK;
    });
    EXPECT_NE(D11Device::CreatePrimary(), nullptr);
    EXPECT_EQ(attached.get()->Get(), raw.p);
}

TEST(D3D11DeviceTest, LevelsAreTriedOneByOneDownwards) {
    // The last without the debug flag, which does not have a level tried twice.
    for (const HRESULT last : {S_OK, DXGI_ERROR_SDK_COMPONENT_MISSING}) {
        std::string tried;
        const CreateDevice11Patch patch([&](D3D_FEATURE_LEVEL level, UINT flags) {
            tried += fmt::format("{:x} {}, ", +level, flags);
            return level == D3D_FEATURE_LEVEL_10_0 ? last : DXGI_ERROR_UNSUPPORTED;
        });
        const Thrown thrown = ThrownBy([] { D11Device::CreatePrimary(); });
        EXPECT_EQ(thrown.sentence, last == S_OK ? "(nothing)" : "Failed to create D3D11 device");
        EXPECT_EQ(thrown.result, last);
        EXPECT_EQ(tried, "b100 32, b000 32, a100 32, a000 32, ");
    }
}

// The device was removed, so that the reason of that is what the records tell.
TEST(D3D11DeviceTest, EveryFailureNamesItsOperationAndTheAdapter) {
    using Device = ID3D11Device;
    const auto device = D11Device::CreatePrimary();
    const std::shared_ptr<D3ShaderBytecode> bytecode =
        std::make_shared<D11PixelShader>(device, "Main", "float4 Main() : SV_TARGET { return 1; }");
    const auto desc = MakeTextureDesc11(20, 10, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto texture = device->CreateTexture2D(desc, nullptr);
    EXPECT_TRUE(device->CheckFormatSupport(desc.Format)->has(D3D11_FORMAT_SUPPORT_RENDER_TARGET));

    HRESULT result = E_INVALIDARG;
    const auto expect = [&](const char* function, const std::string& what, const auto& call) {
        const auto thrown = ExpectFailure11(call, "Failed to create " + what, function, result);
        EXPECT_THAT(thrown.details,
                    testing::HasSubstr("Adapter name: " + device->GetAdapterName()));
    };
    const auto expectNoViews = [&](ID3D11Resource* of) {
        constexpr auto kShader = "CreateShaderResourceView";
        expect(kShader, "shader resource view", [&] { device->CreateShaderResourceView(of); });
        expect(kShader, "shader resource view", [&] { device->CreateShaderResourceView(of, {}); });
        expect("CreateRenderTargetView", "render target view",
               [&] { device->CreateRenderTargetView(of, {}); });
        expect("CreateDepthStencilView", "depth stencil view",
               [&] { device->CreateDepthStencilView(of, {}); });
    };
    expectNoViews(nullptr);
    result = DXGI_ERROR_DEVICE_HUNG;
    const FailingMethod<&Device::GetDeviceRemovedReason> removed(device->Get(), result);
    const FailingMethod<
        &Device::CreateBuffer, &Device::CreateTexture2D, &Device::CreateShaderResourceView,
        &Device::CreateRenderTargetView, &Device::CreateDepthStencilView,
        &Device::CreateInputLayout, &Device::CreateBlendState, &Device::CreateDepthStencilState,
        &Device::CreateRasterizerState, &Device::CreateSamplerState, &Device::CheckFormatSupport>
        failures(device->Get(), DXGI_ERROR_DEVICE_REMOVED);
    expectNoViews(texture);
    expect("CreateShaderResourceView", "shader resource view",
           [&] { D11ShaderTexture2D(texture, {}); });
    expect("CreateRenderTargetView", "render rarget view",
           [&] { D11RenderTexture2D(texture, {}); });
    expect("CreateBuffer", "ID3D11Buffer: byteWidth = 48",
           [&] { device->CreateBuffer({48, {}, 0, 0, 0, 0}, nullptr); });
    expect("CreateTexture2D", "ID3D11Texture2D: width = 20, height = 10, format = 28",
           [&] { device->CreateTexture2D(desc, nullptr); });
    expect("CreateRasterizerState", "rasterizer state", [&] { device->CreateRasterizerState({}); });
    expect("CreateDepthStencilState", "depth stencil state",
           [&] { device->CreateDepthStencilState({}); });
    expect("CreateSamplerState", "sampler state", [&] { device->CreateSamplerState({}); });
    expect("CreateInputLayout", "input layout", [&] { device->CreateInputLayout({}, bytecode); });
    expect("CreateBlendState", "blend state", [&] { device->CreateBlendState({}); });
    EXPECT_EQ(device->CheckFormatSupport(desc.Format), std::nullopt);
}

// Two wrappers of one device have one lock, free again whatever happens inside; another device has
// its own.
TEST(D3D11DeviceTest, EncodeLetsOneThreadInAtATime) {
    auto device = D11Device::Attach(MakeRawDevice11());
    const auto again = D11Device::Attach(device->Get());
    std::atomic<int> inside{0};
    int calls = 0;
    const auto encode = [&](unsigned thread) {
        (thread % 2 == 0 ? device : again)->Encode([&](const ContextPtr& outer) {
            EXPECT_EQ(++inside, 1);
            std::this_thread::yield();
            device->Encode([&](const ContextPtr& inner) { EXPECT_EQ(inner, outer); });
            ++calls;
            --inside;
        });
    };
    RunThreads(4, [&](unsigned thread) {
        for (int round = 0; round < 1000; ++round) {
            encode(thread);
        }
    });
    EXPECT_THROW(device->Encode([](const ContextPtr&) { throw std::domain_error("host's"); }),
                 std::domain_error);
    device->Encode([&](const ContextPtr& context) {
        device = again; // the last reference on the other
        context->Flush();
    });
    const auto other = D11Device::Attach(MakeRawDevice11());
    other->Encode([&](const ContextPtr&) { RunThreads(1, encode); });
    EXPECT_EQ(calls, 4001);
}

} // namespace
} // namespace Norvex::DX
