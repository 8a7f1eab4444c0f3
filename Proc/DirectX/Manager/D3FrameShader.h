#pragma once

// What the drawers and converters of frames tell their shaders, internal: parameters, texts, which
// planes a pass of a converter writes, and whether textures hold a frame. Pure functions, any
// thread. E is the exception of the generation.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <source_location>
#include <span>
#include <string>
#include <vector>

#include "Host/ColorConversionInfo.h"
#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3Frame.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

using FrameVector = std::array<float, 4>;

// The second constant buffer, FrameSource.hlsl.
struct D3FrameParams {
    FrameVector sampleZero = {};
    std::array<FrameVector, 3> colorsOfSamples = {};
    std::array<float, 2> chromaScale = {};
    std::array<float, 2> chromaShift = {};
    std::array<std::int32_t, 2> lastLuma = {};
    std::array<std::int32_t, 2> lastChroma = {};
    std::uint32_t planeCount = 1;
    std::uint32_t chromaFilter = 0;
    std::uint32_t isPlain = 0;
    float dither = 0.0F;
    // Of a target's pass.
    std::array<FrameVector, 3> codesOfColors = {};
    FrameVector smallestCodes = {};
    FrameVector largestCodes = {};
    std::array<std::int32_t, 2> tapFirst = {};
    std::array<std::int32_t, 2> tapCount = {1, 1};
    std::array<std::int32_t, 2> tapStep = {1, 1};
    float codeUnit = 1.0F;
    std::array<float, 9> unused = {}; // up to 256 bytes
};
static_assert(sizeof(D3FrameParams) == 256);

// Planes of one size, which one pass writes.
struct FramePass {
    unsigned firstPlane = 0;
    unsigned planeCount = 1;

    // Which of the kFramePassKinds shaders draws it.
    std::size_t GetKind() const { return (firstPlane != 0 ? 2U : 0U) + (planeCount > 1 ? 1U : 0U); }
};

// Of who draws from the frame.
D3FrameParams MakeFrameParams(const D3FrameDesc& source, ChromaFilter chromaFilter);

// What the shaders of a converter are told.
struct FrameConversion {
    std::vector<FramePass> passes;
    D3ImageParams image;
    std::vector<D3FrameParams> frames; // one a pass
};
FrameConversion MakeFrameConversion(const D3FrameDesc& source, const D3FrameDesc& target,
                                    const FrameConvertParams& params);
// Whether the shaders have it: from no linear light, and to none with BT.2020's primaries.
bool CanConvert(const Conf::RGBColorSpace& source, const Conf::RGBColorSpace& target);
// "The frame's colors cannot be converted to these"; without a conversion all is well.
template <class E>
void CheckFrameConversion(const D3FrameDesc& source,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::source_location& location) {
    ThrowUnless<E>(!conversion || CanConvert(source.colorSpace, conversion->target),
                   "The frame's colors cannot be converted to these", location);
}

// What was given as one of a frame's textures; of none: no format, no slices.
struct FrameTexture {
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN;
    Size2DT<long> size;
    unsigned slices = 0;
};
using FrameTextures = std::array<FrameTexture, 3>;

FrameTextures DescribeTextures(const D12Frame& frame);
FrameTextures DescribeTextures(const D11Frame& frame);

// Whether one texture holds all planes.
bool IsPlanar(const D3FrameDesc& frame, const FrameTextures& textures);
// The frame in itself, and beside its textures: a sentence, or null.
const char* FindFrameMistake(const D3FrameDesc& frame, const FrameTextures& textures,
                             unsigned slice);
// D3FrameDesc::Validate, "A texture of the frame is missing", "The frame has too many textures",
// "A texture is not of the frame's layout", "A texture is smaller than the frame's plane", "A
// texture of the frame has no such slice".
template <class E>
void CheckFrame(const D3FrameDesc& frame, const FrameTextures& textures, unsigned slice,
                const std::source_location& location) {
    const char* const mistake = FindFrameMistake(frame, textures, slice);
    ThrowUnless<E>(mistake == nullptr, mistake, location);
}

// Of both frames of a conversion; "The frames have different sizes", "The frame's colors cannot be
// converted to these".
template <class E, class Frame>
void CheckFrames(const Frame& source, const Frame& target, const std::source_location& location) {
    CheckFrame<E>(source.desc, DescribeTextures(source), source.slice, location);
    CheckFrame<E>(target.desc, DescribeTextures(target), target.slice, location);
    ThrowUnless<E>(source.desc.size == target.desc.size, "The frames have different sizes",
                   location);
    ThrowUnless<E>(CanConvert(source.desc.colorSpace, target.desc.colorSpace),
                   "The frame's colors cannot be converted to these", location);
}

// Entry "PSMain": a frame drawn as D3ImageRenderer's draws an image. Parameters b0 and b1, planes
// t0 to t2.
std::string GetFrameDrawShader();
// The planes of a pass.
std::string GetFrameCodesShader(const FramePass& pass);

// A constant buffer that stays while its contents do. Buffer: ID3D11Buffer, ID3D12Resource.
template <class Buffer>
class KeptConstants {
public:
    // make(bytes) makes another.
    template <class Make>
    const CComPtr<Buffer>& Get(std::span<const std::uint8_t> bytes, const Make& make) {
        if (m_buffer == nullptr || !std::ranges::equal(m_bytes, bytes)) {
            m_buffer.Release(); // should it throw
            m_buffer = make(bytes);
            m_bytes.assign(bytes.begin(), bytes.end());
        }
        return m_buffer;
    }

private:
    std::vector<std::uint8_t> m_bytes;
    CComPtr<Buffer> m_buffer;
};

// As they lie in memory.
template <class Params>
std::span<const std::uint8_t> BytesOf(const Params& params) {
    return {reinterpret_cast<const std::uint8_t*>(&params), sizeof(params)};
}

} // namespace Norvex::DX
