// What a draw into an open list costs: no memory, no object, and only the calls for what differs.

#include <gtest/gtest.h>

#include "tests/support/DeviceTest.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/OutOfMemory.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using ListPtr = boost::intrusive_ptr<D12GraphicsCommandList>;

constexpr auto kRgba8 = DXGI_FORMAT_R8G8B8A8_UNORM;

class D3D12OpenListTest : public CanvasTest {
protected:
    using View = boost::intrusive_ptr<D12Descriptor>;

    static View MakeSource() { return s_canvas->MakeSource({1, 1, {Color{}}}, kRgba8); }
    static View MakeTarget() { return s_canvas->MakeTarget(16, 16, kRgba8); }
};

template <auto method>
MethodPatch<method> CountCalls(IUnknown* object, int& count) {
    return MethodPatch<method>(object, [&count](auto original, auto... all) {
        ++count;
        return original(all...);
    });
}

TEST_F(D3D12OpenListTest, ADrawMakesNothingAndSetsWhatDiffers) {
    using List = ID3D12GraphicsCommandList;
    const boost::intrusive_ptr draw(new D12ImageDraw(Device()));
    const View sources[] = {MakeSource(), MakeSource()};
    const View target = MakeTarget();
    const auto allocator = Queue()->CreateCommandAllocator();
    const ListPtr list = allocator->CreateCommandList(nullptr);
    const auto drawOf = [&](unsigned source) {
        draw->Encode(list, sources[source], target, {}, {});
    };
    drawOf(0);
    drawOf(1);

    int states = 0;
    int tables = 0;
    int heaps = 0;
    const auto heap = CountCalls<&List::SetDescriptorHeaps>(list->GetGraphics(), heaps);
    const auto table =
        CountCalls<&List::SetGraphicsRootDescriptorTable>(list->GetGraphics(), tables);
    const auto state = CountCalls<&List::SetPipelineState>(list->GetGraphics(), states);
    const auto signature = CountCalls<&List::SetGraphicsRootSignature>(list->GetGraphics(), states);
    const auto targets = CountCalls<&List::OMSetRenderTargets>(list->GetGraphics(), states);
    const auto viewport = CountCalls<&List::RSSetViewports>(list->GetGraphics(), states);
    const auto scissor = CountCalls<&List::RSSetScissorRects>(list->GetGraphics(), states);
    const auto vertices = CountCalls<&List::IASetVertexBuffers>(list->GetGraphics(), states);
    const auto topology = CountCalls<&List::IASetPrimitiveTopology>(list->GetGraphics(), states);
    {
        const OutOfMemory noMemory;
        for (unsigned i = 0; i < 32; ++i) {
            drawOf(i / 16);
        }
    }
    EXPECT_EQ(heaps, 1) << "after a look at the Direct3D list all is set again";
    EXPECT_EQ(tables, 2) << "one a source";
    EXPECT_EQ(states, 7) << "each once";
    list->RSSetViewports({{1, 1, 2, 2, 0, 1}});
    drawOf(1);
    EXPECT_EQ(states, 9) << "the host's viewport and the draw's";
    EXPECT_EQ(tables, 2);
    list->ResourceBarrier({target->Transition(D3D12_RESOURCE_STATE_RENDER_TARGET,
                                              D3D12_RESOURCE_STATE_COPY_SOURCE, 0, {})});
    list->ResourceBarrier({target->Transition(D3D12_RESOURCE_STATE_COPY_SOURCE,
                                              D3D12_RESOURCE_STATE_RENDER_TARGET, 0, {})});
    drawOf(1);
    EXPECT_EQ(tables, 3) << "what the picture holds may have changed";
    const boost::intrusive_ptr another(new D12ImageDraw(Device()));
    another->Encode(list, sources[1], target, {}, {});
    EXPECT_EQ(tables, 4) << "a new root signature has none";

    list->Close();
    NORVEX_EXPECT_REFUSED12("The command list is closed",
                            draw->Encode(list, sources[0], target, {}, {}));
    NORVEX_EXPECT_REFUSED12("There is no command list",
                            draw->Encode(ListPtr(), sources[0], target, {}, {}));
    allocator->Execute();
}

} // namespace
} // namespace Norvex::DX
