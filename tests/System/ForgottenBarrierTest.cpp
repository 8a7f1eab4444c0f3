// Draws from a texture that is still a copy destination. The driver does it, the validation layer
// must complain: the test's entry fails unless it does.

#include <gtest/gtest.h>

#include "tests/support/Canvas.h"

namespace Norvex::Test {
namespace {

TEST(ForgottenBarrierTest, TheLayerHearsIt) {
    Canvas canvas;
    DX::D12Texture2DDesc desc;
    desc.width = 8;
    desc.height = 8;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    const auto source = canvas.GetDevice()->CreateTextureShaderResourceView(
        canvas.GetDevice()->CreateTexture2D(desc));
    const auto target = canvas.MakeTarget(8, 8, DXGI_FORMAT_R8G8B8A8_UNORM);
    const boost::intrusive_ptr<DX::D12ImageDraw> draw(new DX::D12ImageDraw(canvas.GetDevice()));
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
    draw->Encode(allocator, source, target, std::nullopt, std::nullopt);
    allocator->Execute();
    EXPECT_EQ(canvas.Read(target).width, 8u);
}

} // namespace
} // namespace Norvex::Test
