#include "Proc/DirectX/Manager/D3D11Device.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <span>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/SwapChain11.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;
using testing::HasSubstr;
constexpr auto kRgba8 = DXGI_FORMAT_R8G8B8A8_UNORM;
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

// A dead wrapper that is handed out would crash.
TEST(D3D11DeviceTest, AttachMayRace) {
    const auto raw = MakeRawDevice11();
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 500; ++round) {
                const auto device = D11Device::Attach(raw);
                EXPECT_NE(D11Device::Find(raw), nullptr);
                EXPECT_EQ(D11Device::Create(adapter)->Get(), raw.p);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(D11Device::Find(raw), nullptr);
}

TEST(D3D11DeviceTest, CreateAnswersWhatIsOnTheAdapterAndForAllThreads) {
    const CComPtr<IDXGIAdapter1> adapter(DXGIFactory::Create()->GetPrimaryAdapter().Get());
    const auto raw = MakeRawDevice11();
    const auto isAnswered = [&](const LUID& difference, UINT flags) {
        const auto attached = [&] {
            const MethodPatch<&IDXGIAdapter1::GetDesc1>
                patch(adapter, [&](auto original, IDXGIAdapter1* self, DXGI_ADAPTER_DESC1* desc) {
                    const HRESULT result = original(self, desc);
                    desc->AdapterLuid.LowPart += difference.LowPart;
                    desc->AdapterLuid.HighPart += difference.HighPart;
                    return result;
                });
            return D11Device::Attach(raw);
        }();
        const MethodPatch<&ID3D11Device::GetCreationFlags> patch(
            raw, [&](auto original, ID3D11Device* self) { return original(self) | flags; });
        return D11Device::CreatePrimary() == attached;
    };
    EXPECT_TRUE(isAnswered({0, 0}, 0));
    EXPECT_FALSE(isAnswered({1, 0}, 0));
    EXPECT_FALSE(isAnswered({0, 1}, 0));
    EXPECT_FALSE(isAnswered({0, 0}, D3D11_CREATE_DEVICE_SINGLETHREADED));
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
    const auto allLevels =
        ElementsAre(attempt(D3D_FEATURE_LEVEL_11_1), attempt(D3D_FEATURE_LEVEL_11_0),
                    attempt(D3D_FEATURE_LEVEL_10_1), attempt(D3D_FEATURE_LEVEL_10_0));
    const auto create = [&](HRESULT higherLevels, HRESULT lowestLevel) {
        const CreateDevice11Patch patch([=](const auto& tried) {
            return tried.level == D3D_FEATURE_LEVEL_10_0 ? lowestLevel : higherLevels;
        });
        const auto level = D11Device::CreatePrimary()->GetFeatureLevel();
        EXPECT_THAT(patch.attempts, allLevels);
        return level;
    };
    EXPECT_EQ(create(DXGI_ERROR_UNSUPPORTED, S_OK), D3D_FEATURE_LEVEL_10_0);
    EXPECT_EQ(create(DXGI_ERROR_SDK_COMPONENT_MISSING, S_OK), D3D_FEATURE_LEVEL_10_0)
        << "without the debug flag no level is tried twice";
    ExpectFailure11([&] { create(DXGI_ERROR_UNSUPPORTED, E_ACCESSDENIED); },
                    "Failed to create D3D11 device", "Create", E_ACCESSDENIED);
    EXPECT_GE(D11Device::CreatePrimary()->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_0)
        << "nothing of the failure stayed in the registry";
}

template <auto... slots>
struct FailingMethods : FailingMethod<slots>... {
    FailingMethods(IUnknown* object, HRESULT result) : FailingMethod<slots>(object, result)... {}
};

// The device was removed, so that the reason of that is what the records tell.
TEST(D3D11DeviceTest, EveryFailureNamesItsOperationAndTheAdapter) {
    const auto device = D11Device::CreatePrimary();
    const std::shared_ptr<D3ShaderBytecode> bytecode =
        std::make_shared<D11PixelShader>(device, "Main", "float4 Main() : SV_TARGET { return 1; }");
    const auto texture = device->CreateTexture2D(MakeTextureDesc11(4, 4, kRgba8), nullptr);
    ID3D11Resource* resource = nullptr;
    const struct {
        const char* function;
        const char* sentence;
        std::function<void()> call;
    } cases[] = {
        {"CreateBuffer", "Failed to create ID3D11Buffer: byteWidth = 48",
         [&] { device->CreateBuffer({48, {}, 0, 0, 0, 0}, nullptr); }},
        {"CreateTexture2D",
         "Failed to create ID3D11Texture2D: width = 20, height = 10, format = 28",
         [&] { device->CreateTexture2D(MakeTextureDesc11(20, 10, kRgba8), nullptr); }},
        {"CreateShaderResourceView", "Failed to create shader resource view",
         [&] { device->CreateShaderResourceView(resource); }},
        {"CreateShaderResourceView", "Failed to create shader resource view",
         [&] { device->CreateShaderResourceView(resource, {}); }},
        {"CreateRenderTargetView", "Failed to create render target view",
         [&] { device->CreateRenderTargetView(resource, {}); }},
        {"CreateDepthStencilView", "Failed to create depth stencil view",
         [&] { device->CreateDepthStencilView(resource, {}); }},
        {"CreateRasterizerState", "Failed to create rasterizer state",
         [&] { device->CreateRasterizerState({}); }},
        {"CreateDepthStencilState", "Failed to create depth stencil state",
         [&] { device->CreateDepthStencilState({}); }},
        {"CreateSamplerState", "Failed to create sampler state",
         [&] { device->CreateSamplerState({}); }},
        {"CreateInputLayout", "Failed to create input layout",
         [&] { device->CreateInputLayout({}, bytecode); }},
        {"CreateBlendState", "Failed to create blend state", [&] { device->CreateBlendState({}); }},
    };
    for (const auto& c : std::span(cases).subspan(2, 4)) { // views of null
        ExpectFailure11(c.call, c.sentence, c.function, E_INVALIDARG);
    }
    resource = texture;
    const FailingMethod<&ID3D11Device::GetDeviceRemovedReason> removed(device->Get(),
                                                                       DXGI_ERROR_DEVICE_HUNG);
    const FailingMethods<&ID3D11Device::CreateBuffer, &ID3D11Device::CreateTexture2D,
                         &ID3D11Device::CreateShaderResourceView,
                         &ID3D11Device::CreateRenderTargetView,
                         &ID3D11Device::CreateDepthStencilView, &ID3D11Device::CreateInputLayout,
                         &ID3D11Device::CreateBlendState, &ID3D11Device::CreateDepthStencilState,
                         &ID3D11Device::CreateRasterizerState, &ID3D11Device::CreateSamplerState>
        failures(device->Get(), DXGI_ERROR_DEVICE_REMOVED);
    for (const auto& c : cases) {
        const auto thrown = ExpectFailure11(c.call, c.sentence, c.function, DXGI_ERROR_DEVICE_HUNG);
        EXPECT_THAT(thrown.details, HasSubstr("Adapter name: " + device->GetAdapterName()));
    }
}

TEST(D3D11DeviceTest, FormatQuestionsDoNotThrow) {
    const auto device = D11Device::CreatePrimary();
    const auto support = device->CheckFormatSupport(kRgba8);
    ASSERT_TRUE(support);
    EXPECT_TRUE(support->has(D3D11_FORMAT_SUPPORT_RENDER_TARGET));
    const FailingMethod<&ID3D11Device::CheckFormatSupport> patch(device->Get(), E_FAIL);
    EXPECT_EQ(device->CheckFormatSupport(kRgba8), std::nullopt);
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
    const auto encode = [&](D11Device& wrapper) {
        wrapper.Encode([&](const ContextPtr& outer) {
            EXPECT_EQ(++inside, 1);
            std::this_thread::yield();
            device->Encode([&](const ContextPtr& inner) { EXPECT_EQ(inner, outer); });
            ++calls;
            --inside;
        });
    };
    std::vector<std::jthread> threads;
    for (D11Device* wrapper : {device.get(), again.get(), device.get(), again.get()}) {
        threads.emplace_back([&encode, wrapper] {
            for (int round = 0; round < 1000; ++round) {
                encode(*wrapper);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(calls, 4000);
    other->Encode([&](const ContextPtr&) { std::thread([&] { encode(*device); }).join(); });
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
    int calls = 0;
    std::thread([&] { again->Encode([&calls](const ContextPtr&) { ++calls; }); }).join();
    EXPECT_EQ(calls, 1);
}

TEST(DeviceSwapChainTest, ANewFactoryMakesTheSwapChain) {
    const auto device = D11Device::CreatePrimary();
    // Not the device's own factory, which could not be found.
    const InterfacePatch<ID3D11Device, IDXGIDevice> none(device->Get(), nullptr);
    DrawAndPresent(*device);
}

} // namespace
} // namespace Norvex::DX
