#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"

#include <algorithm>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::SentenceOf;
using testing::AllOf;
using testing::Field;

using Desc = D3D12_RENDER_TARGET_BLEND_DESC;

constexpr D12RenderTargetBlend kOver = {D3D12_BLEND_SRC_ALPHA,
                                        D3D12_BLEND_INV_SRC_ALPHA,
                                        D3D12_BLEND_OP_SUBTRACT,
                                        D3D12_BLEND_INV_DEST_ALPHA,
                                        D3D12_BLEND_DEST_ALPHA,
                                        D3D12_BLEND_OP_MAX,
                                        5};

auto Blends(BOOL enabled, const D12RenderTargetBlend& blend) {
    return AllOf(
        Field(&Desc::BlendEnable, enabled), Field(&Desc::LogicOpEnable, FALSE),
        Field(&Desc::SrcBlend, blend.srcBlend), Field(&Desc::DestBlend, blend.destBlend),
        Field(&Desc::BlendOp, blend.blendOp), Field(&Desc::SrcBlendAlpha, blend.srcBlendAlpha),
        Field(&Desc::DestBlendAlpha, blend.destBlendAlpha),
        Field(&Desc::BlendOpAlpha, blend.blendOpAlpha), Field(&Desc::LogicOp, D3D12_LOGIC_OP_NOOP),
        Field(&Desc::RenderTargetWriteMask, blend.renderTargetWriteMask));
}

auto IsUnblended() {
    return Blends(FALSE, {D3D12_BLEND_ONE, D3D12_BLEND_ZERO, D3D12_BLEND_OP_ADD, D3D12_BLEND_ONE,
                          D3D12_BLEND_ZERO, D3D12_BLEND_OP_ADD, 15});
}

TEST(D12BlendState, BlendsTheTargetsThatItHas) {
    for (const std::size_t count : {0u, 1u, 2u, 8u}) {
        D12BlendState state;
        state.alphaToCoverageEnable = count == 2;
        state.targets.assign(count, kOver);
        const D3D12_BLEND_DESC desc = state.ToDesc();
        EXPECT_EQ(desc.AlphaToCoverageEnable, count == 2);
        EXPECT_EQ(desc.IndependentBlendEnable, count > 1) << count;
        for (std::size_t i = 0; i < 8; ++i) {
            if (i < count) {
                EXPECT_THAT(desc.RenderTarget[i], Blends(TRUE, kOver)) << i << " of " << count;
            } else {
                EXPECT_THAT(desc.RenderTarget[i], IsUnblended()) << i << " of " << count;
            }
        }
    }
}

TEST(D12BlendState, LogicOperationIsOfTheFirstTarget) {
    D12BlendState state;
    state.logicOpEnable = true;
    state.logicOp = D3D12_LOGIC_OP_XOR;
    state.logicOpWriteMask = 3;
    const D3D12_BLEND_DESC desc = state.ToDesc();
    EXPECT_FALSE(desc.IndependentBlendEnable);
    EXPECT_FALSE(desc.RenderTarget[0].BlendEnable);
    EXPECT_TRUE(desc.RenderTarget[0].LogicOpEnable);
    EXPECT_EQ(desc.RenderTarget[0].LogicOp, D3D12_LOGIC_OP_XOR);
    EXPECT_EQ(desc.RenderTarget[0].RenderTargetWriteMask, 3);
    EXPECT_THAT(std::vector<Desc>(desc.RenderTarget + 1, desc.RenderTarget + 8),
                testing::Each(IsUnblended()));
}

TEST(D12BlendState, RefusesWhatCannotBe) {
    const auto sentenceFor = [](std::size_t targets, bool logicOpEnable) {
        D12BlendState state;
        state.targets.resize(targets);
        state.logicOpEnable = logicOpEnable;
        return SentenceOf([&] { state.ToDesc(); });
    };
    const auto kBoth = "It's not valid for logic operation and blend to both be enabled";
    EXPECT_EQ(sentenceFor(1, true), kBoth);
    EXPECT_EQ(sentenceFor(9, true), kBoth);
    EXPECT_EQ(sentenceFor(9, false), "The number of blend states exceeds the allowed limit");
}

class D3D12GraphicsPipelineStateTest : public Norvex::Test::DeviceTest {
protected:
    static D12GraphicsPipelineDesc MakeDesc() {
        const auto parameters = s_device->CreateShaderParameters();
        parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
        parameters->SerializeRootSignature();
        D12GraphicsPipelineDesc desc;
        desc.rootSignature = parameters->GetRootSignature();
        desc.vertexShader =
            D12Shader::CreateVertex("VsMain", "float4 VsMain(float2 p : POSITION) : SV_POSITION {"
                                              " return float4(p, 0, 1); }");
        desc.pixelShader =
            D12Shader::CreatePixel("PsMain", "float4 PsMain() : SV_TARGET { return 1; }");
        desc.rasterizer = CD3DX12_RASTERIZER_DESC(D3D12_DEFAULT);
        desc.depthStencil = CD3DX12_DEPTH_STENCIL_DESC(D3D12_DEFAULT);
        desc.depthStencil.DepthEnable = FALSE;
        desc.inputLayout = {{"POSITION", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 0,
                             D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0}};
        desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
        return desc;
    }
};

TEST_F(D3D12GraphicsPipelineStateTest, ConvertsEveryField) {
    D12GraphicsPipelineDesc source = MakeDesc();
    source.blend.targets = {kOver};
    source.rasterizer.DepthBias = 77;
    source.depthStencil.StencilReadMask = 0x5A;
    source.stripCutValue = D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_0xFFFF;
    source.renderTargetFormats = {DXGI_FORMAT_R8G8B8A8_UNORM, DXGI_FORMAT_R16_FLOAT};
    source.sampleDesc = {4, 1};
    const D3D12_GRAPHICS_PIPELINE_STATE_DESC desc = source.ToDesc();
    EXPECT_EQ(desc.pRootSignature, source.rootSignature);
    EXPECT_EQ(desc.VS.pShaderBytecode, source.vertexShader->GetShader().pShaderBytecode);
    EXPECT_EQ(desc.VS.BytecodeLength, source.vertexShader->GetShader().BytecodeLength);
    EXPECT_EQ(desc.PS.pShaderBytecode, source.pixelShader->GetShader().pShaderBytecode);
    EXPECT_EQ(desc.PS.BytecodeLength, source.pixelShader->GetShader().BytecodeLength);
    EXPECT_EQ(desc.BlendState.RenderTarget[0].SrcBlend, D3D12_BLEND_SRC_ALPHA);
    EXPECT_EQ(desc.SampleMask, 0xFFFFFFFF);
    EXPECT_EQ(desc.RasterizerState.DepthBias, 77);
    EXPECT_EQ(desc.DepthStencilState.StencilReadMask, 0x5A);
    EXPECT_EQ(desc.InputLayout.pInputElementDescs, source.inputLayout.data());
    EXPECT_EQ(desc.InputLayout.NumElements, 1u);
    EXPECT_EQ(desc.IBStripCutValue, D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_0xFFFF);
    EXPECT_EQ(desc.PrimitiveTopologyType, D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE);
    EXPECT_EQ(desc.NumRenderTargets, 2u);
    EXPECT_THAT(desc.RTVFormats, testing::ElementsAre(DXGI_FORMAT_R8G8B8A8_UNORM,
                                                      DXGI_FORMAT_R16_FLOAT, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(desc.DSVFormat, DXGI_FORMAT_UNKNOWN);
    EXPECT_EQ(desc.SampleDesc.Count, 4u);
    EXPECT_EQ(desc.SampleDesc.Quality, 1u);
    EXPECT_EQ(desc.Flags, D3D12_PIPELINE_STATE_FLAG_NONE);
}

TEST_F(D3D12GraphicsPipelineStateTest, EightTargetsAreTheLimit) {
    D12GraphicsPipelineDesc desc = MakeDesc();
    desc.renderTargetFormats.assign(8, DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(desc.ToDesc().RTVFormats[7], DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_NE(s_device->CreateGraphicsPipelineState(desc), nullptr);
    desc.renderTargetFormats.assign(9, DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(SentenceOf([&] { s_device->CreateGraphicsPipelineState(desc); }),
              "The number of render targets exceeds the allowed limit");
    desc.blend.targets.resize(9);
    EXPECT_EQ(SentenceOf([&] { desc.ToDesc(); }),
              "The number of blend states exceeds the allowed limit");
}

} // namespace
} // namespace Norvex::DX
