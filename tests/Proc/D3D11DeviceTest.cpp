#include "Proc/DirectX/Manager/D3D11Device.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/DirectXShader.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;
using testing::HasSubstr;
using ContextPtr = boost::intrusive_ptr<D11DeviceContext>;

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
    EXPECT_EQ(D11Device::CreatePrimary()->GetAdapterName(), first->GetAdapterName());
    first.reset();
    EXPECT_EQ(D11Device::Find(raw), second);
    EXPECT_EQ(D11Device::CreatePrimary(), second);
    {
        const MethodPatch<&ID3D11Device::GetCreationFlags> patch(
            raw, [&](auto...) { return D3D11_CREATE_DEVICE_SINGLETHREADED; });
        EXPECT_NE(D11Device::CreatePrimary(), second);
    }
    raw.Release();
    second.reset();
    EXPECT_TRUE(stored.isReleased) << "a lock was held";
}

TEST(D3D11DeviceTest, AttachTellsWhatIsMissing) {
    NORVEX_EXPECT_REFUSED11("DirectX 11 device is null", D11Device::Attach(nullptr));
    const auto raw = MakeRawDevice11();
    const auto attach = [&raw] { D11Device::Attach(raw); };
    {
        const auto device = Platform::Query<IDXGIDevice>(raw);
        const FailingMethod<&IDXGIDevice::GetAdapter> patch(device, E_ACCESSDENIED);
        ExpectFailure11(attach, "Failed to get DXGI adapter", "Attach", E_ACCESSDENIED);
    }
    const InterfacePatch<ID3D11Device, IDXGIDevice> patch(raw, nullptr);
    ExpectFailure11(attach, "Failed to get DXGI device", "Attach", E_NOINTERFACE);
}

TEST(D3D11DeviceTest, AttachWaitsWhileCreateLooksAtTheRegistry) {
    const auto raw = MakeRawDevice11();
    std::future<boost::intrusive_ptr<D11Device>> attached;
    const CreateDevice11Patch patch([&](const auto&) -> HRESULT {
        attached = std::async(std::launch::async, [&raw] { return D11Device::Attach(raw); });
        EXPECT_EQ(attached.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
        return S_OK;
    });
    EXPECT_NE(D11Device::CreatePrimary(), nullptr);
    EXPECT_EQ(attached.get()->Get(), raw.p);
}

TEST(D3D11DeviceTest, LevelsAreTriedOneByOneDownwards) {
    constexpr UINT kFlags = D3D11_CREATE_DEVICE_BGRA_SUPPORT;
    // The last without the debug flag, which does not have a level tried twice.
    for (const HRESULT last : {S_OK, E_ACCESSDENIED, DXGI_ERROR_SDK_COMPONENT_MISSING}) {
        const CreateDevice11Patch patch([last](const auto& attempt) {
            return attempt.first == D3D_FEATURE_LEVEL_10_0 ? last : DXGI_ERROR_UNSUPPORTED;
        });
        const auto create = [] {
            EXPECT_EQ(D11Device::CreatePrimary()->GetFeatureLevel(), D3D_FEATURE_LEVEL_10_0);
        };
        if (SUCCEEDED(last)) {
            create();
        } else {
            ExpectFailure11(create, "Failed to create D3D11 device", "Create", last);
        }
        EXPECT_THAT(patch.attempts, ElementsAre(std::pair(D3D_FEATURE_LEVEL_11_1, kFlags),
                                                std::pair(D3D_FEATURE_LEVEL_11_0, kFlags),
                                                std::pair(D3D_FEATURE_LEVEL_10_1, kFlags),
                                                std::pair(D3D_FEATURE_LEVEL_10_0, kFlags)));
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
        EXPECT_THAT(thrown.details, HasSubstr("Adapter name: " + device->GetAdapterName()));
    };
    const auto expectNoViews = [&](ID3D11Resource* of) {
        constexpr auto kShaderView = "CreateShaderResourceView";
        expect(kShaderView, "shader resource view", [&] { device->CreateShaderResourceView(of); });
        expect(kShaderView, "shader resource view",
               [&] { device->CreateShaderResourceView(of, {}); });
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

// Two wrappers of one device have one lock; another device has its own.
TEST(D3D11DeviceTest, EncodeLetsOneThreadInAtATime) {
    auto device = D11Device::Attach(MakeRawDevice11());
    const auto again = D11Device::Attach(device->Get());
    const auto other = D11Device::Attach(MakeRawDevice11());
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
    EXPECT_EQ(calls, 4000);
    other->Encode([&](const ContextPtr&) { RunThreads(1, encode); });

    // Unlocked whatever happens inside.
    EXPECT_THROW(device->Encode({}), std::bad_function_call);
    EXPECT_THROW(device->Encode([](const ContextPtr&) { throw std::domain_error("host's"); }),
                 std::domain_error);
    device->Encode([&](const ContextPtr& context) {
        device = again;
        context->Flush();
    });
    RunThreads(2, encode);
    EXPECT_EQ(calls, 4003);
}

} // namespace
} // namespace Norvex::DX
