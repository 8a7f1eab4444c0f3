// A host lets go of what it holds in any order, with work in flight and lists open: then nothing is
// left, nobody has used what was gone, and no lock was held while the host's own objects went.
// NORVEX_STEPS and NORVEX_SEED: how many orders, and which.

#include <any>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "tests/Proc/Direct3D12Fixture.h"
#include "tests/support/Canvas11.h"
#include "tests/support/FakeObject.h"
#include "tests/support/FreedMemory.h"
#include "tests/support/TestWindow.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using namespace std::chrono_literals;
using Held = std::vector<std::any>;

// What a host stores in Direct3D's objects goes with them. Another thread uses the library then.
struct Stored : FakeObject {
    Stored() {
        Set(&IUnknown::Release, [](Stored*) -> ULONG {
            auto other = std::async(std::launch::async, [] {
                D11Device::Find(nullptr);
                D12Device::Find(nullptr);
            });
            EXPECT_EQ(other.wait_for(10s), std::future_status::ready) << "a lock is held";
            return 0;
        });
    }
};

template <class AnyCanvas>
void HoldDrawers(AnyCanvas& canvas, Held& held) {
    const auto& device = canvas.GetDevice();
    const auto source = canvas.MakeSource({1, 1, {Color{}}}, kColor);
    const auto target = canvas.MakeTarget(4, 4, kColor);
    const auto luma = canvas.MakeTarget(4, 4, DXGI_FORMAT_R8_UNORM);
    const auto chroma = canvas.MakeTarget(2, 2, DXGI_FORMAT_R8G8_UNORM);
    const Ptr draw(new typename AnyCanvas::ImageDraw(device));
    const Ptr renderer(new typename AnyCanvas::ImageRenderer(device));
    const Ptr converter(new typename AnyCanvas::Converter(device, Proc::AlphaType::AlphaIsOne));
    const auto drawAll = [&](const auto& on) {
        draw->Encode(on, source, target, {}, {});
        renderer->Encode(on, source, target, {}, {});
        AnyCanvas::Convert(*converter, on, AnyCanvas::TextureOf(source), AnyCanvas::TextureOf(luma),
                           AnyCanvas::TextureOf(chroma), DXGI_FORMAT_NV12,
                           Conf::YCbCrMatrix::BT709);
        held.emplace_back(on);
    };
    canvas.Record(drawAll);
    if constexpr (std::is_same_v<AnyCanvas, Canvas>) {
        canvas.Record([&](const auto& on) { on->RecordList(nullptr, drawAll); });
    }
    held.insert(held.end(), {device, source, target, luma, chroma, draw, renderer, converter});
}

// Returns what opens the way for the work in flight, if anything does.
std::function<void()> Hold(Canvas11& canvas, const TestWindow& window, Held& held) {
    HoldDrawers(canvas, held);
    const auto swapChain = DXGISwapChain::Create(canvas.GetDevice(), window.Get());
    swapChain->Present();
    held.insert(held.end(), {swapChain, swapChain->GetRenderTexture()});
    return [] {};
}

// Without a swap chain: Wine's Direct3D 12 stands still when adapters are listed after frames.
std::function<void()> Hold(Canvas& canvas, const TestWindow&, Held& held) {
    const auto& device = canvas.GetDevice();
    const auto gate = device->CreateCompletionEvent({});
    gate->PreIncrementValue();
    canvas.Record([&](const auto& allocator) {
        allocator->Wait(gate);
        allocator->RecordList(nullptr, [](const auto&) {});
    });
    HoldDrawers(canvas, held);
    const Ptr<D12CommandQueue> other(new D12CommandQueue(device, {}));
    for (const bool isClosed : {true, false}) {
        const auto allocator = other->CreateCommandAllocator();
        const auto list = allocator->CreateCommandList(nullptr);
        const auto query = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
        list->EndQuery(query);
        if (isClosed) {
            list->Close();
        }
        held.insert(held.end(), {allocator, list, query});
    }
    const auto heap = device->CreateShaderViewHeap(2);
    const auto pool = device->CreateBufferPool(kUpload);
    const auto buffer = pool->CreateBuffer(100);
    const auto view = heap->CreateBufferShaderResourceView(buffer->GetResource(), 4);
    const auto visible = device->CreateViewHeap(2);
    const auto textures = D12Texture2DPool::Create(
        device, {.width = 4, .height = 4, .format = kColor, .clearColor = {}});
    held.insert(held.end(), {canvas.GetQueue(), other, gate, heap, pool, buffer, CopyOf(buffer),
                             view, visible, visible->CopyDescriptor(1, view), textures,
                             textures->ObtainTexture(), device->CreateShaderParameters()});
    return [fence = gate->GetFence()] { fence.p->Signal(1); };
}

template <class>
class ReleaseOrderTest : public testing::Test {};
TYPED_TEST_SUITE(ReleaseOrderTest, BothCanvases, CanvasName);

TYPED_TEST(ReleaseOrderTest, NothingIsLeftWhateverGoesFirst) {
    std::mt19937 random(FromEnvironment("NORVEX_SEED", 1));
    const unsigned orders = FromEnvironment("NORVEX_STEPS", 3);
    for (unsigned order = 0; order < orders && !this->HasFailure(); ++order) {
        SCOPED_TRACE(order);
        KeepFreedMemory();
        Stored stored;
        const TestWindow window({64, 64});
        Held held;
        auto canvas = std::make_unique<TypeParam>();
        auto open = Hold(*canvas, window, held);
        const LifeProbe device(canvas->GetDevice()->Get());
        canvas->GetDevice()->Get()->SetPrivateDataInterface(__uuidof(IUnknown),
                                                            stored.As<IUnknown>());
        canvas.reset();
        std::ranges::shuffle(held, random);
        std::jthread opener([open = std::exchange(open, {}), delay = random() % 8] {
            std::this_thread::sleep_for(delay * 1ms);
            open();
        });
        for (std::any& object : held) {
            object.reset();
        }
        opener.join();
        D12CommandAllocator::WaitAllComplete();
        for (int i = 0; i < 100 && device.IsAlive(); ++i) { // threads of the system's may hold it
            std::this_thread::sleep_for(10ms);
        }
        EXPECT_FALSE(device.IsAlive());
    }
}

} // namespace
} // namespace Norvex::DX
