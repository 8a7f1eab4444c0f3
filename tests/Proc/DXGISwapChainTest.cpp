// Swap chains of both generations in a real window: what the screen shows is asked of the display
// server. This system's display has no HDR, so that its answers, and those of the swap chain about
// colour spaces, are interposed.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/Generation.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Size = DX::Size2DT<long>;

constexpr Size kClientSize = {320, 200};
constexpr Conf::RGBColorSpace kSRGB = {};
constexpr Conf::RGBColorSpace kPQ = {Conf::ColorPrimaries::BT2020,
                                     Conf::TransferCharacteristics::PQ};
constexpr Proc::ColorF kOrange = {1.0F, 0.5019608F, 0.0F, 1.0F};
constexpr Proc::ColorF kTeal = {0.0F, 0.4F, 0.6F, 1.0F};

// A host's window and its frame loop on either generation.
struct Host {
    explicit Host(Generation generation, int command = SW_SHOWNORMAL)
        : window(kClientSize, command) {
        if (generation == Generation::Direct3D11) {
            device11 = DX::D11Device::CreatePrimary();
        } else {
            device12 = DX::D12Device::CreatePrimary();
        }
        MakeSwapChain();
    }

    void MakeSwapChain() {
        swapChain.reset();
        swapChain = device11 != nullptr ? DX::DXGISwapChain::Create(device11, window.Get())
                                        : DX::DXGISwapChain::Create(device12, window.Get());
    }
    bool EnableHDR() { return swapChain->EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F); }

    // Of the back buffer; UNKNOWN when there is none.
    DXGI_FORMAT GetFormat() const {
        if (const auto target = swapChain->GetRenderTarget()) {
            return target->GetFormat();
        }
        D3D11_TEXTURE2D_DESC desc = {};
        if (const auto texture = swapChain->GetRenderTexture()) {
            texture->GetDesc(&desc);
        }
        return desc.Format;
    }
    // Direct3D 12: records a frame of one colour.
    void Record(DX::D12CommandAllocator& frame, const Proc::ColorF& color) const {
        const auto target = swapChain->GetRenderTarget();
        frame.ClearRenderTargetView(target, D3D12_RESOURCE_STATE_PRESENT, color, {});
        frame.ResourceBarrier({target->Transition(
            D3D12_RESOURCE_STATE_RENDER_TARGET, D3D12_RESOURCE_STATE_PRESENT,
            D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES, D3D12_RESOURCE_BARRIER_FLAG_NONE)});
    }
    // Fills the window.
    void Frame(const Proc::ColorF& color) {
        if (device11 != nullptr) {
            device11->Encode([&](const auto& context) {
                context->ClearRenderTargetView(swapChain->GetRenderTexture()->GetView(), color);
            });
        } else {
            const auto frame = swapChain->CreateCommandAllocator();
            Record(*frame, color);
            frame->Execute();
        }
        swapChain->Present();
    }

    // Presents frames until every corner of the client area shows the colour; after ten seconds
    // that is a failure.
    void ExpectOnScreen(const Proc::ColorF& color, const char* when) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        const auto isShown = [&] {
            const auto [width, height] = window.GetClientSize();
            return IsShownAt(1, 1, color) && IsShownAt(width - 2, 1, color) &&
                   IsShownAt(1, height - 2, color) && IsShownAt(width - 2, height - 2, color);
        };
        do {
            Frame(color);
            TestWindow::PumpMessages();
        } while (!isShown() && std::chrono::steady_clock::now() < end);
        EXPECT_TRUE(isShown()) << when;
    }
    bool IsShownAt(long x, long y, const Proc::ColorF& color) const {
        const auto [r, g, b] = window.GetPixel(x, y);
        const auto isNear = [](int code, float value) {
            return std::fabs(static_cast<float>(code) - 255 * value) < 1.4F;
        };
        return isNear(r, color.r) && isNear(g, color.g) && isNear(b, color.b);
    }

    TestWindow window;
    boost::intrusive_ptr<DX::D11Device> device11;
    boost::intrusive_ptr<DX::D12Device> device12;
    boost::intrusive_ptr<DX::DXGISwapChain> swapChain;
};

class DXGISwapChainTest : public testing::TestWithParam<Generation> {
protected:
    bool IsDirect3D12() const { return GetParam() == Generation::Direct3D12; }
    bool EnableHDR() { return m_host.EnableHDR(); }
    DX::DXGISwapChain& SwapChain() { return *m_host.swapChain; }
    void Switch(bool isHDR) { isHDR ? void(EnableHDR()) : SwapChain().DisableHDR(); }
    void Minimize() {
        m_host.window.Show(SW_MINIMIZE);
        EXPECT_EQ(SwapChain().RecreateBuffers(), Size());
    }

    // Buffers, what is drawn for, and what DXGI was told fit together.
    void ExpectOutput(bool isHDR) {
        EXPECT_EQ(m_host.GetFormat(),
                  isHDR ? DXGI_FORMAT_R16G16B16A16_FLOAT : DXGI_FORMAT_R8G8B8A8_UNORM);
        EXPECT_EQ(SwapChain().GetConversionInfo(kSRGB, {}).mode,
                  isHDR ? Proc::LinearizationMode::DisplayReferredHDR
                        : Proc::LinearizationMode::DisplayReferred);
        EXPECT_EQ(m_display.colorSpace, isHDR ? DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709
                                              : DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709);
    }

    Host m_host{GetParam()};
    HDRDisplay m_display{IsDirect3D12()};
};

INSTANTIATE_TEST_SUITE_P(, DXGISwapChainTest, BothGenerations(), &NameOf);

TEST_P(DXGISwapChainTest, TheScreenShowsTheFrameWhateverTheWindowDoes) {
    EXPECT_EQ(SwapChain().IsD12Level(), IsDirect3D12());
    m_host.ExpectOnScreen(kOrange, "at first");
    for (const Size& size : {Size{501, 333}, {127, 65}}) {
        m_host.window.Resize(size);
        EXPECT_EQ(SwapChain().RecreateBuffers(), size);
        m_host.ExpectOnScreen(kTeal, "resized");
    }
    m_host.window.MoveTo(300, 200);
    m_host.ExpectOnScreen(kOrange, "moved");
    for (const bool isHDR : {true, false}) { // switches while it is minimised
        Minimize();
        Switch(isHDR);
        EXPECT_EQ(m_host.GetFormat(), DXGI_FORMAT_UNKNOWN) << "there are no targets";
        m_host.window.Show(SW_RESTORE);
        EXPECT_EQ(SwapChain().RecreateBuffers(), (Size{127, 65}));
        ExpectOutput(isHDR);
        m_host.Frame(kOrange);
    }
    m_host.ExpectOnScreen(kTeal, "restored");
    m_host.window.FillScreen();
    EXPECT_EQ(SwapChain().RecreateBuffers(), m_host.window.GetClientSize());
    m_host.ExpectOnScreen(kOrange, "full screen");
    if (IsDirect3D12()) {
        return; // Wine's does not survive a window that goes while frames are on their way
    }
    m_host.window.Destroy();
    m_host.Frame(kTeal);
    EXPECT_EQ(SwapChain().RecreateBuffers(), Size());
    EXPECT_EQ(m_host.GetFormat(), DXGI_FORMAT_UNKNOWN);
}

TEST_P(DXGISwapChainTest, AWindowMayComeMinimised) {
    Host host(GetParam(), SW_MINIMIZE);
    EXPECT_EQ(host.GetFormat(), DXGI_FORMAT_UNKNOWN);
    host.window.Show(SW_RESTORE);
    EXPECT_EQ(host.swapChain->RecreateBuffers(), kClientSize);
    host.ExpectOnScreen(kTeal, "restored");
}

// DXGI's own full screen is kept out and left, and Direct3D 11 destroys what was bound and
// released.
TEST_P(DXGISwapChainTest, TheWindowIsLeftToTheNextSwapChain) {
    IDXGISwapChain* const probe = m_display.GetSwapChain();
    CComPtr<IDXGIFactory> factory;
    ASSERT_EQ(probe->GetParent(IID_PPV_ARGS(&factory)), S_OK);
    std::pair<HWND, UINT> association;
    const MethodPatch<&IDXGIFactory::MakeWindowAssociation> associate(
        factory, [&](auto, auto*, HWND window, UINT flags) {
            association = {window, flags};
            return S_OK;
        });
    m_host.MakeSwapChain();
    EXPECT_EQ(association, std::pair(m_host.window.Get(), UINT{DXGI_MWA_NO_ALT_ENTER}));

    BOOL isFullScreen = TRUE;
    const MethodPatch<&IDXGISwapChain::GetFullscreenState> getState(
        probe, [&](auto, auto*, BOOL* state, auto*) {
            *state = isFullScreen;
            return S_OK;
        });
    const MethodPatch<&IDXGISwapChain::SetFullscreenState> setState(
        probe, [&](auto, auto*, BOOL state, auto*) {
            isFullScreen = state;
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
    EXPECT_EQ(isFullScreen, FALSE);
    EXPECT_EQ(isFlushed, !IsDirect3D12());
    m_host.ExpectOnScreen(kOrange, "by the next one");
}

TEST_P(DXGISwapChainTest, SwitchesToScRGBAndBack) {
    const auto sdr = SwapChain().GetConversionInfo(kSRGB, Proc::AlphaType::AlphaIsOne);
    EXPECT_EQ(sdr.target, kSRGB);
    EXPECT_EQ(sdr.GetLinearScale(), 1.0F);
    EXPECT_EQ(sdr.targetAlpha, Proc::AlphaType::Premultiplied);

    ASSERT_TRUE(EnableHDR());
    EXPECT_TRUE(EnableHDR()) << "already on";
    ExpectOutput(true);
    EXPECT_EQ(m_display.metadataType, DXGI_HDR_METADATA_TYPE_HDR10);
    const DXGI_HDR_METADATA_HDR10 expected = {
        {32000, 16500}, {15000, 30000}, {7500, 3000}, {15635, 16450}, 10000000, 50, 800, 400};
    ASSERT_EQ(m_display.metadata.size(), sizeof(expected));
    EXPECT_EQ(std::memcmp(m_display.metadata.data(), &expected, sizeof(expected)), 0);
    const auto hdr = SwapChain().GetConversionInfo(kSRGB, {});
    EXPECT_EQ(hdr.target.transfer, Conf::TransferCharacteristics::Linear);
    EXPECT_FLOAT_EQ(hdr.GetLinearScale(), 203.0F / 80.0F);
    EXPECT_FLOAT_EQ(SwapChain().GetConversionInfo(kPQ, {}).GetLinearScale(), 100.0F / 80.0F)
        << "PQ is absolute";
    m_host.Frame({2.5F, 2.5F, 2.5F, 1.0F});

    SwapChain().DisableHDR();
    ExpectOutput(false);
    EXPECT_EQ(m_display.metadataType, DXGI_HDR_METADATA_TYPE_NONE);
    EXPECT_TRUE(m_display.metadata.empty());
    m_host.ExpectOnScreen(kTeal, "back in SDR");
}

TEST_P(DXGISwapChainTest, TheDisplayUnderMostOfTheWindowDecides) {
    RECT at = {};
    GetWindowRect(m_host.window.Get(), &at);
    const RECT most = {at.left + 20, 0, 1280, 1024};
    const RECT rest = {0, 0, at.left + 20, 1024};
    const RECT away = {5000, 0, 6000, 1024};
    const auto expect = [&](const char* name, const HDRDisplay::Outputs& outputs, bool isHDR) {
        m_display.SetOutputs(outputs);
        SwapChain().UpdateDisplayInfo();
        EXPECT_EQ(EnableHDR(), isHDR) << name;
        SwapChain().DisableHDR();
    };
    expect("most of it", {{rest, false}, {most, true}}, true);
    expect("the smaller part", {{rest, true}, {most, false}}, false);
    expect("equal parts: the first", {{most, true}, {most, false}}, true);
    expect("no part: the first", {{away, true}, {away, false}}, true);
    expect("no output", {}, false);
}

TEST_P(DXGISwapChainTest, LooksAtTheDisplayOnlyWhenSomethingMayHaveChanged) {
    const auto looks = [&] { return m_display.Count(HDRDisplay::EnumOutputs); };
    EXPECT_TRUE(EnableHDR());
    SwapChain().DisableHDR();
    m_display.Switch(false);
    EXPECT_TRUE(EnableHDR()) << "still the answer for this place";
    EXPECT_EQ(looks(), 1);
    m_host.window.MoveTo(60, 60);
    m_display.Fail(HDRDisplay::SetMetadata, 1);
    EXPECT_EQ(SentenceOf([&] { EnableHDR(); }), "Failed to set HDR metadata");
    ExpectOutput(true);
    EXPECT_FALSE(EnableHDR()) << "a look that failed is taken again";
    ExpectOutput(false);
    EXPECT_EQ(looks(), 3);
    m_display.Switch(true);
    EXPECT_FALSE(EnableHDR());
    SwapChain().UpdateDisplayInfo();
    EXPECT_TRUE(EnableHDR());

    // A refused colour space is not asked for again in the same place.
    SwapChain().DisableHDR();
    m_display.Fail(HDRDisplay::CheckColorSpace, 1);
    EXPECT_FALSE(EnableHDR());
    ExpectOutput(false);
    EXPECT_FALSE(EnableHDR());
    m_host.window.MoveTo(80, 80);
    EXPECT_TRUE(EnableHDR());
}

// However a switch ends: what it leaves fits together, and the next one works.
TEST_P(DXGISwapChainTest, AFailedSwitchLeavesTheOutputAsItWas) {
    // The function that tells; null: the operation itself.
    const auto expect = [&](HDRDisplay::Call call, const char* sentence, const char* function) {
        for (const bool isHDR : {true, false}) {
            for (const int times : {1, 99}) {
                SCOPED_TRACE(fmt::format("{}, to HDR: {}, {} times", sentence, isHDR, times));
                Switch(!isHDR);
                m_display.Fail(call, times);
                const Thrown thrown = ThrownBy([&] { Switch(isHDR); });
                EXPECT_EQ(thrown.sentence, sentence);
                EXPECT_EQ(thrown.function, function != nullptr ? function
                                           : isHDR             ? "EnableHDRIfSupported"
                                                               : "DisableHDR");
                EXPECT_EQ(thrown.result, E_ACCESSDENIED);
                m_display.Fail(call, 0);
                if (times > 1) {
                    SwapChain().RecreateBuffers(); // what could not be undone
                }
                ExpectOutput(!isHDR);
                m_host.Frame(kOrange);
                Switch(isHDR);
                ExpectOutput(isHDR);
            }
        }
    };
    expect(HDRDisplay::Resize, "Failed to resize DXGI swap chain buffers", "MakeBuffers");
    expect(HDRDisplay::GetBuffer, "Failed to get back buffer", nullptr);
    expect(HDRDisplay::SetColorSpace, "Failed to set color space", "SetColorSpace");
    expect(HDRDisplay::SetMetadata, "Failed to set HDR metadata", nullptr);
    m_display.Fail(HDRDisplay::GetBuffer, 1);
    EXPECT_EQ(ThrownBy([&] { SwapChain().RecreateBuffers(); }).function, "RecreateBuffers");
    EXPECT_EQ(SwapChain().RecreateBuffers(), kClientSize);
    m_host.ExpectOnScreen(kTeal, "after the failures");
}

TEST(D3D12PresentTest, FramesLeaveNothingBehind) {
    Host host(Generation::Direct3D12);
    for (int i = 0; i < 100; ++i) {
        host.Frame(kTeal);
        DX::D12CommandAllocator::WaitAllComplete(); // so that few are under way at once
    }
    const CComPtr raw(host.device12->Get());
    EXPECT_LT((raw.p->AddRef(), raw.p->Release()), 100U) << "objects, of which a leak has as many";
}

// Whatever is late in letting go of the back buffers, making them anew does not fail: neither an
// allocator that was executed after a younger one was handed out, nor one that has just completed.
TEST(D3D12PresentTest, BuffersAreMadeAnewRightAfterAFrame) {
    Host host(Generation::Direct3D12);
    // Both background threads wait, until the gate opens, and release nothing else.
    const auto gate = host.device12->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    gate->PreIncrementValue();
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(host.device12, {}));
    for (int i = 0; i < 2; ++i) {
        const auto allocator = queue->CreateCommandAllocator();
        allocator->Wait(gate);
        allocator->CreateCommandList(nullptr)->Close();
        allocator->Execute();
    }
    {
        const auto early = host.swapChain->CreateCommandAllocator();
        const auto late = host.swapChain->CreateCommandAllocator();
        host.Record(*early, kTeal);
        early->Execute();
        host.swapChain->Present();
    }
    host.Frame(kOrange);
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // for the GPU, not the background
    host.swapChain->CreateCommandAllocator();
    EXPECT_EQ(SentenceOf([&] { host.swapChain->RecreateBuffers(); }), "(nothing)");
    gate->GetFence()->Signal(gate->GetValue());
}

// What refers to the old buffers keeps them, and is not damaged: recorded work most of all.
TEST(D3D12PresentTest, RecordedWorkSurvivesARefusedResize) {
    Host host(Generation::Direct3D12);
    auto frame = host.swapChain->CreateCommandAllocator();
    host.Record(*frame, kTeal);
    host.window.Resize({200, 100});
    const auto resize = [&] { host.swapChain->RecreateBuffers(); };
    EXPECT_EQ(SentenceOf(resize), "Failed to resize DXGI swap chain buffers");
    ASSERT_NE(host.swapChain->GetRenderTarget(), nullptr) << "the old ones";
    EXPECT_EQ(host.swapChain->GetRenderTarget()->GetSize(), kClientSize);
    frame->Execute();
    host.swapChain->Present();
    EXPECT_EQ(SentenceOf(resize), "(nothing)") << "executed";
    DX::D12CommandAllocator::WaitAllComplete(); // which holds it as well
    host.Record(*frame, kTeal);
    frame.reset();
    EXPECT_EQ(SentenceOf(resize), "(nothing)") << "dropped";
    host.Frame(kOrange);
}

// One device serves all windows, and threads that draw elsewhere.
TEST(D3D11PresentTest, WindowsOfOneDeviceMayBelongToThreads) {
    Canvas11 canvas;
    std::atomic<int> presenting{2};
    const auto present = [&] {
        {
            Host host(Generation::Direct3D11);
            for (int i = 0; i < 200; ++i) {
                host.Frame(kOrange);
                TestWindow::PumpMessages();
                if (i % 50 == 0) {
                    host.window.Resize({300 + i, 200});
                    host.swapChain->RecreateBuffers();
                }
            }
        }
        --presenting;
    };
    const std::jthread threads[] = {std::jthread(present), std::jthread(present)};
    const auto target = canvas.MakeTarget(4, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    for (int drawn = 0; presenting > 0; ++drawn) {
        const float level = static_cast<float>(drawn % 2);
        canvas.Record([&](const auto& context) {
            for (int i = 0; i < 20; ++i) { // long enough for a present to come between
                context->ClearRenderTargetView(target->GetView(), {level, level, level, level});
            }
        });
        EXPECT_EQ(canvas.Read(target).At(3, 3), (Color{level, level, level, level}));
    }
}

// On a system that shows HDR (run on DXVK, which is told that its display does).
TEST(D3D11RealHDRTest, ADisplayInHDRGetsScRGB) {
    Host host(Generation::Direct3D11);
    ASSERT_TRUE(host.EnableHDR());
    EXPECT_EQ(host.GetFormat(), DXGI_FORMAT_R16G16B16A16_FLOAT);
    host.Frame({2.5F, 2.5F, 2.5F, 1.0F});
    host.swapChain->DisableHDR();
    EXPECT_EQ(host.GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM);
    host.Frame(kTeal);
}

} // namespace

} // namespace Norvex::Test
