#pragma once

// Encoding with Direct3D 11, inside the encodings of the device. The same with Direct3D 12:
// FrameEncoder12.h.

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "apps/norvexdx/graphics/FrameEncoder.h"

namespace Norvex::App {

// Compiles the shaders.
std::unique_ptr<FrameEncoder> MakeFrameEncoder11(const boost::intrusive_ptr<DX::D11Device>& device,
                                                 const EncoderParams& params,
                                                 const EncoderTextures& textures);

} // namespace Norvex::App
