#pragma once

// The numbers of the Y'CbCr converters, internal: formats of the planes, the parameters and the
// text of the pixel shader. Pure functions, any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Host/Color.h"
#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::DX {

struct YUVFormat {
    unsigned bitDepth; // of the codes; in the high bits of a sample
    DXGI_FORMAT luma;
    DXGI_FORMAT chroma;
};

// NV12, P010, P016; nothing for any other.
std::optional<YUVFormat> FindYUVFormat(DXGI_FORMAT format);

// The pixel shader's constant buffer, 256 bytes. Narrow range of ITU-R BT.709-6, BT.2020-2 and
// BT.601-7, scaled to the bit depth: luma from 16 to 235, chroma from 16 to 240 about 128, times
// 2^(bitDepth - 8). The codes are divided by 2^bitDepth.
std::vector<std::uint8_t> MakeYUVParams(Proc::AlphaType alphaType, Conf::YCbCrMatrix matrix,
                                        unsigned bitDepth);

// How much of the full-resolution chroma the halved one covers, 1 for all of it: two samples for
// each of its own, also at odd sizes. Beyond the edge the sampler repeats it.
Size2DT<float> GetChromaExtent(const Size2DT<long>& luma, const Size2DT<long>& chroma);

// Entry "PSMain": luma to the first target, chroma to the second.
std::string GetYUVPixelShader();

} // namespace Norvex::DX
