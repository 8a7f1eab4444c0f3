#include "Proc/DirectX/Manager/D3D11Device.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/DirectXShader.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/SwapChain11.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;
using testing::HasSubstr;
using ContextPtr = boost::intrusive_ptr<D11DeviceContext>;

TEST(D3D11DeviceTest, AttachedDevicesAreFoundUntilTheirLastRelease) {
    const auto raw = MakeRawDevice11(D3D_FEATURE_LEVEL_10_0);
    EXPECT_EQ(D11Device::Find(raw), nullptr);
    auto first = D11Device::Attach(raw);
    auto second = D11Device::Attach(raw);
    EXPECT_NE(first, second);
    EXPECT_EQ(first->Get(), raw.p);
    EXPECT_EQ(first->GetFeatureLevel(), D3D_FEATURE_LEVEL_10_0);
    EXPECT_EQ(first->GetLevelName(), "10.0");
    EXPECT_EQ(first->GetAdapterName(), D11Device::CreatePrimary()->GetAdapterName());
    first.reset();
    EXPECT_EQ(D11Device::Find(raw), second);
    second.reset();
    EXPECT_EQ(D11Device::Find(raw), nullptr);
    EXPECT_EQ((raw.p->AddRef(), raw.p->Release()), 1u);
}

TEST(D3D11DeviceTest, AttachTellsWhatIsMissing) {
    ExpectFailure11([] { D11Device::Attach(nullptr); }, "DirectX 11 device is null", "Attach");
    const auto raw = MakeRawDevice11();
    CComPtr<IDXGIDevice> dxgiDevice;
    ASSERT_EQ(raw.QueryInterface(&dxgiDevice), S_OK);
    const FailingMethod<&IDXGIDevice::GetAdapter> adapter(dxgiDevice, E_ACCESSDENIED);
    const auto attach = [&raw] { D11Device::Attach(raw); };
    ExpectFailure11(attach, "Failed to get DXGI adapter", "Attach", E_ACCESSDENIED);
    const InterfacePatch<ID3D11Device, IDXGIDevice> device(raw, nullptr);
    ExpectFailure11(attach, "Failed to get DXGI device", "Attach", E_NOINTERFACE);
    EXPECT_EQ(D11Device::Find(raw), nullptr);
}

TEST(D3D11DeviceTest, AttachWaitsWhileCreateLooksAtTheRegistry) {
    const auto raw = MakeRawDevice11();
    std::atomic<bool> isAttached = false;
    std::jthread other;
    const CreateDevice11Patch patch([&](const auto&) -> HRESULT {
        other = std::jthread([&] {
            const auto device = D11Device::Attach(raw);
            isAttached = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(isAttached);
        return S_OK;
    });
    EXPECT_NE(D11Device::CreatePrimary(), nullptr);
    other.join();
    EXPECT_TRUE(isAttached);
}

TEST(D3D11DeviceTest, CreateAnswersWhatIsForAllThreads) {
    const auto attached = D11Device::Attach(MakeRawDevice11());
    EXPECT_EQ(D11Device::CreatePrimary(), attached);
    const MethodPatch<&ID3D11Device::GetCreationFlags> patch(
        attached->Get(), [&](auto original, ID3D11Device* self) {
            return original(self) | D3D11_CREATE_DEVICE_SINGLETHREADED;
        });
    EXPECT_NE(D11Device::CreatePrimary(), attached);
}

// What a host stores in its device goes with it, and may call the library.
TEST(D3D11DeviceTest, TheLastReleaseHoldsNoLock) {
    struct Stored : FakeObject {
        Stored() {
            Set(2, [](Stored* self) {
                self->isReleased = D11Device::Find(nullptr) == nullptr;
                return ULONG{0};
            });
        }
        bool isReleased = false;
    } stored;
    auto device = D11Device::Attach(MakeRawDevice11());
    device->Get()->SetPrivateDataInterface(__uuidof(IUnknown), stored.As<IUnknown>());
    device.reset();
    EXPECT_TRUE(stored.isReleased);
}

TEST(D3D11DeviceTest, LevelsAreTriedOneByOneDownwards) {
    const auto attempt = [](D3D_FEATURE_LEVEL level) {
        return CreateDevice11Patch::Attempt{level, 1, D3D11_CREATE_DEVICE_BGRA_SUPPORT};
    };
    const auto create = [&](HRESULT higherLevels, HRESULT lowestLevel) {
        CreateDevice11Patch patch([=](const auto& tried) {
            return tried.level == D3D_FEATURE_LEVEL_10_0 ? lowestLevel : higherLevels;
        });
        const auto thrown = ThrownBy([] {
            EXPECT_EQ(D11Device::CreatePrimary()->GetFeatureLevel(), D3D_FEATURE_LEVEL_10_0);
        });
        EXPECT_THAT(patch.attempts,
                    ElementsAre(attempt(D3D_FEATURE_LEVEL_11_1), attempt(D3D_FEATURE_LEVEL_11_0),
                                attempt(D3D_FEATURE_LEVEL_10_1), attempt(D3D_FEATURE_LEVEL_10_0)));
        return thrown.sentence;
    };
    EXPECT_EQ(create(DXGI_ERROR_UNSUPPORTED, S_OK), "(nothing)");
    EXPECT_EQ(create(DXGI_ERROR_SDK_COMPONENT_MISSING, S_OK), "(nothing)")
        << "without the debug flag no level is tried twice";
    EXPECT_EQ(create(DXGI_ERROR_UNSUPPORTED, E_ACCESSDENIED), "Failed to create D3D11 device");
    CreateDevice11Patch patch([](const auto&) { return E_ACCESSDENIED; });
    ExpectFailure11([&] { D11Device::CreatePrimary(); }, "Failed to create D3D11 device", "Create",
                    E_ACCESSDENIED);
}

// The device was removed, so that the reason of that is what the records tell.
TEST(D3D11DeviceTest, EveryFailureNamesItsOperationAndTheAdapter) {
    const auto device = D11Device::CreatePrimary();
    const std::shared_ptr<D3ShaderBytecode> bytecode =
        std::make_shared<D11PixelShader>(device, "Main", "float4 Main() : SV_TARGET { return 1; }");
    const auto texture =
        device->CreateTexture2D(MakeTextureDesc11(4, 4, DXGI_FORMAT_R8G8B8A8_UNORM), nullptr);
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
    const FailingMethod<&ID3D11Device::GetDeviceRemovedReason> removed(device->Get(), result);
    const FailingMethod<&ID3D11Device::CreateBuffer, &ID3D11Device::CreateTexture2D,
                        &ID3D11Device::CreateShaderResourceView,
                        &ID3D11Device::CreateRenderTargetView,
                        &ID3D11Device::CreateDepthStencilView, &ID3D11Device::CreateInputLayout,
                        &ID3D11Device::CreateBlendState, &ID3D11Device::CreateDepthStencilState,
                        &ID3D11Device::CreateRasterizerState, &ID3D11Device::CreateSamplerState>
        failures(device->Get(), DXGI_ERROR_DEVICE_REMOVED);
    expectNoViews(texture);
    expect("CreateShaderResourceView", "shader resource view",
           [&] { D11ShaderTexture2D(texture, {}); });
    expect("CreateRenderTargetView", "render rarget view",
           [&] { D11RenderTexture2D(texture, {}); });
    expect("CreateBuffer", "ID3D11Buffer: byteWidth = 48",
           [&] { device->CreateBuffer({48, {}, 0, 0, 0, 0}, nullptr); });
    expect("CreateTexture2D", "ID3D11Texture2D: width = 20, height = 10, format = 28", [&] {
        device->CreateTexture2D(MakeTextureDesc11(20, 10, DXGI_FORMAT_R8G8B8A8_UNORM), nullptr);
    });
    expect("CreateRasterizerState", "rasterizer state", [&] { device->CreateRasterizerState({}); });
    expect("CreateDepthStencilState", "depth stencil state",
           [&] { device->CreateDepthStencilState({}); });
    expect("CreateSamplerState", "sampler state", [&] { device->CreateSamplerState({}); });
    expect("CreateInputLayout", "input layout", [&] { device->CreateInputLayout({}, bytecode); });
    expect("CreateBlendState", "blend state", [&] { device->CreateBlendState({}); });
}

TEST(D3D11DeviceTest, FormatQuestionsDoNotThrow) {
    const auto device = D11Device::CreatePrimary();
    const auto support = device->CheckFormatSupport(DXGI_FORMAT_R8G8B8A8_UNORM);
    ASSERT_TRUE(support);
    EXPECT_TRUE(support->has(D3D11_FORMAT_SUPPORT_RENDER_TARGET));
    const FailingMethod<&ID3D11Device::CheckFormatSupport> patch(device->Get(), E_FAIL);
    EXPECT_EQ(device->CheckFormatSupport(DXGI_FORMAT_R8G8B8A8_UNORM), std::nullopt);
}

TEST(D3D11DeviceTest, FencesNeedBothInterfaces) {
    const auto raw = MakeRawDevice11();
    FakeObject fake;
    for (const bool hasDevice : {false, true}) {
        for (const bool hasContext : {false, true}) {
            const FencePatch patch(raw, hasDevice ? &fake : nullptr, hasContext ? &fake : nullptr);
            const auto device = D11Device::Attach(raw);
            EXPECT_EQ(device->IsFencesSupported(), hasDevice && hasContext);
            EXPECT_EQ(device->Get5(), hasDevice && hasContext ? fake.As<ID3D11Device5>() : nullptr);
        }
    }
    EXPECT_EQ(fake.GetReferences(), 0);
}

// Two wrappers of one device have one lock; another device has its own.
TEST(D3D11DeviceTest, EncodeLetsOneThreadInAtATime) {
    const auto device = D11Device::Attach(MakeRawDevice11());
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
}

TEST(D3D11DeviceTest, EncodeUnlocksWhateverHappensInside) {
    auto device = D11Device::Attach(MakeRawDevice11());
    const auto again = D11Device::Attach(device->Get());
    EXPECT_THROW(device->Encode({}), std::bad_function_call);
    EXPECT_THROW(device->Encode([](const ContextPtr&) { throw std::domain_error("host's"); }),
                 std::domain_error);
    device->Encode([&device](const ContextPtr& context) {
        device.reset();
        context->Flush();
    });
    bool isCalled = false;
    RunThreads(1, [&](unsigned) { again->Encode([&](const auto&) { isCalled = true; }); });
    EXPECT_TRUE(isCalled);
}

TEST(DeviceSwapChainTest, ANewFactoryMakesTheSwapChain) {
    const auto device = D11Device::CreatePrimary();
    // Not the device's own factory, which could not be found.
    const InterfacePatch<ID3D11Device, IDXGIDevice> none(device->Get(), nullptr);
    DrawAndPresent(*device);
}

} // namespace
} // namespace Norvex::DX
