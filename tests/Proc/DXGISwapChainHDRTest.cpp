// HDR output. This system's display has none, so that its answers, and those of the swap chain
// about colour spaces, are interposed.

#include <random>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "tests/Proc/SwapChainFixture.h"
#include "tests/support/Canvas11.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

constexpr auto kSDRSpace = DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
constexpr auto kScRGBSpace = DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709;

bool Enable(Presenter& presenter) {
    return presenter.GetSwapChain().EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F);
}

class SwapChainHDRTest : public DXGISwapChainTest {
protected:
    bool EnableHDR() { return Enable(m_presenter); }

    // Buffers, what is drawn for, and what DXGI was told fit together.
    void ExpectOutput(bool isHDR) {
        EXPECT_EQ(m_presenter.GetFormat(),
                  isHDR ? DXGI_FORMAT_R16G16B16A16_FLOAT : DXGI_FORMAT_R8G8B8A8_UNORM);
        EXPECT_EQ(m_presenter.GetSwapChain().GetConversionInfo(kSRGB, {}).mode,
                  isHDR ? Proc::LinearizationMode::DisplayReferredHDR
                        : Proc::LinearizationMode::DisplayReferred);
        EXPECT_EQ(m_display.colorSpace, isHDR ? kScRGBSpace : kSDRSpace);
    }

    Presenter m_presenter{GetParam(), m_window.Get()};
    HDRDisplay m_display{GetParam() == Generation::Direct3D12};
};

using SwapChainFormatTest = DXGISwapChainTest;

INSTANTIATE_TEST_SUITE_P(, SwapChainFormatTest, BothGenerations(), &NameOf);
INSTANTIATE_TEST_SUITE_P(, SwapChainHDRTest, BothGenerations(), &NameOf);

// Of a display from 0.005 to 1000 cd/m2.
std::vector<std::uint8_t> MakeMetadata(const std::array<UINT16, 6>& xy) {
    const DXGI_HDR_METADATA_HDR10 metadata = {
        {xy[0], xy[1]}, {xy[2], xy[3]}, {xy[4], xy[5]}, {15635, 16450}, 10000000, 50, 800, 400};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&metadata);
    return {bytes, bytes + sizeof(metadata)};
}

TEST_P(SwapChainHDRTest, SwitchesToScRGBAndBack) {
    auto& swapChain = m_presenter.GetSwapChain();
    const auto sdr = swapChain.GetConversionInfo(kSRGB, Proc::AlphaType::AlphaIsOne);
    EXPECT_EQ(sdr.target, kSRGB);
    EXPECT_EQ(sdr.GetLinearScale(), 1.0F);
    EXPECT_EQ(sdr.sourceAlpha, Proc::AlphaType::AlphaIsOne);
    EXPECT_EQ(sdr.targetAlpha, Proc::AlphaType::Premultiplied);
    ExpectOutput(false);

    ASSERT_TRUE(EnableHDR());
    EXPECT_TRUE(EnableHDR()) << "already on";
    ExpectOutput(true);
    EXPECT_EQ(m_display.metadataType, DXGI_HDR_METADATA_TYPE_HDR10);
    EXPECT_EQ(m_display.metadata, MakeMetadata({32000, 16500, 15000, 30000, 7500, 3000}));
    const auto hdr = swapChain.GetConversionInfo(kSRGB, Proc::AlphaType::AlphaIsOne);
    EXPECT_EQ(hdr.target.transfer, Conf::TransferCharacteristics::Linear);
    EXPECT_FLOAT_EQ(hdr.GetLinearScale(), 203.0F / 80.0F);
    const auto pq = swapChain.GetConversionInfo(
        {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ},
        Proc::AlphaType::AlphaIsOne);
    EXPECT_FLOAT_EQ(pq.GetLinearScale(), 100.0F / 80.0F) << "PQ is absolute";
    m_presenter.Frame({2.5F, 2.5F, 2.5F, 1.0F});

    swapChain.DisableHDR();
    ExpectOutput(false);
    EXPECT_EQ(m_display.metadataType, DXGI_HDR_METADATA_TYPE_NONE);
    EXPECT_TRUE(m_display.metadata.empty());
    EXPECT_EQ(swapChain.GetConversionInfo(kSRGB, {}).target, kSRGB);
    ExpectOnScreen(m_presenter, kTeal, "back in SDR");
}

TEST_P(SwapChainFormatTest, TakesTenBitsWhereFloatingPointIsNoTarget) {
    const auto device11 = DX::D11Device::CreatePrimary();
    const auto device12 = DX::D12Device::CreatePrimary();
    const MethodPatch<&ID3D11Device::CheckFormatSupport> no11(
        device11->Get(), [](auto original, ID3D11Device* self, DXGI_FORMAT format, UINT* support) {
            return format == DXGI_FORMAT_R16G16B16A16_FLOAT ? E_FAIL
                                                            : original(self, format, support);
        });
    const MethodPatch<&ID3D12Device::CheckFeatureSupport> no12(
        device12->Get(),
        [](auto original, ID3D12Device* self, D3D12_FEATURE feature, void* data, UINT size) {
            const bool isRefused = feature == D3D12_FEATURE_FORMAT_SUPPORT &&
                                   static_cast<D3D12_FEATURE_DATA_FORMAT_SUPPORT*>(data)->Format ==
                                       DXGI_FORMAT_R16G16B16A16_FLOAT;
            return isRefused ? E_FAIL : original(self, feature, data, size);
        });
    Presenter tenBits(GetParam(), m_window.Get());
    const HDRDisplay display(GetParam() == Generation::Direct3D12);
    ASSERT_TRUE(Enable(tenBits));
    EXPECT_EQ(tenBits.GetFormat(), DXGI_FORMAT_R10G10B10A2_UNORM);
    EXPECT_EQ(display.colorSpace, DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020);
    EXPECT_EQ(display.metadata, MakeMetadata({35400, 14600, 8500, 39850, 6550, 2300}));
    const auto info = tenBits.GetSwapChain().GetConversionInfo(kSRGB, {});
    EXPECT_EQ(info.target.primaries, Conf::ColorPrimaries::BT2020);
    EXPECT_EQ(info.target.transfer, Conf::TransferCharacteristics::PQ);
    EXPECT_EQ(info.linearScale, 1.0F);
}

TEST_P(SwapChainHDRTest, TheDisplayUnderMostOfTheWindowDecides) {
    RECT at = {};
    GetWindowRect(m_window.Get(), &at);
    const long middle = (at.left + at.right) / 2;
    const bool isEven = (at.right - at.left) % 2 == 0;
    const RECT left = {0, 0, middle, 1024};
    const RECT right = {middle, 0, 1280, 1024};
    const RECT most = {at.left + 20, 0, 1280, 1024};
    const RECT rest = {0, 0, at.left + 20, 1024};
    const RECT away = {5000, 0, 6000, 1024};
    const auto expect = [&](const char* name, const HDRDisplay::Outputs& outputs, bool isHDR) {
        m_display.SetOutputs(outputs);
        m_presenter.GetSwapChain().UpdateDisplayInfo();
        EXPECT_EQ(EnableHDR(), isHDR) << name;
        m_presenter.GetSwapChain().DisableHDR();
    };
    expect("most of it", {{rest, false}, {most, true}}, true);
    expect("the smaller part", {{rest, true}, {most, false}}, false);
    expect("equal parts: the first", {{left, true}, {right, false}}, isEven);
    expect("no part: the first", {{away, true}, {away, false}}, true);
    expect("no output", {}, false);
}

TEST_P(SwapChainHDRTest, LooksAtTheDisplayOnlyWhenSomethingMayHaveChanged) {
    auto& swapChain = m_presenter.GetSwapChain();
    const auto looks = [&] { return m_display.Count(HDRDisplay::EnumOutputs); };
    EXPECT_TRUE(EnableHDR());
    swapChain.DisableHDR();
    EXPECT_TRUE(EnableHDR());
    EXPECT_EQ(looks(), 1) << "the window did not move";
    m_window.MoveTo(60, 60);
    EXPECT_TRUE(EnableHDR());
    EXPECT_EQ(looks(), 2);

    m_display.Switch(false);
    EXPECT_TRUE(EnableHDR()) << "still the answer for this place";
    swapChain.UpdateDisplayInfo();
    EXPECT_FALSE(EnableHDR());
    EXPECT_EQ(looks(), 3);
    ExpectOutput(false);

    // A factory that is no longer current is replaced.
    int created = 0;
    CComPtr<IDXGIFactory1> factory;
    ASSERT_EQ(CreateDXGIFactory1(IID_PPV_ARGS(&factory)), S_OK);
    const MethodPatch<&IDXGIFactory1::IsCurrent> old(factory, [&](auto, auto*) {
        ++created;
        return FALSE;
    });
    swapChain.UpdateDisplayInfo();
    EXPECT_FALSE(EnableHDR());
    EXPECT_EQ(created, 1);
    EXPECT_EQ(looks(), 4);
}

TEST_P(SwapChainHDRTest, ARefusedColorSpaceIsNotAskedForAgain) {
    m_display.Fail(HDRDisplay::CheckColorSpace, 1);
    EXPECT_FALSE(EnableHDR());
    ExpectOutput(false);
    const int made = m_display.Count(HDRDisplay::Resize);
    EXPECT_FALSE(EnableHDR());
    EXPECT_EQ(m_display.Count(HDRDisplay::Resize), made);
    ExpectOnScreen(m_presenter, kTeal, "refused");
    m_window.MoveTo(60, 60);
    EXPECT_TRUE(EnableHDR());
}

// However a switch ends: what it leaves fits together, and the next one works.
TEST_P(SwapChainHDRTest, AFailedSwitchLeavesTheOutputAsItWas) {
    auto& swapChain = m_presenter.GetSwapChain();
    const auto switchTo = [&](bool isHDR) { isHDR ? void(EnableHDR()) : swapChain.DisableHDR(); };
    // The function that tells; null: the operation itself.
    const auto expect = [&](HDRDisplay::Call call, const char* sentence, const char* function) {
        for (const auto& [isHDR, times] :
             {std::pair(true, 1), {true, 99}, {false, 1}, {false, 99}}) {
            SCOPED_TRACE(fmt::format("{}, to HDR: {}, {} times", sentence, isHDR, times));
            switchTo(!isHDR);
            m_display.Fail(call, times);
            const Thrown thrown = ThrownBy([&] { switchTo(isHDR); });
            EXPECT_EQ(thrown.sentence, sentence);
            EXPECT_EQ(thrown.function, function != nullptr ? function
                                       : isHDR             ? "EnableHDRIfSupported"
                                                           : "DisableHDR");
            EXPECT_EQ(thrown.result, E_ACCESSDENIED);
            m_display.Fail(call, 0);
            if (times > 1) {
                swapChain.RecreateBuffers(); // what could not be undone
            }
            ExpectOutput(!isHDR);
            m_presenter.Frame(kOrange);
            switchTo(isHDR);
            ExpectOutput(isHDR);
        }
    };
    expect(HDRDisplay::Resize, "Failed to resize DXGI swap chain buffers", "MakeBuffers");
    expect(HDRDisplay::GetBuffer, "Failed to get back buffer", nullptr);
    expect(HDRDisplay::SetColorSpace, "Failed to set color space", "SetColorSpace");
    expect(HDRDisplay::SetMetadata, "Failed to set HDR metadata", nullptr);
    m_display.Fail(HDRDisplay::GetBuffer, 1);
    EXPECT_EQ(ThrownBy([&] { swapChain.RecreateBuffers(); }).function, "RecreateBuffers");
    EXPECT_EQ(swapChain.RecreateBuffers(), kClientSize);
    ExpectOnScreen(m_presenter, kTeal, "after the failures");
}

TEST_P(SwapChainHDRTest, ALookThatFailedIsTakenAgain) {
    auto& swapChain = m_presenter.GetSwapChain();
    EXPECT_TRUE(EnableHDR());
    CComPtr<IDXGIFactory1> factory;
    ASSERT_EQ(CreateDXGIFactory1(IID_PPV_ARGS(&factory)), S_OK);
    m_display.Switch(false);
    m_window.MoveTo(60, 60);
    {
        const FailingMethod<&IDXGIFactory1::EnumAdapters1> enumerate(factory, E_ACCESSDENIED);
        EXPECT_EQ(SentenceOf([&] { EnableHDR(); }), "Failed to obtain adapter: 0");
        ExpectOutput(true);
    }
    m_display.Fail(HDRDisplay::SetMetadata, 1);
    EXPECT_EQ(SentenceOf([&] { EnableHDR(); }), "Failed to set HDR metadata");
    ExpectOutput(true);
    EXPECT_FALSE(EnableHDR()) << "the display is in SDR";
    ExpectOutput(false);
    swapChain.DisableHDR();
    ExpectOutput(false);
}

TEST_P(SwapChainHDRTest, SwitchesWhileTheWindowIsMinimised) {
    auto& swapChain = m_presenter.GetSwapChain();
    for (const bool isHDR : {true, false}) {
        m_window.Show(SW_MINIMIZE);
        swapChain.RecreateBuffers();
        isHDR ? void(EnableHDR()) : swapChain.DisableHDR();
        EXPECT_EQ(m_presenter.GetFormat(), DXGI_FORMAT_UNKNOWN) << "there are no targets";
        m_window.Show(SW_RESTORE);
        EXPECT_EQ(swapChain.RecreateBuffers(), kClientSize);
        ExpectOutput(isHDR);
        m_presenter.Frame(kOrange);
    }
    ExpectOnScreen(m_presenter, kTeal, "in the end");
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
    m_display.SetOutputs({{{0, 0, 1280, 1024}, true}});
    auto& swapChain = m_presenter.GetSwapChain();
    ULONG objectsAtHalf = 0;
    const auto minimize = [&] {
        m_window.Show(SW_MINIMIZE);
        swapChain.RecreateBuffers();
        m_window.Show(SW_RESTORE);
    };
    const auto upTo = [&random](unsigned end) { return static_cast<long>(random() % end); };
    const std::function<void()> actions[] = {
        [&] { m_window.Resize({120 + upTo(500), 40 + upTo(400)}); },
        minimize,
        [&] { EXPECT_TRUE(EnableHDR()); },
        [&] { swapChain.DisableHDR(); },
        [&] { m_window.MoveTo(upTo(500), upTo(400)); },
        [] {},
    };
    const auto act = [&] {
        const auto action = random() % std::size(actions);
        actions[action]();
        if (action < 2) {
            swapChain.RecreateBuffers();
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
    EXPECT_EQ(m_display.CountReferences(), 0);
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
