// Swap chains of both generations in a real window. What the screen shows is asked of the display
// server.

#include <thread>

#include "tests/Proc/SwapChainFixture.h"
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

// Two submissions that wait for ever, so that both background threads wait for them and release
// nothing else.
class BusyBackground {
public:
    explicit BusyBackground(const boost::intrusive_ptr<DX::D12Device>& device)
        : m_gate(device->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE)),
          m_queue(new DX::D12CommandQueue(device, {})) {
        m_gate->PreIncrementValue();
        for (int i = 0; i < 2; ++i) {
            const auto allocator = m_queue->CreateCommandAllocator();
            allocator->Wait(m_gate);
            allocator->CreateCommandList(nullptr)->Close();
            allocator->Execute();
        }
    }
    ~BusyBackground() { m_gate->GetFence()->Signal(m_gate->GetValue()); }
    BusyBackground(const BusyBackground&) = delete;
    BusyBackground& operator=(const BusyBackground&) = delete;

private:
    boost::intrusive_ptr<DX::D12CompletionEvent> m_gate;
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
};

// Whatever is late in letting go of the back buffers, making them anew does not fail: neither an
// allocator that was executed after a younger one was handed out, nor one that has just completed.
TEST(SwapChainD12Test, BuffersAreMadeAnewRightAfterAFrame) {
    const TestWindow window(kClientSize);
    Presenter presenter(Generation::Direct3D12, window.Get());
    auto& swapChain = presenter.GetSwapChain();
    const BusyBackground busy(presenter.m_device12);
    {
        const auto target = swapChain.GetRenderTarget();
        const auto early = swapChain.CreateCommandAllocator();
        const auto late = swapChain.CreateCommandAllocator();
        early->ClearRenderTargetView(target, kPresent, kTeal, {});
        early->ResourceBarrier(
            {target->Transition(kRenderTarget, kPresent, D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES,
                                D3D12_RESOURCE_BARRIER_FLAG_NONE)});
        early->Execute();
        swapChain.Present();
    }
    presenter.Frame(kOrange);
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // for the GPU, not the background
    swapChain.CreateCommandAllocator();
    EXPECT_EQ(SentenceOf([&] { swapChain.RecreateBuffers(); }), "(nothing)");
}

} // namespace

} // namespace Norvex::Test
