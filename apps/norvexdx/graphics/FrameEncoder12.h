#pragma once

// Encoding with Direct3D 12, on a queue of its own. The same with Direct3D 11: FrameEncoder11.h.

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "apps/norvexdx/graphics/FrameEncoder.h"

namespace Norvex::App {

// Compiles the shaders.
std::unique_ptr<FrameEncoder> MakeFrameEncoder12(const boost::intrusive_ptr<DX::D12Device>& device,
                                                 const EncoderParams& params,
                                                 const EncoderTextures& textures);

} // namespace Norvex::App
