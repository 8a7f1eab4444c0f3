#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr std::size_t kMaxTargets = D3D12_SIMULTANEOUS_RENDER_TARGET_COUNT;

// Neither blending nor logic operation, all channels written.
constexpr D3D12_RENDER_TARGET_BLEND_DESC kUnblended = {
    .BlendEnable = FALSE,
    .LogicOpEnable = FALSE,
    .SrcBlend = D3D12_BLEND_ONE,
    .DestBlend = D3D12_BLEND_ZERO,
    .BlendOp = D3D12_BLEND_OP_ADD,
    .SrcBlendAlpha = D3D12_BLEND_ONE,
    .DestBlendAlpha = D3D12_BLEND_ZERO,
    .BlendOpAlpha = D3D12_BLEND_OP_ADD,
    .LogicOp = D3D12_LOGIC_OP_NOOP,
    .RenderTargetWriteMask = D3D12_COLOR_WRITE_ENABLE_ALL,
};

D3D12_RENDER_TARGET_BLEND_DESC ToDesc(const D12RenderTargetBlend& target) {
    return {
        .BlendEnable = TRUE,
        .LogicOpEnable = FALSE,
        .SrcBlend = target.srcBlend,
        .DestBlend = target.destBlend,
        .BlendOp = target.blendOp,
        .SrcBlendAlpha = target.srcBlendAlpha,
        .DestBlendAlpha = target.destBlendAlpha,
        .BlendOpAlpha = target.blendOpAlpha,
        .LogicOp = D3D12_LOGIC_OP_NOOP,
        .RenderTargetWriteMask = target.renderTargetWriteMask,
    };
}

D3D12_SHADER_BYTECODE BytecodeOf(const std::shared_ptr<D12Shader>& shader) {
    return shader ? shader->GetShader() : D3D12_SHADER_BYTECODE{};
}

} // namespace

D12BlendState D12BlendState::Of(BlendPreset preset) {
    // The generations' numbers are the same.
    static_assert(int{D3D12_BLEND_INV_SRC_ALPHA} == int{D3D11_BLEND_INV_SRC_ALPHA});
    const D3D11_RENDER_TARGET_BLEND_DESC desc = MakeBlendDesc11(preset);
    D12RenderTargetBlend target;
    target.srcBlend = static_cast<D3D12_BLEND>(desc.SrcBlend);
    target.destBlend = static_cast<D3D12_BLEND>(desc.DestBlend);
    target.srcBlendAlpha = static_cast<D3D12_BLEND>(desc.SrcBlendAlpha);
    target.destBlendAlpha = static_cast<D3D12_BLEND>(desc.DestBlendAlpha);
    D12BlendState state;
    state.targets = {target};
    return state;
}

D3D12_BLEND_DESC D12BlendState::ToDesc() const {
    ThrowUnless<DirectX12Exception>(
        !logicOpEnable || targets.empty(),
        "It's not valid for logic operation and blend to both be enabled");
    ThrowUnless<DirectX12Exception>(targets.size() <= kMaxTargets,
                                    "The number of blend states exceeds the allowed limit");
    D3D12_BLEND_DESC desc = {};
    desc.AlphaToCoverageEnable = alphaToCoverageEnable;
    desc.IndependentBlendEnable = targets.size() > 1;
    std::ranges::fill(desc.RenderTarget, kUnblended);
    std::ranges::transform(targets, desc.RenderTarget,
                           [](const D12RenderTargetBlend& target) { return DX::ToDesc(target); });
    if (logicOpEnable) {
        desc.RenderTarget[0].LogicOpEnable = TRUE;
        desc.RenderTarget[0].LogicOp = logicOp;
        desc.RenderTarget[0].RenderTargetWriteMask = logicOpWriteMask;
    }
    return desc;
}

D3D12_GRAPHICS_PIPELINE_STATE_DESC D12GraphicsPipelineDesc::ToDesc() const {
    D3D12_GRAPHICS_PIPELINE_STATE_DESC desc = {};
    desc.pRootSignature = rootSignature;
    desc.VS = BytecodeOf(vertexShader);
    desc.PS = BytecodeOf(pixelShader);
    desc.BlendState = blend.ToDesc();
    desc.SampleMask = std::numeric_limits<UINT>::max();
    desc.RasterizerState = rasterizer;
    desc.DepthStencilState = depthStencil;
    desc.InputLayout = {inputLayout.data(), static_cast<UINT>(inputLayout.size())};
    desc.IBStripCutValue = stripCutValue;
    desc.PrimitiveTopologyType = primitiveTopologyType;
    ThrowUnless<DirectX12Exception>(renderTargetFormats.size() <= kMaxTargets,
                                    "The number of render targets exceeds the allowed limit");
    desc.NumRenderTargets = static_cast<UINT>(renderTargetFormats.size());
    std::ranges::copy(renderTargetFormats, desc.RTVFormats);
    desc.SampleDesc = sampleDesc;
    return desc;
}

} // namespace Norvex::DX
