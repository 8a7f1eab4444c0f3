#pragma once

// A table of colours as ColorLut.hlsl loads it, internal. Any thread.

#include <array>
#include <vector>

#include "Proc/DirectX/Manager/D3ColorLut.h"

namespace Norvex::DX {

// As DXGI_FORMAT_R32G32B32A32_FLOAT.
using LutQuad = std::array<float, 4>;

// Two that say how it is laid out, then the entries. D3ColorLut::Validate's sentences.
std::vector<LutQuad> MakeLutQuads(const D3ColorLut& lut);

} // namespace Norvex::DX
