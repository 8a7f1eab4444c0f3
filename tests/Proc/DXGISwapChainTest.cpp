// Swap chains of both generations in a real window; that the screen shows their frames is the
// viewer's test's. This system's display has no HDR, so that its answers, and those of the swap
// chain about colour spaces, are interposed.

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/FrameHost.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/Thrown.h"

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
        EXPECT_EQ(FormatOf(m_host),
                  isHDR ? DXGI_FORMAT_R16G16B16A16_FLOAT : DXGI_FORMAT_R8G8B8A8_UNORM);
        EXPECT_EQ(m_display.colorSpace, isHDR ? DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709
                                              : DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709);
        const auto info = SwapChain().GetConversionInfo({}, {});
        EXPECT_EQ(info.target.transfer, isHDR ? Linear : sRGB);
        EXPECT_EQ(info.mode, isHDR ? Proc::LinearizationMode::DisplayReferredHDR
                                   : Proc::LinearizationMode::DisplayReferred);
        EXPECT_FLOAT_EQ(info.GetLinearScale(), isHDR ? 203.0F / 80.0F : 1.0F);
        EXPECT_EQ(info.targetAlpha, Proc::AlphaType::Premultiplied);
    }

    FrameHost m_host{GetParam()};
    HDRDisplay m_display{IsDirect3D12()};
};

INSTANTIATE_TEST_SUITE_P(, DXGISwapChainTest, BothGenerations(), &NameOf);

TEST_P(DXGISwapChainTest, TheBuffersFollowWhateverTheWindowDoes) {
    const Size size = {127, 65};
    m_host.Frame();
    m_host.window.Resize(size);
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

TEST_P(DXGISwapChainTest, SwitchesToScRGBAndBack) {
    ExpectOutput(false);
    ASSERT_TRUE(m_host.EnableHDR());
    EXPECT_TRUE(m_host.EnableHDR()) << "already on";
    ExpectOutput(true);
    const DXGI_HDR_METADATA_HDR10 expected = {
        {32000, 16500}, {15000, 30000}, {7500, 3000}, {15635, 16450}, 10000000, 50, 800, 400};
    ASSERT_EQ(m_display.metadata.size(), sizeof(expected));
    EXPECT_EQ(std::memcmp(m_display.metadata.data(), &expected, sizeof(expected)), 0);
    const Conf::RGBColorSpace pq = {Conf::ColorPrimaries::BT2020,
                                    Conf::TransferCharacteristics::PQ};
    EXPECT_FLOAT_EQ(SwapChain().GetConversionInfo(pq, {}).GetLinearScale(), 100.0F / 80.0F)
        << "PQ is absolute";
    m_host.Frame();
    SwapChain().DisableHDR();
    ExpectOutput(false);
    EXPECT_TRUE(m_display.metadata.empty());
}

TEST_P(DXGISwapChainTest, TheDisplayUnderMostOfTheWindowDecides) {
    constexpr RECT kRest = {0, 0, 60, 1024}; // the window begins at 40
    constexpr RECT kMost = {60, 0, 1280, 1024};
    constexpr RECT kAway = {5000, 0, 6000, 1024};
    const struct {
        const char* name;
        std::vector<std::pair<RECT, bool>> outputs;
        bool isHDR;
    } kCases[] = {
        {"most of it", {{kRest, false}, {kMost, true}}, true},
        {"the smaller part", {{kRest, true}, {kMost, false}}, false},
        {"equal parts: the first", {{kMost, true}, {kMost, false}}, true},
        {"no part: the first", {{kAway, true}, {kAway, false}}, true},
        {"no output", {}, false},
    };
    for (const auto& [name, outputs, isHDR] : kCases) {
        m_display.outputs = outputs;
        SwapChain().UpdateDisplayInfo();
        EXPECT_EQ(m_host.EnableHDR(), isHDR) << name;
        SwapChain().DisableHDR();
    }
}

TEST_P(DXGISwapChainTest, LooksAtTheDisplayOnlyWhenSomethingMayHaveChanged) {
    EXPECT_TRUE(m_host.EnableHDR());
    SwapChain().DisableHDR();
    m_display.Switch(false);
    EXPECT_TRUE(m_host.EnableHDR()) << "still the answer for this place";
    m_host.window.MoveTo(60, 60);
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
    m_host.window.MoveTo(80, 80);
    EXPECT_TRUE(m_host.EnableHDR());
}

// However a switch ends: what it leaves fits together, and the next one works.
TEST_P(DXGISwapChainTest, AFailedSwitchLeavesTheOutputAsItWas) {
    // The function that tells; null: the operation itself.
    const auto expect = [&](HDRDisplay::Call call, const char* sentence, const char* function) {
        for (const bool isHDR : {true, false}) {
            for (const int times : {1, 99}) {
                SCOPED_TRACE(fmt::format("{}, to HDR: {}, {} times", sentence, isHDR, times));
                const char* operation = isHDR ? "EnableHDRIfSupported" : "DisableHDR";
                Switch(!isHDR);
                m_display.Fail(call, times);
                const Thrown thrown = ThrownBy([&] { Switch(isHDR); });
                EXPECT_EQ(thrown.sentence, sentence);
                EXPECT_EQ(thrown.function, function != nullptr ? function : operation);
                EXPECT_EQ(thrown.result, E_ACCESSDENIED);
                m_display.Fail(call, 0);
                if (times > 1) {
                    SwapChain().RecreateBuffers(); // what could not be undone
                }
                ExpectOutput(!isHDR);
                m_host.Frame();
                Switch(isHDR);
                ExpectOutput(isHDR);
            }
        }
    };
    expect(HDRDisplay::Resize, "Failed to resize DXGI swap chain buffers", "MakeBuffers");
    expect(HDRDisplay::GetBuffer, "Failed to get back buffer", nullptr);
    expect(HDRDisplay::SetColorSpace, "Failed to set color space", "SetColorSpace");
    expect(HDRDisplay::SetMetadata, "Failed to set HDR metadata", nullptr);
}

TEST(D3D12PresentTest, FramesLeaveNothingBehind) {
    const FrameHost host(Generation::Direct3D12);
    for (int i = 0; i < 100; ++i) {
        host.Frame();
        DX::D12CommandAllocator::WaitAllComplete(); // so that few are under way at once
    }
    const CComPtr raw(host.device12->Get());
    EXPECT_LT((raw.p->AddRef(), raw.p->Release()), 100U) << "objects, of which a leak has as many";
}

// Whatever is late in letting go of the back buffers, making them anew does not fail: neither an
// allocator that was executed after a younger one was handed out, nor one that has just completed.
TEST(D3D12PresentTest, BuffersAreMadeAnewRightAfterAFrame) {
    const FrameHost host(Generation::Direct3D12);
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
        host.Record(*early);
        early->Execute();
        host.swapChain->Present();
    }
    host.Frame();
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // for the GPU, not the background
    host.swapChain->CreateCommandAllocator();
    EXPECT_EQ(SentenceOf([&] { host.swapChain->RecreateBuffers(); }), "(nothing)");
    gate->GetFence()->Signal(gate->GetValue());
}

// What refers to the old buffers keeps them, and is not damaged: recorded work most of all.
TEST(D3D12PresentTest, RecordedWorkSurvivesARefusedResize) {
    FrameHost host(Generation::Direct3D12);
    auto frame = host.swapChain->CreateCommandAllocator();
    host.Record(*frame);
    host.window.Resize({200, 100});
    const auto resize = [&] { return SentenceOf([&] { host.swapChain->RecreateBuffers(); }); };
    EXPECT_EQ(resize(), "Failed to resize DXGI swap chain buffers");
    ASSERT_NE(host.swapChain->GetRenderTarget(), nullptr) << "the old ones";
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
    std::atomic<int> presenting{2};
    const auto present = [&] {
        {
            FrameHost host(Generation::Direct3D11);
            for (int i = 0; i < 200; ++i) {
                host.Frame();
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
