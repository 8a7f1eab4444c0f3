#pragma once

// How what is drawn meets what the target holds: the usual blends by name, for the drawers of both
// generations and for a host's own pipeline states. Plain values, any thread.

#include <cstdint>

#include "Platform/Direct3D.h"
#include "Platform/Export.h"

namespace Norvex::DX {

// Source is what the pixel shader gives, target what was there. Over a transparent target each
// "over" leaves premultiplied colours.
enum class BlendPreset : std::uint32_t {
    Replace = 0,           // source
    StraightOver = 1,      // colour: source * its alpha + target * (1 - that alpha)
    PremultipliedOver = 2, // source + target * (1 - source alpha)
    Add = 3,               // source + target, for premultiplied colours
};

// In each the alpha of the result is that of one over the other, with Add the sum. All channels are
// written. On Direct3D 12: D12BlendState::Of.
NORVEX_DX_API D3D11_RENDER_TARGET_BLEND_DESC MakeBlendDesc11(BlendPreset preset);

} // namespace Norvex::DX
