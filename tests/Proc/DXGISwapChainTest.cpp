// Swap chains of both generations in a real window. What the screen shows is asked of the display
// server.

#include <atomic>
#include <optional>
#include <thread>
#include <utility>

#include "tests/Proc/SwapChainFixture.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

INSTANTIATE_TEST_SUITE_P(, DXGISwapChainTest, BothGenerations(), &NameOf);

TEST_P(DXGISwapChainTest, TheScreenShowsTheFrameWhateverTheWindowDoes) {
    Presenter presenter(GetParam(), m_window.Get());
    auto& swapChain = presenter.GetSwapChain();
    EXPECT_EQ(swapChain.IsD12Level(), GetParam() == Generation::Direct3D12);
    EXPECT_EQ(presenter.GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(presenter.GetSize(), kClientSize);
    ExpectOnScreen(presenter, kOrange, "at first");

    for (const DX::Size2DT<long>& size : {DX::Size2DT<long>{501, 333}, {127, 65}}) {
        m_window.Resize(size);
        EXPECT_EQ(swapChain.RecreateBuffers(), size);
        EXPECT_EQ(presenter.GetSize(), size);
        ExpectOnScreen(presenter, kTeal, "resized");
    }
    m_window.MoveTo(300, 200);
    ExpectOnScreen(presenter, kOrange, "moved");

    m_window.Show(SW_MINIMIZE);
    EXPECT_EQ(swapChain.RecreateBuffers(), (DX::Size2DT<long>{0, 0}));
    EXPECT_EQ(presenter.GetFormat(), DXGI_FORMAT_UNKNOWN) << "there are no targets";
    m_window.Show(SW_RESTORE);
    EXPECT_EQ(swapChain.RecreateBuffers(), (DX::Size2DT<long>{127, 65}));
    ExpectOnScreen(presenter, kTeal, "restored");

    for (const bool isFullScreen : {true, false}) {
        m_window.SetFullScreen(isFullScreen);
        EXPECT_EQ(swapChain.RecreateBuffers(), m_window.GetClientSize());
        ExpectOnScreen(presenter, kOrange, isFullScreen ? "full screen" : "back from full screen");
    }
}

TEST_P(DXGISwapChainTest, TheTargetsAreThoseOfTheGeneration) {
    // Before a frame is shown: a factory that Wine makes meanwhile may wait for ever for its OpenGL
    // context, since Mesa's thread that presents needs the same connection to the display server.
    EXPECT_EQ(DX::DXGISwapChain::Create(nullptr, m_window.Get()), nullptr);
    EXPECT_EQ(SentenceOf([&] { const Presenter none(GetParam(), nullptr); }),
              "Failed to create DXGI swap chain: width = 0, height = 0");
    Presenter presenter(GetParam(), m_window.Get());
    auto& swapChain = presenter.GetSwapChain();
    const bool isD12 = GetParam() == Generation::Direct3D12;
    EXPECT_EQ(swapChain.GetRenderTarget() != nullptr, isD12);
    EXPECT_EQ(swapChain.GetRenderTexture() != nullptr, !isD12);
    if (isD12) {
        const auto first = swapChain.GetRenderTarget();
        presenter.Frame(kOrange);
        EXPECT_NE(swapChain.GetRenderTarget(), first) << "buffers take turns";
        presenter.Frame(kOrange);
        EXPECT_EQ(swapChain.GetRenderTarget(), first);
    }
}

TEST_P(DXGISwapChainTest, AWindowMayComeMinimisedAndGoFirst) {
    m_window.Show(SW_MINIMIZE);
    Presenter presenter(GetParam(), m_window.Get());
    auto& swapChain = presenter.GetSwapChain();
    EXPECT_EQ(presenter.GetFormat(), DXGI_FORMAT_UNKNOWN);
    m_window.Show(SW_RESTORE);
    EXPECT_EQ(swapChain.RecreateBuffers(), kClientSize);
    ExpectOnScreen(presenter, kTeal, "restored");
    m_window.Destroy();
    for (int i = 0; i < 10; ++i) {
        presenter.Frame(kOrange);
    }
    EXPECT_EQ(swapChain.RecreateBuffers(), (DX::Size2DT<long>{0, 0}));
    EXPECT_EQ(presenter.GetFormat(), DXGI_FORMAT_UNKNOWN);
}

// DXGI's own full screen is kept out and left, and Direct3D 11 destroys what was bound and
// released.
TEST_P(DXGISwapChainTest, TheWindowIsLeftToTheNextSwapChain) {
    std::optional<Presenter> presenter(std::in_place, GetParam(), m_window.Get());
    const TestWindow other({16, 16}, SW_HIDE);
    const auto probe = MakeRawSwapChain(GetParam() == Generation::Direct3D12, other.Get());
    CComPtr<IDXGIFactory> factory;
    ASSERT_EQ(probe->GetParent(IID_PPV_ARGS(&factory)), S_OK);
    HWND associated = nullptr;
    UINT association = 0;
    const MethodPatch<&IDXGIFactory::MakeWindowAssociation> associate(
        factory, [&](auto, auto*, HWND window, UINT flags) {
            associated = window;
            association = flags;
            return S_OK;
        });
    presenter.reset();
    presenter.emplace(GetParam(), m_window.Get());
    EXPECT_EQ(associated, m_window.Get());
    EXPECT_EQ(association, UINT{DXGI_MWA_NO_ALT_ENTER});

    bool isFullScreen = true;
    const MethodPatch<&IDXGISwapChain::GetFullscreenState> getState(
        probe, [&](auto, auto*, BOOL* state, auto*) {
            *state = isFullScreen ? TRUE : FALSE;
            return S_OK;
        });
    const MethodPatch<&IDXGISwapChain::SetFullscreenState> setState(
        probe, [&](auto, auto*, BOOL state, auto*) {
            isFullScreen = state != FALSE;
            return S_OK;
        });
    CComPtr<ID3D11DeviceContext> context;
    std::optional<MethodPatch<&ID3D11DeviceContext::Flush>> flush;
    bool isFlushed = false;
    const auto isBound = [&] {
        CComPtr<ID3D11RenderTargetView> bound;
        context->OMGetRenderTargets(1, &bound, nullptr);
        return bound != nullptr;
    };
    const auto bind = [&] {
        const auto view = presenter->GetSwapChain().GetRenderTexture()->GetView();
        context->OMSetRenderTargets(1, &view.p, nullptr);
        EXPECT_TRUE(isBound());
    };
    if (const auto device = presenter->m_device11) {
        context = GetImmediateContext(device->Get());
        bind();
        presenter->GetSwapChain().RecreateBuffers();
        EXPECT_FALSE(isBound());
        bind();
        flush.emplace(context, [&](auto original, ID3D11DeviceContext* self) {
            isFlushed = !isBound();
            original(self);
        });
    }
    presenter.reset();
    EXPECT_FALSE(isFullScreen);
    EXPECT_EQ(isFlushed, GetParam() == Generation::Direct3D11);
    presenter.emplace(GetParam(), m_window.Get());
    ExpectOnScreen(*presenter, kOrange, "by the next one");
}

// What a host keeps with a frame, its render target, and is slow to release.
class SlowFrame : public RefCountImpl {
public:
    SlowFrame(const boost::intrusive_ptr<DX::D12Descriptor>& target, std::atomic<bool>& isReleasing)
        : m_target(target),
          m_isReleasing(isReleasing) {}
    ~SlowFrame() override {
        m_isReleasing = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }

private:
    boost::intrusive_ptr<DX::D12Descriptor> m_target;
    std::atomic<bool>& m_isReleasing;
};

class SwapChainD12Test : public testing::Test {
protected:
    void Resize() { m_swapChain.RecreateBuffers(); }

    TestWindow m_window{kClientSize};
    Presenter m_presenter{Generation::Direct3D12, m_window.Get()};
    DX::DXGISwapChain& m_swapChain = m_presenter.GetSwapChain();
};

// Whatever is late in letting go of the back buffers, making them anew does not fail: neither an
// allocator that was executed after a younger one was handed out, nor one that has just completed.
TEST_F(SwapChainD12Test, BuffersAreMadeAnewRightAfterAFrame) {
    // Both background threads wait, until the gate opens, and release nothing else.
    const auto gate = m_presenter.m_device12->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    gate->PreIncrementValue();
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(m_presenter.m_device12, {}));
    for (int i = 0; i < 2; ++i) {
        const auto allocator = queue->CreateCommandAllocator();
        allocator->Wait(gate);
        allocator->CreateCommandList(nullptr)->Close();
        allocator->Execute();
    }
    {
        const auto early = m_swapChain.CreateCommandAllocator();
        const auto late = m_swapChain.CreateCommandAllocator();
        m_presenter.Record(*early, kTeal);
        early->Execute();
        m_swapChain.Present();
    }
    m_presenter.Frame(kOrange);
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // for the GPU, not the background
    m_swapChain.CreateCommandAllocator();
    EXPECT_EQ(SentenceOf([&] { Resize(); }), "(nothing)");
    gate->GetFence()->Signal(gate->GetValue());
}

// A frame that the background is in the middle of releasing is waited for.
TEST_F(SwapChainD12Test, BuffersAreMadeAnewWhileAFrameIsReleased) {
    std::atomic<bool> isReleasing{false};
    {
        const auto frame = m_swapChain.CreateCommandAllocator();
        frame->CreateCommandList(nullptr)->Close();
        frame->TrackObject(boost::intrusive_ptr<IRefCountable>(
            new SlowFrame(m_swapChain.GetRenderTarget(), isReleasing)));
        frame->Execute();
    }
    while (!isReleasing) {
        std::this_thread::yield();
    }
    EXPECT_EQ(SentenceOf([&] { Resize(); }), "(nothing)");
}

// What refers to the old buffers keeps them, and is not damaged: recorded work most of all.
TEST_F(SwapChainD12Test, RecordedWorkSurvivesARefusedResize) {
    auto frame = m_swapChain.CreateCommandAllocator();
    m_presenter.Record(*frame, kTeal);
    m_window.Resize({200, 100});
    const Thrown thrown = ThrownBy([&] { Resize(); });
    EXPECT_EQ(thrown.sentence, "Failed to resize DXGI swap chain buffers");
    EXPECT_EQ(thrown.result, DXGI_ERROR_INVALID_CALL);
    ASSERT_NE(m_swapChain.GetRenderTarget(), nullptr) << "the old ones";
    EXPECT_EQ(m_presenter.GetSize(), kClientSize);
    frame->Execute();
    m_swapChain.Present();
    EXPECT_EQ(SentenceOf([&] { Resize(); }), "(nothing)") << "executed";
    DX::D12CommandAllocator::WaitAllComplete(); // which holds it as well
    m_presenter.Record(*frame, kTeal);
    frame.reset();
    EXPECT_EQ(SentenceOf([&] { Resize(); }), "(nothing)") << "dropped";
    EXPECT_EQ(m_presenter.GetSize(), (DX::Size2DT<long>{200, 100}));
    m_presenter.Frame(kOrange);
}

// One device serves all windows, and threads that draw elsewhere.
TEST(D3D11PresentTest, WindowsOfOneDeviceMayBelongToThreads) {
    Canvas11 canvas;
    std::atomic<int> presenting{2};
    const auto present = [&] {
        {
            TestWindow window(kClientSize);
            Presenter presenter(Generation::Direct3D11, window.Get());
            for (int i = 0; i < 200; ++i) {
                presenter.Frame(kOrange);
                TestWindow::PumpMessages();
                if (i % 50 == 0) {
                    window.Resize({300 + i, 200});
                    presenter.GetSwapChain().RecreateBuffers();
                }
            }
        }
        --presenting;
    };
    const std::jthread threads[] = {std::jthread(present), std::jthread(present)};
    const auto target = canvas.MakeTarget(4, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    int drawn = 0;
    for (; presenting > 0; ++drawn) {
        const float level = static_cast<float>(drawn % 2);
        canvas.GetDevice()->Encode([&](const auto& context) {
            for (int i = 0; i < 20; ++i) { // long enough for a present to come between
                context->ClearRenderTargetView(target->GetView(), {level, level, level, level});
            }
        });
        EXPECT_EQ(canvas.Read(target->GetTexture()).At(3, 3), (Color{level, level, level, level}));
    }
    EXPECT_GT(drawn, 10);
}

} // namespace

} // namespace Norvex::Test
