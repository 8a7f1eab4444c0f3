// What drawers draw into an open list: the same pictures as in lists of their own, with fewer
// calls.

#include <vector>

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
constexpr unsigned kSize = 16;

class D3D12OpenListTest : public CanvasTest {
protected:
    using View = boost::intrusive_ptr<D12Descriptor>;

    static View MakeSource(unsigned seed) {
        return s_canvas->MakeSource(MakePixels(4, 4,
                                               [seed](unsigned x, unsigned y) {
                                                   return Color{x / 3.0, y / 3.0, seed % 7 / 6.0,
                                                                seed % 5 / 4.0};
                                               }),
                                    kRgba8);
    }
    static View MakeTarget() { return s_canvas->MakeTarget(kSize, kSize, kRgba8); }
    static std::vector<std::uint8_t> Read(const View& target) {
        return EncodePixels(s_canvas->Read(target), target->GetFormat());
    }
};

// More draws and more pictures than one buffer of constants and one heap of views hold, with
// drawers in turn, and sources that go before the list is executed.
TEST_F(D3D12OpenListTest, DrawsAreTheSameAsInListsOfTheirOwn) {
    const boost::intrusive_ptr draw(new D12ImageDraw(Device()));
    const boost::intrusive_ptr renderer(new D12ImageRenderer(Device()));
    const boost::intrusive_ptr fill(new D12FillDraw(Device()));
    const boost::intrusive_ptr converter(
        new D12YUVConverter(Device(), Proc::AlphaType::AlphaIsOne));
    Proc::ColorAlphaConversionInfo conversion;
    conversion.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    renderer->SetRotation(0.5F);
    const auto drawAll = [&](const auto& on, const View& target, const View& luma,
                             const View& chroma, const auto& between) {
        for (unsigned i = 0; i < 300; ++i) {
            const View source = MakeSource(i);
            const auto x = static_cast<long>(i % kSize);
            const auto y = static_cast<long>(i / kSize % kSize);
            AffineTransform mirrored;
            mirrored.rows[0][0] = i % 2 == 0 ? 1.0F : -1.0F;
            draw->Encode(on, source, target, mirrored, std::nullopt,
                         Rect2DT<long>{x - 2, y, x + 5, y + 3});
            if (i % 32 == 0) {
                renderer->Encode(on, source, target, conversion, Rect2DT<long>{y, x, y + 4, x + 6});
                between();
                fill->Encode(on, {0.25F, 1, 0, 1}, target, {x, y, x + 1, y + 1});
                fill->Encode(on, {1, 0, 0, 1}, target, {-4, -4, -1, -1}); // nothing of it is seen
                Canvas::Convert(*converter, on, Canvas::TextureOf(source), Canvas::TextureOf(luma),
                                Canvas::TextureOf(chroma), DXGI_FORMAT_NV12,
                                Conf::YCbCrMatrix::BT709);
            }
        }
    };
    View targets[2];
    View lumas[2];
    for (unsigned i = 0; i < 2; ++i) {
        targets[i] = MakeTarget();
        lumas[i] = s_canvas->MakeTarget(kSize, kSize, DXGI_FORMAT_R8_UNORM);
        const View chroma = s_canvas->MakeTarget(kSize / 2, kSize / 2, DXGI_FORMAT_R8G8_UNORM);
        s_canvas->Record([&](const auto& allocator) {
            if (i == 0) {
                drawAll(allocator, targets[i], lumas[i], chroma, [] {});
                return;
            }
            allocator->RecordList(nullptr, [&](const ListPtr& list) {
                // What a host sets between draws is its own affair.
                drawAll(list, targets[i], lumas[i], chroma, [&] {
                    list->OMSetRenderTarget(lumas[i], nullptr);
                    list->RSSetViewports({{1, 1, 2, 2, 0, 1}});
                    list->RSSetScissorRects({{1, 1, 2, 2}});
                    list->IASetVertexBuffer(nullptr);
                    list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_POINTLIST);
                });
            });
        });
    }
    EXPECT_EQ(Read(targets[0]), Read(targets[1]));
    EXPECT_EQ(Read(lumas[0]), Read(lumas[1]));
}

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
    const View sources[] = {MakeSource(1), MakeSource(2)};
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
