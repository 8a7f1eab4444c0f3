#pragma once

// The library's description of a graphics pipeline and its conversion to Direct3D 12's. Plain
// values; a converted description points into the one it came from, which must outlive it. Throws
// DirectX12Exception without a result code.

#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3Blend.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

namespace Norvex::DX {

// Blending of one enabled render target.
struct D12RenderTargetBlend {
    D3D12_BLEND srcBlend = D3D12_BLEND_ONE;                            // factor of what is drawn
    D3D12_BLEND destBlend = D3D12_BLEND_ZERO;                          // factor of what is there
    D3D12_BLEND_OP blendOp = D3D12_BLEND_OP_ADD;                       // how both are put together
    D3D12_BLEND srcBlendAlpha = D3D12_BLEND_ONE;                       // the same for alpha
    D3D12_BLEND destBlendAlpha = D3D12_BLEND_ZERO;                     // the same for alpha
    D3D12_BLEND_OP blendOpAlpha = D3D12_BLEND_OP_ADD;                  // the same for alpha
    std::uint8_t renderTargetWriteMask = D3D12_COLOR_WRITE_ENABLE_ALL; // channels that are written

    friend bool operator==(const D12RenderTargetBlend&, const D12RenderTargetBlend&) = default;
};

struct NORVEX_DX_API D12BlendState {
    bool alphaToCoverageEnable = false; // for targets of many samples
    // Target i is blend-enabled with these values; at most 8. The others write unblended.
    std::vector<D12RenderTargetBlend> targets;
    D3D12_LOGIC_OP logicOp = D3D12_LOGIC_OP_NOOP; // of all targets
    // Of target 0, when the logic operation is enabled.
    std::uint8_t logicOpWriteMask = D3D12_COLOR_WRITE_ENABLE_ALL;
    // Not together with targets.
    bool logicOpEnable = false;

    // One target that blends in this way, all channels written.
    static D12BlendState Of(BlendPreset preset);

    // "It's not valid for logic operation and blend to both be enabled", "The number of blend
    // states exceeds the allowed limit".
    D3D12_BLEND_DESC ToDesc() const;

    friend bool operator==(const D12BlendState&, const D12BlendState&) = default;
};

struct NORVEX_DX_API D12GraphicsPipelineDesc {
    CComPtr<ID3D12RootSignature> rootSignature;        // of the shaders
    std::shared_ptr<D12Shader> vertexShader;           // null: none
    std::shared_ptr<D12Shader> pixelShader;            // null: none
    D12BlendState blend;                               // of the targets
    D3D12_RASTERIZER_DESC rasterizer = {};             // zeroed: set fill and cull mode
    D3D12_DEPTH_STENCIL_DESC depthStencil = {};        // zeroed: no test
    std::vector<D3D12_INPUT_ELEMENT_DESC> inputLayout; // of the vertex shader
    // which index ends a strip
    D3D12_INDEX_BUFFER_STRIP_CUT_VALUE stripCutValue = D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_DISABLED;
    // set it
    D3D12_PRIMITIVE_TOPOLOGY_TYPE primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_UNDEFINED;
    std::vector<DXGI_FORMAT> renderTargetFormats; // at most 8
    DXGI_SAMPLE_DESC sampleDesc = {1, 0};         // of the targets

    // All samples written, no depth-stencil format (pipelines of this library draw without one),
    // node 0. "The number of render targets exceeds the allowed limit", and what the blend state
    // throws.
    D3D12_GRAPHICS_PIPELINE_STATE_DESC ToDesc() const;
};

} // namespace Norvex::DX
