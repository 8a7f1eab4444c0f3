#pragma once

// The numbers of the Y'CbCr converters, internal: formats of the planes, the parameters and the
// text of the pixel shader. Pure functions, any thread. E is the exception of the generation.

#include <cstdint>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

#include "Host/Color.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

struct YUVFormat {
    unsigned bitDepth; // of the codes; in the high bits of a sample
    DXGI_FORMAT luma;
    DXGI_FORMAT chroma;
};

// What a converter is set up for.
struct YUVDestination {
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN; // NV12, P010 or P016
    Size2DT<long> size;                       // of the luma, pixels
    Size2DT<long> chromaSize;
    Conf::YCbCrMatrix matrix = Conf::YCbCrMatrix::BT709;

    friend bool operator==(const YUVDestination&, const YUVDestination&) = default;
};

// NV12, P010, P016; nothing for any other.
std::optional<YUVFormat> FindYUVFormat(DXGI_FORMAT format);

// "Unsupported pixel format" for any other.
template <class E>
YUVFormat GetYUVFormat(DXGI_FORMAT format, const std::source_location& location) {
    const auto found = FindYUVFormat(format);
    ThrowUnless<E>(found.has_value(), "Unsupported pixel format", location);
    return *found;
}

// What the texture of one plane is; of none: no format, no size.
struct YUVPlane {
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN;
    Size2DT<long> size;
};

// A texture of a plane has the plane's format or the typeless one of its family.
bool HasPlaneFormat(const YUVPlane& plane, DXGI_FORMAT format);
// Half the width and height, each rounded up or down.
bool IsHalf(const Size2DT<long>& chroma, const Size2DT<long>& luma);

// "Unsupported pixel format", "The chroma plane is expected to have half the size of the luma
// plane".
template <class E>
void CheckYUVPlanes(const YUVFormat& format, const YUVPlane& luma, const YUVPlane& chroma,
                    const std::source_location& location) {
    ThrowUnless<E>(HasPlaneFormat(luma, format.luma) && HasPlaneFormat(chroma, format.chroma),
                   "Unsupported pixel format", location);
    ThrowUnless<E>(IsHalf(chroma.size, luma.size),
                   "The chroma plane is expected to have half the size of the luma plane",
                   location);
}

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
