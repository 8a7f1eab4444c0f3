// Swap chains of both generations in a real window; that the screen shows their frames is the
// viewer's test's. This system's display has no HDR, so that its answers, and those of the swap
// chain about colour spaces, are interposed.

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/DXGIDisplay.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/FrameHost.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::Test {

namespace {

using Size = DX::Size2DT<long>;

// Of the back buffer; UNKNOWN when there is none.
DXGI_FORMAT FormatOf(const FrameHost& host) {
    if (const auto target = host.swapChain->GetRenderTarget()) {
        return target->GetFormat();
    }
    D3D11_TEXTURE2D_DESC desc = {};
    if (const auto texture = host.swapChain->GetRenderTexture()) {
        texture->GetDesc(&desc);
    }
    return desc.Format;
}

class DXGISwapChainTest : public testing::TestWithParam<Generation> {
protected:
    bool IsDirect3D12() const { return GetParam() == Generation::Direct3D12; }
    DX::DXGISwapChain& SwapChain() { return *m_host.swapChain; }
    void Switch(bool isHDR) { isHDR ? void(m_host.EnableHDR()) : SwapChain().DisableHDR(); }

    // Buffers, what is drawn for, and what DXGI was told fit together.
    void ExpectOutput(bool isHDR) {
        using enum Conf::TransferCharacteristics;
        const DXGI_HDR_METADATA_HDR10 metadata = {
            {32000, 16500}, {15000, 30000}, {7500, 3000}, {15635, 16450}, 10000000, 50, 800, 400};
        EXPECT_EQ(FormatOf(m_host),
                  isHDR ? DXGI_FORMAT_R16G16B16A16_FLOAT : DXGI_FORMAT_R8G8B8A8_UNORM);
        EXPECT_EQ(m_display.colorSpace, isHDR ? DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709
                                              : DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709);
        EXPECT_EQ(WordsOf(m_display.metadata.data(), m_display.metadata.size()),
                  WordsOf(&metadata, isHDR ? 1 : 0));
        const auto info = SwapChain().GetConversionInfo({}, {});
        EXPECT_EQ(info.target.transfer, isHDR ? Linear : sRGB);
        EXPECT_EQ(info.mode, isHDR ? Proc::LinearizationMode::DisplayReferredHDR
                                   : Proc::LinearizationMode::DisplayReferred);
        EXPECT_EQ(info.targetAlpha, Proc::AlphaType::Premultiplied);
        EXPECT_FLOAT_EQ(info.GetLinearScale(), isHDR ? 203.0F / 80.0F : 1.0F);
        const auto ofPQ = SwapChain().GetConversionInfo({Conf::ColorPrimaries::BT2020, PQ}, {});
        EXPECT_FLOAT_EQ(ofPQ.GetLinearScale(), 100.0F / (isHDR ? 80.0F : 203.0F)) << "absolute";
    }

    FrameHost m_host{GetParam()};
    HDRDisplay m_display{IsDirect3D12()};
};

INSTANTIATE_TEST_SUITE_P(, DXGISwapChainTest, BothGenerations(), &NameOf);

TEST_P(DXGISwapChainTest, TheBuffersFollowWhateverTheWindowDoes) {
    const Size size = {127, 65};
    m_host.Frame();
    EXPECT_EQ(SwapChain().GetPresentResult(), S_OK);
    {
        const MethodPatch<&IDXGISwapChain::Present> lose(
            m_display.GetSwapChain(), [](auto...) { return DXGI_ERROR_DEVICE_RESET; });
        m_host.Frame();
        EXPECT_TRUE(DX::IsDeviceLoss(SwapChain().GetPresentResult()));
    }
    m_host.window.Place(40, 40, size);
    EXPECT_EQ(SwapChain().RecreateBuffers(), size);
    for (const bool isHDR : {true, false}) { // switches while it is minimised
        m_host.Frame();
        m_host.window.Show(SW_MINIMIZE);
        EXPECT_EQ(SwapChain().RecreateBuffers(), Size());
        Switch(isHDR);
        EXPECT_EQ(FormatOf(m_host), DXGI_FORMAT_UNKNOWN) << "there are no targets";
        if (!isHDR) {
            m_host.MakeSwapChain();
            EXPECT_EQ(FormatOf(m_host), DXGI_FORMAT_UNKNOWN) << "it came minimised";
        }
        m_host.window.Show(SW_RESTORE);
        EXPECT_EQ(SwapChain().RecreateBuffers(), size);
        ExpectOutput(isHDR);
    }
    m_host.Frame();
    if (IsDirect3D12()) {
        return; // Wine's does not survive a window that goes while frames are on their way
    }
    m_host.window.Destroy();
    m_host.Frame();
    EXPECT_EQ(SwapChain().GetPresentResult(), DXGI_ERROR_INVALID_CALL);
    EXPECT_EQ(SwapChain().RecreateBuffers(), Size());
    EXPECT_EQ(FormatOf(m_host), DXGI_FORMAT_UNKNOWN);
}

// DXGI's own full screen is kept out, and Direct3D 11 destroys what was bound and released.
TEST_P(DXGISwapChainTest, TheWindowIsLeftToTheNextSwapChain) {
    CComPtr<IDXGIFactory> factory;
    ASSERT_EQ(m_display.GetSwapChain()->GetParent(IID_PPV_ARGS(&factory)), S_OK);
    UINT association = 0;
    const MethodPatch<&IDXGIFactory::MakeWindowAssociation> associate(
        factory, [&](auto, auto*, HWND, UINT flags) {
            association = flags;
            return S_OK;
        });
    const auto device11 = DX::D11Device::CreatePrimary(); // the host's own, where it has one
    const auto context = GetImmediateContext(device11->Get());
    const auto isBound = [&] {
        CComPtr<ID3D11RenderTargetView> bound;
        context->OMGetRenderTargets(1, &bound, nullptr);
        return bound != nullptr;
    };
    bool isFlushed = false;
    const MethodPatch<&ID3D11DeviceContext::Flush> flush(context, [&](auto original, auto* self) {
        isFlushed = !isBound();
        original(self);
    });
    for (int i = 0; i < 2 && !IsDirect3D12(); ++i) {
        SwapChain().RecreateBuffers();
        EXPECT_FALSE(isBound());
        const auto view = SwapChain().GetRenderTexture()->GetView();
        context->OMSetRenderTargets(1, &view.p, nullptr);
    }
    m_host.MakeSwapChain();
    EXPECT_EQ(association, UINT{DXGI_MWA_NO_ALT_ENTER});
    EXPECT_EQ(isFlushed, !IsDirect3D12());
}

TEST_P(DXGISwapChainTest, TheDisplayUnderMostOfTheWindowDecides) {
    constexpr RECT kRest = {0, 0, 60, 1024}; // the window begins at 40
    constexpr RECT kMost = {60, 0, 1280, 1024};
    constexpr RECT kAway = {5000, 0, 6000, 1024};
    const auto expect = [&](const char* name, const auto& outputs, bool isHDR) {
        m_display.outputs = outputs;
        SwapChain().UpdateDisplayInfo();
        EXPECT_EQ(m_host.EnableHDR(), isHDR) << name;
        SwapChain().DisableHDR();
    };
    using Outputs = decltype(m_display.outputs);
    expect("most of it", Outputs{{kRest, false}, {kMost, true}}, true);
    expect("the smaller part", Outputs{{kRest, true}, {kMost, false}}, false);
    expect("equal parts: the first", Outputs{{kMost, true}, {kMost, false}}, true);
    expect("no part: the first", Outputs{{kAway, true}, {kAway, false}}, true);
    expect("no output", Outputs{}, false);
}

TEST_P(DXGISwapChainTest, LooksAtTheDisplayOnlyWhenSomethingMayHaveChanged) {
    EXPECT_TRUE(m_host.EnableHDR());
    SwapChain().DisableHDR();
    m_display.Switch(false);
    EXPECT_TRUE(m_host.EnableHDR()) << "still the answer for this place";
    m_host.window.Place(60, 60, FrameHost::kSize);
    m_display.Fail(HDRDisplay::SetMetadata, 1);
    EXPECT_EQ(SentenceOf([&] { m_host.EnableHDR(); }), "Failed to set HDR metadata");
    ExpectOutput(true);
    EXPECT_FALSE(m_host.EnableHDR()) << "a look that failed is taken again";
    ExpectOutput(false);
    m_display.Switch(true);
    EXPECT_FALSE(m_host.EnableHDR());
    SwapChain().UpdateDisplayInfo();
    EXPECT_TRUE(m_host.EnableHDR());

    // A refused colour space is not asked for again in the same place.
    SwapChain().DisableHDR();
    m_display.Fail(HDRDisplay::CheckColorSpace, 1);
    EXPECT_FALSE(m_host.EnableHDR());
    ExpectOutput(false);
    EXPECT_FALSE(m_host.EnableHDR());
    m_host.window.Place(80, 80, FrameHost::kSize);
    EXPECT_TRUE(m_host.EnableHDR());

    // What a host reads of it, and the white of the system.
    const auto expect = [&](DX::HDRRefusal refusal, float white) {
        const bool isHDR = refusal == DX::HDRRefusal::None;
        EXPECT_EQ(SwapChain().GetHDRRefusal(), refusal) << to_string(SwapChain().GetHDRRefusal());
        EXPECT_EQ(SwapChain().IsHDREnabled(), isHDR);
        EXPECT_EQ(SwapChain().GetSize(), FrameHost::kSize);
        EXPECT_EQ(SwapChain().GetFormat(), FormatOf(m_host));
        EXPECT_FLOAT_EQ(SwapChain().GetSDRWhite(), white);
        const auto info = SwapChain().GetConversionInfo({}, {});
        EXPECT_FLOAT_EQ(info.GetLinearScale(), isHDR ? white / 80.0F : 1.0F);
    };
    const auto look = [&] {
        SwapChain().UpdateDisplayInfo();
        m_host.EnableHDR();
    };
    using enum DX::HDRRefusal;
    expect(None, 203);
    m_display.sdrWhiteLevel = 3000;
    look();
    expect(None, 203);
    SwapChain().FollowSDRWhite(true);
    expect(None, 240);
    m_display.sdrWhiteLevel = 5000;
    expect(None, 240);
    look();
    expect(None, 400);
    m_display.sdrWhiteLevel = 0;
    look();
    expect(None, 203);
    SwapChain().DisableHDR();
    expect(NotAsked, 203);
    m_display.Fail(HDRDisplay::CheckColorSpace, 1);
    look();
    expect(ColorSpaceRefused, 203);
    m_display.Fail(HDRDisplay::SetColorSpace, 1);
    EXPECT_THROW(look(), DX::DirectXException);
    expect(NotAsked, 203);
    m_display.Switch(false);
    look();
    expect(DisplayInSDR, 203);
    m_display.outputs.clear();
    look();
    expect(NoDisplay, 203);
}

TEST(DXGIDisplayTest, DescribesTheRealOne) {
    const TestWindow window({16, 16});
    const auto ofWindow = DX::DXGIDisplay::Create(window.Get());
    const auto& display = ofWindow->GetDescription();
    EXPECT_THAT(display.name, testing::StartsWith("\\\\.\\DISPLAY"));
    EXPECT_EQ(display.area.right - display.area.left, GetSystemMetrics(SM_CXSCREEN));
    EXPECT_FALSE(display.isHDR);
    const auto same =
        DX::DXGIDisplay::Create(MonitorFromWindow(window.Get(), MONITOR_DEFAULTTONEAREST));
    EXPECT_EQ(display, same->GetDescription());
    EXPECT_EQ(to_string(same->Update()), "nothing");
}

TEST(DXGIDisplayTest, TellsWhatHasChangedAndWhy) {
    constexpr RECT kLeft = {0, 0, 200, 1024};
    constexpr RECT kRight = {200, 0, 1280, 1024};
    HDRDisplay system(false);
    system.outputs = {{kLeft, false}, {kRight, true}};
    bool isCurrent = true;
    const auto factory = DX::DXGIFactory::Create();
    CComPtr<IDXGIFactory1> raw;
    ASSERT_EQ(factory->GetPrimaryAdapter().Get()->GetParent(IID_PPV_ARGS(&raw)), S_OK);
    const MethodPatch<&IDXGIFactory1::IsCurrent> outdate(
        raw, [&](auto, auto*) { return isCurrent ? TRUE : FALSE; });
    TestWindow window({100, 100}); // at 40
    const auto display = DX::DXGIDisplay::Create(window.Get());
    const auto left = DX::DXGIDisplay::Create(reinterpret_cast<HMONITOR>(1));
    const auto expect = [&](const std::string& ofWindow, const std::string& ofLeft) {
        EXPECT_EQ(to_string(display->Update()), ofWindow);
        EXPECT_EQ(to_string(left->Update()), ofLeft);
    };
    expect("nothing", "nothing");
    window.Place(400, 40, {100, 100});
    expect("another monitor: name, area, HDR, colour space", "nothing");
    EXPECT_TRUE(display->GetDescription().isHDR);
    system.sdrWhiteLevel = 3000;
    expect("settings: SDR white", "settings: SDR white");
    EXPECT_EQ(display->GetDescription().sdrWhite, 240.0F);
    system.outputs[1].second = false;
    system.maxLuminance = 600;
    isCurrent = false;
    expect("settings, adapters or outputs: HDR, colour space, luminance",
           "settings, adapters or outputs: luminance");
    isCurrent = true;
    system.outputs[0].first.bottom = 768;
    expect("nothing", "mode: area");
    system.refreshRate = {120000, 1001};
    expect("mode: refresh rate", "mode: refresh rate");
    EXPECT_NEAR(left->GetDescription().refreshRate, 119.88, 0.001);
    system.outputs.clear();
    EXPECT_EQ(display->Update().reasons, DX::DisplayChangeReason::NoMonitor);
    EXPECT_EQ(display->GetDescription(), DX::DisplayDescription());
    EXPECT_EQ(to_string(display->Update()), "nothing");
}

// Whatever is late in letting go of the back buffers, making them anew does not fail: an allocator,
// too, that is executed after a younger one was handed out.
TEST(D3D12PresentTest, FramesLeaveNothingBehind) {
    const FrameHost host(Generation::Direct3D12);
    for (int i = 0; i < 100; ++i) {
        const auto frame = host.swapChain->CreateCommandAllocator();
        host.swapChain->CreateCommandAllocator();
        host.Record(*frame);
        frame->Execute();
        host.swapChain->Present();
        EXPECT_EQ(SentenceOf([&] { host.swapChain->RecreateBuffers(); }), "(nothing)");
    }
    const CComPtr raw(DX::D12Device::CreatePrimary()->Get());
    EXPECT_LT((raw.p->AddRef(), raw.p->Release()), 100U) << "objects, of which a leak has as many";
}

// What refers to the old buffers keeps them, and is not damaged: recorded work most of all.
TEST(D3D12PresentTest, RecordedWorkSurvivesARefusedResize) {
    const FrameHost host(Generation::Direct3D12);
    auto frame = host.swapChain->CreateCommandAllocator();
    host.Record(*frame);
    const auto resize = [&] { return SentenceOf([&] { host.swapChain->RecreateBuffers(); }); };
    EXPECT_EQ(resize(), "Failed to resize DXGI swap chain buffers");
    frame->Execute();
    host.swapChain->Present();
    EXPECT_EQ(resize(), "(nothing)") << "executed";
    DX::D12CommandAllocator::WaitAllComplete(); // which holds it as well
    host.Record(*frame);
    frame.reset();
    EXPECT_EQ(resize(), "(nothing)") << "dropped";
    host.Frame();
}

// One device serves all windows, and threads that draw elsewhere.
TEST(D3D11PresentTest, WindowsOfOneDeviceMayBelongToThreads) {
    Canvas11 canvas;
    RunThreads(3, [&](unsigned thread) {
        FrameHost host(Generation::Direct3D11);
        const auto target = canvas.MakeTarget(4, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
        const auto level = static_cast<float>(thread % 2);
        for (int i = 0; i < 100; ++i) {
            host.Frame();
            canvas.Record([&](const auto& context) {
                for (int j = 0; j < 20; ++j) { // long enough for a present to come between
                    context->ClearRenderTargetView(target->GetView(), {level, level, level, level});
                }
            });
            EXPECT_EQ(canvas.Read(target).At(3, 3), (Color{level, level, level, level}));
            if (i % 25 == 0) {
                host.window.Place(40, 40, {300 + i, 200});
                host.swapChain->RecreateBuffers();
            }
        }
    });
}

// On a system that shows HDR (run on DXVK, which is told that its display does).
TEST(D3D11RealHDRTest, ADisplayInHDRGetsScRGB) {
    const FrameHost host(Generation::Direct3D11);
    ASSERT_TRUE(host.EnableHDR());
    EXPECT_EQ(FormatOf(host), DXGI_FORMAT_R16G16B16A16_FLOAT);
    host.Frame();
    host.swapChain->DisableHDR();
    EXPECT_EQ(FormatOf(host), DXGI_FORMAT_R8G8B8A8_UNORM);
    host.Frame();
}

} // namespace

} // namespace Norvex::Test
