#include "Proc/DirectX/Manager/D3D11Device.h"

#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

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
    const FailingMethod<Slot::kDxgiDeviceGetAdapter> adapter(dxgiDevice, E_ACCESSDENIED);
    const auto attach = [&raw] { D11Device::Attach(raw); };
    ExpectFailure11(attach, "Failed to get DXGI adapter", "Attach", E_ACCESSDENIED);
    const InterfacePatch<ID3D11Device, IDXGIDevice> device(raw, nullptr);
    ExpectFailure11(attach, "Failed to get DXGI device", "Attach", E_NOINTERFACE);
    EXPECT_EQ(D11Device::Find(raw), nullptr);
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

template <std::size_t... slots>
struct FailingMethods : FailingMethod<slots>... {
    FailingMethods(IUnknown* object, HRESULT result) : FailingMethod<slots>(object, result)... {}
};

// The device was removed, so that the reason of that is what the records tell.
TEST(D3D11DeviceTest, EveryFailureNamesItsOperationAndTheAdapter) {
    const auto device = D11Device::CreatePrimary();
    const std::shared_ptr<D3ShaderBytecode> bytecode =
        std::make_shared<D11PixelShader>(device, "Main", "float4 Main() : SV_TARGET { return 1; }");
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
         [&] { device->CreateShaderResourceView(nullptr); }},
        {"CreateShaderResourceView", "Failed to create shader resource view",
         [&] { device->CreateShaderResourceView(nullptr, {}); }},
        {"CreateRenderTargetView", "Failed to create render target view",
         [&] { device->CreateRenderTargetView(nullptr, {}); }},
        {"CreateDepthStencilView", "Failed to create depth stencil view",
         [&] { device->CreateDepthStencilView(nullptr, {}); }},
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
    const FailingMethod<Slot::kDevice11GetDeviceRemovedReason> removed(device->Get(),
                                                                       DXGI_ERROR_DEVICE_HUNG);
    const FailingMethods<Slot::kDevice11CreateBuffer, Slot::kDevice11CreateTexture2D,
                         Slot::kDevice11CreateShaderResourceView,
                         Slot::kDevice11CreateRenderTargetView,
                         Slot::kDevice11CreateDepthStencilView, Slot::kDevice11CreateInputLayout,
                         Slot::kDevice11CreateBlendState, Slot::kDevice11CreateDepthStencilState,
                         Slot::kDevice11CreateRasterizerState, Slot::kDevice11CreateSamplerState>
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
    const FailingMethod<Slot::kDevice11CheckFormatSupport> patch(device->Get(), E_FAIL);
    EXPECT_EQ(device->CheckFormatSupport(kRgba8), std::nullopt);
}

TEST(D3D11DeviceTest, FencesNeedBothInterfaces) {
    const auto raw = MakeRawDevice11();
    FakeObject device5;
    FakeObject context4;
    const auto device5Offering = [&](FakeObject* device, FakeObject* context) {
        const FencePatch patch(raw, device, context);
        const auto attached = D11Device::Attach(raw);
        EXPECT_EQ(attached->IsFencesSupported(), attached->Get5() != nullptr);
        return attached->Get5();
    };
    EXPECT_EQ(device5Offering(nullptr, nullptr), nullptr);
    EXPECT_EQ(device5Offering(&device5, nullptr), nullptr);
    EXPECT_EQ(device5Offering(nullptr, &context4), nullptr);
    EXPECT_EQ(device5Offering(&device5, &context4), device5.As<ID3D11Device5>());
    EXPECT_EQ(device5.GetReferences() + context4.GetReferences(), 0);
}

// A target and what it is read through, for all who paint on one device.
class Easel {
public:
    explicit Easel(const boost::intrusive_ptr<D11Device>& device) : m_device(device) {
        auto desc = MakeTextureDesc11(64, 64, kRgba8);
        m_target = D11RenderTexture2D::Create(device, desc);
        desc.Usage = D3D11_USAGE_STAGING;
        desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
        m_staging = device->CreateTexture2D(desc, nullptr);
    }

    // Whether what is read is what this thread painted.
    bool Paint(std::uint8_t level) {
        bool isPainted = false;
        m_device->Encode([&](const ContextPtr& context) {
            context->ClearRenderTargetView(m_target->GetView(),
                                           {static_cast<float>(level) / 255.0F, 0, 0, 1});
            context->CopyResource(m_staging, m_target->GetTexture());
            const auto mapped = context->Map(m_staging, 0, D3D11_MAP_READ, {});
            const auto* bytes = static_cast<const std::uint8_t*>(mapped.pData);
            isPainted = bytes[0] == level && bytes[63 * mapped.RowPitch + 63 * 4] == level;
            context->Unmap(m_staging, 0);
        });
        return isPainted;
    }

private:
    boost::intrusive_ptr<D11Device> m_device;
    boost::intrusive_ptr<D11RenderTexture2D> m_target;
    CComPtr<ID3D11Texture2D> m_staging;
};

// Each easel's threads paint as often as told, all at once.
void PaintAll(const std::vector<Easel*>& easelOfThread, int rounds) {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < easelOfThread.size(); ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                EXPECT_TRUE(easelOfThread[i]->Paint(static_cast<std::uint8_t>(i * 31 + 1)));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(D3D11DeviceTest, EncodeLetsOneThreadInAtATime) {
    Easel easel(D11Device::CreatePrimary());
    PaintAll(std::vector<Easel*>(8, &easel), 100);
}

TEST(D3D11DeviceTest, TwoDevicesWorkAtOnce) {
    Easel created(D11Device::CreatePrimary());
    Easel attached(D11Device::Attach(MakeRawDevice11()));
    PaintAll({&created, &attached}, 200);
}

TEST(D3D11DeviceTest, EncodeUnlocksWhateverIsThrown) {
    const auto device = D11Device::CreatePrimary();
    EXPECT_THROW(device->Encode({}), std::bad_function_call);
    EXPECT_THROW(device->Encode([](const ContextPtr&) { throw std::domain_error("host's"); }),
                 std::domain_error);
    int calls = 0;
    std::thread([&] { device->Encode([&calls](const ContextPtr&) { ++calls; }); }).join();
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
