#include "Proc/DirectX/Manager/D3Blend.h"

namespace Norvex::DX {

D3D11_RENDER_TARGET_BLEND_DESC MakeBlendDesc11(BlendPreset preset) {
    D3D11_RENDER_TARGET_BLEND_DESC desc = {};
    desc.BlendEnable = preset != BlendPreset::Replace ? TRUE : FALSE;
    desc.SrcBlend = preset == BlendPreset::StraightOver ? D3D11_BLEND_SRC_ALPHA : D3D11_BLEND_ONE;
    desc.DestBlend = preset == BlendPreset::Replace ? D3D11_BLEND_ZERO
                     : preset == BlendPreset::Add   ? D3D11_BLEND_ONE
                                                    : D3D11_BLEND_INV_SRC_ALPHA;
    desc.BlendOp = D3D11_BLEND_OP_ADD;
    desc.SrcBlendAlpha = D3D11_BLEND_ONE;
    desc.DestBlendAlpha = desc.DestBlend;
    desc.BlendOpAlpha = D3D11_BLEND_OP_ADD;
    desc.RenderTargetWriteMask = D3D11_COLOR_WRITE_ENABLE_ALL;
    return desc;
}

} // namespace Norvex::DX
