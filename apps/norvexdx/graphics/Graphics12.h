#pragma once

// Drawing with Direct3D 12, on a queue of its own. Any thread. Throws what the library throws. The
// same with Direct3D 11: Graphics11.h.

#include <memory>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

std::unique_ptr<Graphics> MakeGraphics12(const boost::intrusive_ptr<DX::D12Device>& device);

FormatUses GetFormatUses(const DX::D12Device& device, DXGI_FORMAT format);

} // namespace Norvex::App
