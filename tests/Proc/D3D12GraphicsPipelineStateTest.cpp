#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"

#include <algorithm>

#include <fmt/format.h>

#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

std::string TextOf(const D3D12_RENDER_TARGET_BLEND_DESC& t) {
    return fmt::format("{} {} {} {} {} {} {} {} {} {}", +t.BlendEnable, +t.LogicOpEnable,
                       +t.SrcBlend, +t.DestBlend, +t.BlendOp, +t.SrcBlendAlpha, +t.DestBlendAlpha,
                       +t.BlendOpAlpha, +t.LogicOp, +t.RenderTargetWriteMask);
}

// What draws do not show.
TEST(D3D12GraphicsPipelineStateTest, ConvertsUpToEightTargets) {
    const D12RenderTargetBlend over = {D3D12_BLEND_SRC_ALPHA,
                                       D3D12_BLEND_INV_SRC_ALPHA,
                                       D3D12_BLEND_OP_SUBTRACT,
                                       D3D12_BLEND_INV_DEST_ALPHA,
                                       D3D12_BLEND_DEST_ALPHA,
                                       D3D12_BLEND_OP_MAX,
                                       5};
    D12GraphicsPipelineDesc source;
    source.blend.logicOp = D3D12_LOGIC_OP_XOR;
    source.blend.logicOpWriteMask = 3;
    source.stripCutValue = D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_0xFFFF;
    source.sampleDesc = {4, 1};
    constexpr auto kUnblended = "0 0 2 1 1 2 1 1 4 15";
    for (std::size_t count = 0; count <= 8; ++count) {
        source.renderTargetFormats.assign(count, DXGI_FORMAT_R16_FLOAT);
        source.blend.targets.assign(count, over);
        source.blend.alphaToCoverageEnable = count == 2;
        const auto desc = source.ToDesc();
        EXPECT_EQ(desc.NumRenderTargets, count);
        EXPECT_EQ(std::ranges::count(desc.RTVFormats, DXGI_FORMAT_R16_FLOAT), count);
        EXPECT_EQ(desc.IBStripCutValue, D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_0xFFFF);
        EXPECT_EQ(desc.SampleDesc.Quality, 1u);
        EXPECT_EQ(desc.BlendState.AlphaToCoverageEnable, count == 2);
        EXPECT_EQ(desc.BlendState.IndependentBlendEnable, count > 1) << count;
        for (std::size_t i = 0; i < 8; ++i) {
            EXPECT_EQ(TextOf(desc.BlendState.RenderTarget[i]),
                      i < count ? "1 0 5 6 2 8 7 5 4 5" : kUnblended);
        }
    }
    source.blend.targets.push_back(over);
    NORVEX_EXPECT_REFUSED12("The number of blend states exceeds the allowed limit",
                            source.blend.ToDesc());
    source.blend.logicOpEnable = true;
    NORVEX_EXPECT_REFUSED12("It's not valid for logic operation and blend to both be enabled",
                            source.blend.ToDesc());
    source.blend.targets.clear();
    EXPECT_EQ(TextOf(source.ToDesc().BlendState.RenderTarget[0]), "0 1 2 1 1 2 1 1 10 3");
    EXPECT_EQ(TextOf(source.ToDesc().BlendState.RenderTarget[1]), kUnblended);
    source.renderTargetFormats.resize(9);
    NORVEX_EXPECT_REFUSED12("The number of render targets exceeds the allowed limit",
                            source.ToDesc());
}

} // namespace
} // namespace Norvex::DX
