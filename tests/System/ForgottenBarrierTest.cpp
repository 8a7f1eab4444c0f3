// Draws from a texture that is still a copy destination. The driver does it, the validation layer
// must complain: the test's entry fails unless it does.

#include <gtest/gtest.h>

#include "tests/support/DeviceTest.h"

namespace Norvex::Test {
namespace {

class ForgottenBarrierTest : public CanvasTest {};

TEST_F(ForgottenBarrierTest, TheLayerHearsIt) {
    DX::D12Texture2DDesc desc;
    desc.width = 8;
    desc.height = 8;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    const auto source = Device()->CreateTextureShaderResourceView(Device()->CreateTexture2D(desc));
    const auto target = s_canvas->MakeTarget(8, 8, desc.format);
    const boost::intrusive_ptr<DX::D12ImageDraw> draw(new DX::D12ImageDraw(Device()));
    const auto allocator = Queue()->CreateCommandAllocator();
    draw->Encode(allocator, source, target, std::nullopt, std::nullopt);
    allocator->Execute();
    EXPECT_EQ(s_canvas->Read(target).width, 8u);
}

} // namespace
} // namespace Norvex::Test
