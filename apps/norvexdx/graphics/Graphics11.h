#pragma once

// Drawing with Direct3D 11. Any thread; work on the device's one context goes through its Encode.
// Throws what the library throws. The same with Direct3D 12: Graphics12.h.

#include <memory>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

std::unique_ptr<Graphics> MakeGraphics11(const boost::intrusive_ptr<DX::D11Device>& device);

FormatUses GetFormatUses(const DX::D11Device& device, DXGI_FORMAT format);

} // namespace Norvex::App
