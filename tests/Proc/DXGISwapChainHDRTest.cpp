// HDR output. This system's display has none, so that its answers, and those of the swap chain
// about colour spaces, are interposed.

#include <random>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/Proc/SwapChainFixture.h"
#include "tests/support/Canvas11.h"
#include "tests/support/FakeObject.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

// The methods of the system's swap chains and outputs that this test stands in for.
namespace Method {
using EnumOutputs = MethodPatch<7, HRESULT(IDXGIAdapter*, UINT, IDXGIOutput**)>;
using IsCurrent = MethodPatch<13, BOOL(IDXGIFactory1*)>;
using GetBuffer = MethodPatch<9, HRESULT(IDXGISwapChain*, UINT, REFIID, void**)>;
using ResizeBuffers =
    MethodPatch<13, HRESULT(IDXGISwapChain*, UINT, UINT, UINT, DXGI_FORMAT, UINT)>;
using ResizeBuffers1 = MethodPatch<39, HRESULT(IDXGISwapChain3*, UINT, UINT, UINT, DXGI_FORMAT,
                                               UINT, const UINT*, IUnknown* const*)>;
using CheckColorSpaceSupport =
    MethodPatch<37, HRESULT(IDXGISwapChain3*, DXGI_COLOR_SPACE_TYPE, UINT*)>;
using SetColorSpace1 = MethodPatch<38, HRESULT(IDXGISwapChain3*, DXGI_COLOR_SPACE_TYPE)>;
using SetHDRMetaData =
    MethodPatch<40, HRESULT(IDXGISwapChain4*, DXGI_HDR_METADATA_TYPE, UINT, void*)>;
using CheckFormatSupport = MethodPatch<29, HRESULT(ID3D11Device*, DXGI_FORMAT, UINT*)>;
using CheckFeatureSupport = MethodPatch<13, HRESULT(ID3D12Device*, D3D12_FEATURE, void*, UINT)>;
} // namespace Method

// A swap chain of the same class as the one under test, whose methods are patched through it.
CComPtr<IDXGISwapChain> MakeProbe(Presenter& presenter, HWND window) {
    DXGI_SWAP_CHAIN_DESC1 desc = {};
    desc.Width = desc.Height = 16;
    desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.SampleDesc.Count = 1;
    desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
    desc.BufferCount = 2;
    desc.SwapEffect = DXGI_SWAP_EFFECT_FLIP_DISCARD;
    if (presenter.m_device11 != nullptr) {
        return presenter.m_device11->CreateSwapChainForHwnd(window, desc);
    }
    const boost::intrusive_ptr<DX::D12CommandQueue> queue(
        new DX::D12CommandQueue(presenter.m_device12, {}));
    return queue->CreateSwapChainForHwnd(window, desc).p;
}

// An output of an adapter that exists only here.
class FakeOutput : public FakeObject {
public:
    FakeOutput(const RECT& rect, DXGI_COLOR_SPACE_TYPE colorSpace)
        : m_rect(rect),
          m_colorSpace(colorSpace) {
        Set(0, [](FakeOutput* self, REFIID riid, void** out) -> HRESULT {
            return IsEqualGUID(riid, __uuidof(IDXGIOutput6)) ? self->GiveTo(out) : E_NOINTERFACE;
        });
        Set(7, [](FakeOutput* self, DXGI_OUTPUT_DESC* desc) -> HRESULT {
            *desc = {};
            desc->DesktopCoordinates = self->m_rect;
            return S_OK;
        });
        Set(27, [](FakeOutput* self, DXGI_OUTPUT_DESC1* desc) -> HRESULT {
            *desc = {};
            desc->ColorSpace = self->m_colorSpace;
            return S_OK;
        });
    }

private:
    RECT m_rect;
    DXGI_COLOR_SPACE_TYPE m_colorSpace;
};

constexpr auto kSDRDisplay = DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
constexpr auto kHDRDisplay = DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020;

// Displays as a test wants them, and a record of what was asked and set.
class HDRSystem {
public:
    HDRSystem(Presenter& presenter, HWND probeWindow) : m_probe(MakeProbe(presenter, probeWindow)) {
        const auto adapter = DX::DXGIFactory::Create()->GetPrimaryAdapter();
        m_enumOutputs.emplace(
            adapter.Get(), [this](auto, IDXGIAdapter*, UINT index, IDXGIOutput** out) -> HRESULT {
                enumerations += index == 0 ? 1 : 0;
                return index < outputs.size()
                           ? outputs[index]->GiveTo(reinterpret_cast<void**>(out))
                           : DXGI_ERROR_NOT_FOUND;
            });
        m_check.emplace(m_probe, [this](auto, auto*, DXGI_COLOR_SPACE_TYPE, UINT* support) {
            *support = isColorSpaceSupported ? 1 : 0;
            return S_OK;
        });
        m_setColorSpace.emplace(m_probe, [this](auto, auto*, DXGI_COLOR_SPACE_TYPE space) {
            colorSpaces.push_back(space);
            return setColorSpaceResult;
        });
        m_setMetadata.emplace(
            m_probe, [this](auto, auto*, DXGI_HDR_METADATA_TYPE type, UINT size, void* data) {
                const auto* bytes = static_cast<const std::uint8_t*>(data);
                metadataType = type;
                metadata.assign(bytes, bytes + size);
                return setMetadataResult;
            });
    }

    IDXGISwapChain* GetProbe() const { return m_probe; }

    void AddOutput(const RECT& rect, DXGI_COLOR_SPACE_TYPE colorSpace) {
        outputs.push_back(std::make_unique<FakeOutput>(rect, colorSpace));
    }

    std::vector<std::unique_ptr<FakeOutput>> outputs;
    int enumerations = 0; // of the adapter's outputs
    bool isColorSpaceSupported = true;
    std::vector<DXGI_COLOR_SPACE_TYPE> colorSpaces; // set so far
    HRESULT setColorSpaceResult = S_OK;
    DXGI_HDR_METADATA_TYPE metadataType = DXGI_HDR_METADATA_TYPE_NONE;
    std::vector<std::uint8_t> metadata;
    HRESULT setMetadataResult = S_OK;

private:
    CComPtr<IDXGISwapChain> m_probe;
    std::optional<Method::EnumOutputs> m_enumOutputs;
    std::optional<Method::CheckColorSpaceSupport> m_check;
    std::optional<Method::SetColorSpace1> m_setColorSpace;
    std::optional<Method::SetHDRMetaData> m_setMetadata;
};

class SwapChainHDRTest : public DXGISwapChainTest {
protected:
    SwapChainHDRTest()
        : m_presenter(GetParam(), m_window.Get()),
          m_system(m_presenter, m_probeWindow.Get()) {
        m_system.AddOutput({0, 0, 1280, 1024}, kHDRDisplay);
    }

    bool EnableHDR() {
        return m_presenter.GetSwapChain().EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F);
    }

    TestWindow m_probeWindow{{16, 16}, SW_HIDE};
    Presenter m_presenter;
    HDRSystem m_system;
};

using SwapChainFormatTest = DXGISwapChainTest;

INSTANTIATE_TEST_SUITE_P(, SwapChainFormatTest, BothGenerations(), &NameOf);
INSTANTIATE_TEST_SUITE_P(, SwapChainHDRTest, BothGenerations(), &NameOf);

std::vector<std::uint8_t> MakeMetadata(const std::vector<unsigned>& primaries) {
    std::vector<std::uint8_t> bytes;
    const auto append = [&bytes](unsigned value, unsigned size) {
        for (unsigned i = 0; i < size; ++i) {
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    };
    for (const unsigned coordinate : primaries) {
        append(coordinate, 2);
    }
    append(15635, 2);
    append(16450, 2);
    append(10000000, 4); // 1000 cd/m2
    append(50, 4);       // 0.005 cd/m2
    append(800, 2);
    append(400, 2);
    return bytes;
}

TEST_P(SwapChainHDRTest, SwitchesToScRGBAndBack) {
    auto& swapChain = m_presenter.GetSwapChain();
    const auto sdr = swapChain.GetConversionInfo(kSRGB, Proc::AlphaType::AlphaIsOne);
    EXPECT_EQ(sdr.target, kSRGB);
    EXPECT_EQ(sdr.mode, Proc::LinearizationMode::DisplayReferred);
    EXPECT_EQ(sdr.GetLinearScale(), 1.0F);
    EXPECT_EQ(sdr.sourceAlpha, Proc::AlphaType::AlphaIsOne);
    EXPECT_EQ(sdr.targetAlpha, Proc::AlphaType::Premultiplied);

    ASSERT_TRUE(EnableHDR());
    EXPECT_TRUE(EnableHDR()) << "already on";
    EXPECT_EQ(m_presenter.GetFormat(), DXGI_FORMAT_R16G16B16A16_FLOAT);
    EXPECT_THAT(m_system.colorSpaces,
                testing::ElementsAre(DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709));
    EXPECT_EQ(m_system.metadataType, DXGI_HDR_METADATA_TYPE_HDR10);
    EXPECT_EQ(m_system.metadata, MakeMetadata({32000, 16500, 15000, 30000, 7500, 3000}));
    const auto hdr = swapChain.GetConversionInfo(kSRGB, Proc::AlphaType::AlphaIsOne);
    EXPECT_EQ(hdr.target.transfer, Conf::TransferCharacteristics::Linear);
    EXPECT_EQ(hdr.mode, Proc::LinearizationMode::DisplayReferredHDR);
    EXPECT_FLOAT_EQ(hdr.GetLinearScale(), 203.0F / 80.0F);
    const auto pq = swapChain.GetConversionInfo(
        {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ},
        Proc::AlphaType::AlphaIsOne);
    EXPECT_FLOAT_EQ(pq.GetLinearScale(), 100.0F / 80.0F) << "PQ is absolute";
    m_presenter.Frame({2.5F, 2.5F, 2.5F, 1.0F});

    swapChain.DisableHDR();
    EXPECT_EQ(m_presenter.GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(m_system.metadataType, DXGI_HDR_METADATA_TYPE_NONE);
    EXPECT_TRUE(m_system.metadata.empty());
    EXPECT_EQ(m_system.colorSpaces.back(), DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709);
    EXPECT_EQ(swapChain.GetConversionInfo(kSRGB, {}).target, kSRGB);
    ExpectOnScreen(m_presenter, kTeal, "back in SDR");
}

TEST_P(SwapChainFormatTest, TakesTenBitsWhereFloatingPointIsNoTarget) {
    const auto device11 = DX::D11Device::CreatePrimary();
    const auto device12 = DX::D12Device::CreatePrimary();
    const Method::CheckFormatSupport no11(device11->Get(), [](auto original, ID3D11Device* self,
                                                              DXGI_FORMAT format, UINT* support) {
        return format == DXGI_FORMAT_R16G16B16A16_FLOAT ? E_FAIL : original(self, format, support);
    });
    const Method::CheckFeatureSupport no12(
        device12->Get(),
        [](auto original, ID3D12Device* self, D3D12_FEATURE feature, void* data, UINT size) {
            const bool isRefused = feature == D3D12_FEATURE_FORMAT_SUPPORT &&
                                   static_cast<D3D12_FEATURE_DATA_FORMAT_SUPPORT*>(data)->Format ==
                                       DXGI_FORMAT_R16G16B16A16_FLOAT;
            return isRefused ? E_FAIL : original(self, feature, data, size);
        });
    Presenter tenBits(GetParam(), m_window.Get());
    const TestWindow probeWindow({16, 16}, SW_HIDE);
    HDRSystem system(tenBits, probeWindow.Get());
    system.AddOutput({0, 0, 1280, 1024}, kHDRDisplay);
    ASSERT_TRUE(tenBits.GetSwapChain().EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F));
    EXPECT_EQ(tenBits.GetFormat(), DXGI_FORMAT_R10G10B10A2_UNORM);
    EXPECT_THAT(system.colorSpaces,
                testing::ElementsAre(DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020));
    EXPECT_EQ(system.metadata, MakeMetadata({35400, 14600, 8500, 39850, 6550, 2300}));
    const auto info = tenBits.GetSwapChain().GetConversionInfo(kSRGB, {});
    EXPECT_EQ(info.target.primaries, Conf::ColorPrimaries::BT2020);
    EXPECT_EQ(info.target.transfer, Conf::TransferCharacteristics::PQ);
    EXPECT_EQ(info.linearScale, 1.0F);
}

TEST_P(SwapChainHDRTest, StaysInSDRWhereTheColorSpaceIsRefused) {
    m_system.isColorSpaceSupported = false;
    EXPECT_FALSE(EnableHDR());
    EXPECT_EQ(m_presenter.GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_TRUE(m_system.colorSpaces.empty());
    ExpectOnScreen(m_presenter, kTeal, "refused");
}

TEST_P(SwapChainHDRTest, TheDisplayUnderMostOfTheWindowDecides) {
    struct Case {
        const char* name;
        std::vector<std::pair<RECT, DXGI_COLOR_SPACE_TYPE>> outputs;
        bool isHDR;
    };
    RECT at = {};
    GetWindowRect(m_window.Get(), &at);
    const long middle = (at.left + at.right) / 2;
    const bool isEven = (at.right - at.left) % 2 == 0;
    const RECT left = {0, 0, middle, 1024};
    const RECT right = {middle, 0, 1280, 1024};
    const RECT most = {at.left + 20, 0, 1280, 1024};
    const RECT rest = {0, 0, at.left + 20, 1024};
    const RECT away = {5000, 0, 6000, 1024};
    const Case cases[] = {
        {"most of it", {{rest, kSDRDisplay}, {most, kHDRDisplay}}, true},
        {"the smaller part", {{rest, kHDRDisplay}, {most, kSDRDisplay}}, false},
        {"equal parts: the first", {{left, kHDRDisplay}, {right, kSDRDisplay}}, isEven},
        {"no part: the first", {{away, kHDRDisplay}, {away, kSDRDisplay}}, true},
        {"no output", {}, false},
    };
    for (const Case& c : cases) {
        m_system.outputs.clear();
        for (const auto& [rect, colorSpace] : c.outputs) {
            m_system.AddOutput(rect, colorSpace);
        }
        m_presenter.GetSwapChain().UpdateDisplayInfo();
        EXPECT_EQ(EnableHDR(), c.isHDR) << c.name;
        m_presenter.GetSwapChain().DisableHDR();
    }
}

TEST_P(SwapChainHDRTest, LooksAtTheDisplayOnlyWhenSomethingMayHaveChanged) {
    auto& swapChain = m_presenter.GetSwapChain();
    EXPECT_TRUE(EnableHDR());
    swapChain.DisableHDR();
    EXPECT_TRUE(EnableHDR());
    EXPECT_EQ(m_system.enumerations, 1) << "the window did not move";
    m_window.MoveTo(60, 60);
    EXPECT_TRUE(EnableHDR());
    EXPECT_EQ(m_system.enumerations, 2);

    m_system.outputs.clear();
    m_system.AddOutput({0, 0, 1280, 1024}, kSDRDisplay);
    EXPECT_TRUE(EnableHDR()) << "still the answer for this place";
    swapChain.UpdateDisplayInfo();
    EXPECT_FALSE(EnableHDR());
    EXPECT_EQ(m_system.enumerations, 3);
    EXPECT_EQ(m_presenter.GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM) << "HDR was switched off";

    // A factory that is no longer current is replaced.
    int created = 0;
    const Method::IsCurrent old(
        [] {
            CComPtr<IDXGIFactory1> factory;
            CreateDXGIFactory1(__uuidof(IDXGIFactory1), reinterpret_cast<void**>(&factory));
            return factory;
        }(),
        [&](auto, auto*) {
            ++created;
            return FALSE;
        });
    swapChain.UpdateDisplayInfo();
    EXPECT_FALSE(EnableHDR());
    EXPECT_EQ(created, 1);
    EXPECT_EQ(m_system.enumerations, 4);
}

TEST_P(SwapChainHDRTest, FailuresSayWhatFailed) {
    auto& swapChain = m_presenter.GetSwapChain();
    m_system.setColorSpaceResult = E_INVALIDARG;
    auto thrown = ThrownBy([&] { EnableHDR(); });
    EXPECT_EQ(thrown.sentence, "Failed to set color space");
    EXPECT_EQ(thrown.function, "SetColorSpace");
    EXPECT_EQ(thrown.result, E_INVALIDARG);
    m_system.setColorSpaceResult = S_OK;
    m_system.setMetadataResult = E_NOTIMPL;
    thrown = ThrownBy([&] { EnableHDR(); });
    EXPECT_EQ(thrown.sentence, "Failed to set HDR metadata");
    EXPECT_EQ(thrown.function, "EnableHDRIfSupported");
    m_system.setMetadataResult = S_OK;
    ASSERT_TRUE(EnableHDR());
    m_system.setMetadataResult = E_NOTIMPL;
    thrown = ThrownBy([&] { swapChain.DisableHDR(); });
    EXPECT_EQ(thrown.sentence, "Failed to set HDR metadata");
    EXPECT_EQ(thrown.function, "DisableHDR");
    m_system.setMetadataResult = S_OK;
    swapChain.DisableHDR();

    {
        const Method::GetBuffer noBuffer(m_system.GetProbe(),
                                         [](auto...) { return DXGI_ERROR_INVALID_CALL; });
        thrown = ThrownBy([&] { swapChain.RecreateBuffers(); });
        EXPECT_EQ(thrown.sentence, "Failed to get back buffer");
        EXPECT_EQ(thrown.result, DXGI_ERROR_INVALID_CALL);
    }
    {
        const Method::ResizeBuffers no11(m_system.GetProbe(),
                                         [](auto...) { return E_OUTOFMEMORY; });
        const Method::ResizeBuffers1 no12(m_system.GetProbe(),
                                          [](auto...) { return E_OUTOFMEMORY; });
        thrown = ThrownBy([&] { swapChain.RecreateBuffers(); });
        EXPECT_EQ(thrown.sentence, "Failed to resize DXGI swap chain buffers");
        EXPECT_EQ(thrown.function, "MakeBuffers");
        EXPECT_EQ(thrown.result, E_OUTOFMEMORY);
    }
    EXPECT_EQ(swapChain.RecreateBuffers(), kClientSize);
    ExpectOnScreen(m_presenter, kTeal, "after the failures");
}

// What holds the raw device: every Direct3D object that is alive.
ULONG CountDeviceObjects(const Presenter& presenter) {
    DX::D12CommandAllocator::WaitAllComplete();
    IUnknown* device = presenter.m_device12 != nullptr
                           ? static_cast<IUnknown*>(presenter.m_device12->Get())
                           : presenter.m_device11->Get();
    device->AddRef();
    return device->Release();
}

TEST_P(SwapChainHDRTest, TwoHundredRandomActionsLeaveNothingBehind) {
    std::mt19937 random(4711);
    auto& swapChain = m_presenter.GetSwapChain();
    ULONG objectsAtHalf = 0;
    const auto act = [&] {
        switch (random() % 6) {
        case 0:
            m_window.Resize(
                {static_cast<long>(120 + random() % 500), static_cast<long>(40 + random() % 400)});
            swapChain.RecreateBuffers();
            break;
        case 1:
            m_window.Show(SW_MINIMIZE);
            swapChain.RecreateBuffers();
            m_window.Show(SW_RESTORE);
            swapChain.RecreateBuffers();
            break;
        case 2:
            EXPECT_TRUE(EnableHDR());
            break;
        case 3:
            swapChain.DisableHDR();
            break;
        case 4:
            m_window.MoveTo(static_cast<long>(random() % 500), static_cast<long>(random() % 400));
            break;
        default:
            break;
        }
        m_presenter.Frame(kOrange);
    };
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(SentenceOf(act), "(nothing)") << "action " << i;
        if (i == 99) {
            objectsAtHalf = CountDeviceObjects(m_presenter);
        }
    }
    // Pools may grow a little; one object left behind in each action would be a hundred.
    EXPECT_NEAR(CountDeviceObjects(m_presenter), objectsAtHalf, 10);
    swapChain.DisableHDR();
    ExpectOnScreen(m_presenter, kTeal, "at the end");
    for (const auto& output : m_system.outputs) {
        EXPECT_EQ(output->GetReferences(), 0);
    }
}

// On a system that shows HDR (run on DXVK, which is told that its display does).
TEST(D3D11RealHDRTest, ADisplayInHDRGetsScRGB) {
    TestWindow window(kClientSize);
    Presenter presenter(Generation::Direct3D11, window.Get());
    auto& swapChain = presenter.GetSwapChain();
    ASSERT_TRUE(swapChain.EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F));
    EXPECT_EQ(presenter.GetFormat(), DXGI_FORMAT_R16G16B16A16_FLOAT);

    Canvas11 canvas(presenter.m_device11);
    const auto draw = [&](const Conf::RGBColorSpace& space, double code) {
        const auto source = canvas.MakeSource(
            MakePixels(1, 1, [code](unsigned, unsigned) { return Color{code, code, code, 1}; }),
            DXGI_FORMAT_R16G16B16A16_UNORM);
        const boost::intrusive_ptr<DX::D11ImageDraw> drawer(
            new DX::D11ImageDraw(presenter.m_device11));
        presenter.m_device11->Encode([&](const auto& context) {
            drawer->Encode(context, source, swapChain.GetRenderTexture(),
                           swapChain.GetConversionInfo(space, Proc::AlphaType::AlphaIsOne), {});
        });
        return canvas.Read(swapChain.GetRenderTexture()->GetTexture()).At(5, 5)[1];
    };
    EXPECT_NEAR(draw(kSRGB, 1.0), 203.0 / 80.0, 0.003) << "SDR white is the reference white";
    constexpr double kCodeOf100Nits = 0.508078; // SMPTE ST 2084
    EXPECT_NEAR(
        draw({Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ}, kCodeOf100Nits),
        100.0 / 80.0, 0.003)
        << "PQ is absolute";
    swapChain.Present();

    swapChain.DisableHDR();
    EXPECT_EQ(presenter.GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(draw(kSRGB, 1.0), 1.0);
    swapChain.Present();
}

} // namespace

} // namespace Norvex::Test
