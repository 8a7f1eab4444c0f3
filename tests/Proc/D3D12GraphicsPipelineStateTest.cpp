#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"

#include <algorithm>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

std::string TextOf(const D3D12_RENDER_TARGET_BLEND_DESC& t) {
    return fmt::format("{} {} {} {} {} {} {} {} {} {}", +t.BlendEnable, +t.LogicOpEnable,
                       +t.SrcBlend, +t.DestBlend, +t.BlendOp, +t.SrcBlendAlpha, +t.DestBlendAlpha,
                       +t.BlendOpAlpha, +t.LogicOp, +t.RenderTargetWriteMask);
}

// What draws do not show; the conversion's other fields do.
TEST(D3D12GraphicsPipelineStateTest, ConvertsUpToEightTargets) {
    const D12RenderTargetBlend over = {D3D12_BLEND_SRC_ALPHA,
                                       D3D12_BLEND_INV_SRC_ALPHA,
                                       D3D12_BLEND_OP_SUBTRACT,
                                       D3D12_BLEND_INV_DEST_ALPHA,
                                       D3D12_BLEND_DEST_ALPHA,
                                       D3D12_BLEND_OP_MAX,
                                       5};
    for (std::size_t count = 0; count <= 9; ++count) {
        D12GraphicsPipelineDesc source;
        source.renderTargetFormats.assign(count, DXGI_FORMAT_R16_FLOAT);
        source.stripCutValue = D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_0xFFFF;
        source.sampleDesc = {4, 1};
        source.blend.logicOpEnable = true;
        source.blend.logicOp = D3D12_LOGIC_OP_XOR;
        source.blend.logicOpWriteMask = 3;
        if (count == 9) {
            Norvex::Test::ExpectFailure12([&] { source.ToDesc(); },
                                          "The number of render targets exceeds the allowed limit",
                                          "ToDesc");
        } else {
            const auto desc = source.ToDesc();
            EXPECT_EQ(desc.NumRenderTargets, count);
            EXPECT_EQ(std::ranges::count(desc.RTVFormats, DXGI_FORMAT_R16_FLOAT), count);
            EXPECT_EQ(desc.IBStripCutValue, D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_0xFFFF);
            EXPECT_EQ(desc.SampleDesc.Quality, 1u);
            EXPECT_EQ(TextOf(desc.BlendState.RenderTarget[0]), "0 1 2 1 1 2 1 1 10 3");
            EXPECT_EQ(TextOf(desc.BlendState.RenderTarget[1]), "0 0 2 1 1 2 1 1 4 15");
        }
        source.blend.targets.assign(count, over);
        if (count > 0) {
            Norvex::Test::ExpectFailure12(
                [&] { source.blend.ToDesc(); },
                "It's not valid for logic operation and blend to both be enabled", "ToDesc");
        }
        source.blend.logicOpEnable = false;
        source.blend.alphaToCoverageEnable = count == 2;
        if (count == 9) {
            Norvex::Test::ExpectFailure12([&] { source.blend.ToDesc(); },
                                          "The number of blend states exceeds the allowed limit",
                                          "ToDesc");
            continue;
        }
        const D3D12_BLEND_DESC desc = source.blend.ToDesc();
        EXPECT_EQ(desc.AlphaToCoverageEnable, count == 2);
        EXPECT_EQ(desc.IndependentBlendEnable, count > 1) << count;
        for (std::size_t i = 0; i < 8; ++i) {
            EXPECT_EQ(TextOf(desc.RenderTarget[i]),
                      i < count ? "1 0 5 6 2 8 7 5 4 5" : "0 0 2 1 1 2 1 1 4 15");
        }
    }
}

} // namespace
} // namespace Norvex::DX
