#pragma once

// What the drawers and converters of frames tell their shaders, internal: parameters, texts, which
// planes a pass of a converter writes, and whether textures hold a frame. Pure functions, any
// thread. E is the exception of the generation.

#include <array>
#include <cstddef>
#include <cstdint>
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
#include "Proc/DirectX/Manager/D3ToneMapping.h"
#include "Proc/DirectX/Manager/D3ToneStages.h"
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
    // Of a target's pass; of samples where nothing else is done with them.
    std::array<FrameVector, 3> codesOfColors = {};
    float smallestCode = 0.0F;
    float largestCode = 0.0F;
    float codeUnit = 1.0F;
    // Of tone mapping, ToneMapping.hlsl.
    D3ToneParams tone;
    std::array<float, 16> unused = {}; // up to 256 bytes
};
static_assert(sizeof(D3FrameParams) == 256);

// How chroma is found at the place of a luma sample: the macros of FrameSource.hlsl.
enum class FrameChroma : std::uint32_t { OnLuma = 0, Bilinear = 1, CatmullRom = 2 };

// What is decided when a shader is compiled: shaders are made for each of these that is met. What
// else they are told stands in constants. A further stage in them becomes a member here, and what
// GetFrameShader writes for it.
struct FrameShaderKey {
    unsigned sourcePlanes = 1;
    bool hasArrays = false; // the source's textures are viewed as arrays
    FrameChroma chroma = FrameChroma::OnLuma;
    std::optional<D3ConversionKey> conversion = {}; // none: the codes are sums of samples
    // Of a pass of a converter; without targets, of a drawer.
    unsigned targets = 0;
    unsigned channels = 0;                  // of codes
    Size2DT<long> taps = {1, 1};            // pixels of the source for a sample
    FrameDither dither = FrameDither::None; // of the codes
    bool isOpaque = false;                  // alpha becomes one, where it is not converted
    bool isPremultiplied = false;           // colours become so, where they are not converted
    unsigned lutDimensions = 0;             // of the table that colours go through; 0: none
    D3ToneStages tones = {};
    bool measuresPeak = false; // in place of all that

    bool operator==(const FrameShaderKey&) const = default;
};

// Of a shader that reads a frame at its own pixels.
FrameShaderKey MakeFrameSourceKey(const D3FrameDesc& source, bool hasArrays, ChromaFilter filter);
// What FrameSource.hlsl is told of it, and before that the macros which it needs.
D3FrameParams MakeFrameParams(const D3FrameDesc& source);
std::string GetFrameSourceMacros(const FrameShaderKey& key);

// The text of it, entry "PSMain". Parameters b0 and b1, planes t0 to t2; dither by blue noise has
// its ranks in t3. A drawer's draws a frame as D3ImageRenderer's draws an image.
std::string GetFrameShader(const FrameShaderKey& key);

// Planes of one size, which one pass writes.
struct FramePass {
    unsigned firstPlane = 0;
    unsigned planeCount = 1;
};

// The dimensions of a color LUT, 0 of none.
template <class Lut>
unsigned GetLutDimensions(const boost::intrusive_ptr<Lut>& lut) {
    return lut != nullptr ? lut->GetDimensions() : 0;
}

// Of who reads the frame.
D3FrameParams MakeFrameParams(const D3FrameDesc& source);

// What the shader of a drawer is told besides the image's parameters.
struct FrameDrawing {
    D3FrameParams frame;
    FrameShaderKey shader;
};
FrameDrawing MakeFrameDrawing(const D3FrameDesc& source, bool hasArrays, ChromaFilter chromaFilter,
                              const D3ImageParams& image, unsigned lutDimensions,
                              const D3ToneMapping& tones,
                              const std::optional<Proc::ColorAlphaConversionInfo>& conversion);

// Of who measures the peak of a frame: a shader, and the sizes that it leaves, pass by pass.
FrameShaderKey MakeFramePeakKey(const D3FrameDesc& source, bool hasArrays);
std::vector<Size2DT<long>> GetPeakSizes(Size2DT<long> source);

// What the shaders of a converter are told.
struct FrameConversion {
    std::vector<FramePass> passes;
    D3ImageParams image;
    std::vector<D3FrameParams> frames;   // one a pass
    std::vector<FrameShaderKey> shaders; // one a pass
};
FrameConversion MakeFrameConversion(const D3FrameDesc& source, bool hasArrays,
                                    const D3FrameDesc& target, const FrameConvertParams& params,
                                    unsigned lutDimensions);
// Whether the shaders have it: from no linear light, and to none with BT.2020's primaries.
bool CanConvert(const Conf::RGBColorSpace& source, const Conf::RGBColorSpace& target);
// "The frame's colors cannot be converted to these", "The luminances of the tone mapping are out of
// range".
template <class E>
void CheckFrameConversion(const D3FrameDesc& source, const Proc::ColorConversionInfo& wanted,
                          const D3ToneMapping& tones, const std::source_location& location) {
    Proc::ColorConversionInfo conversion = wanted;
    conversion.source = source.colorSpace;
    ThrowUnless<E>(CanConvert(conversion.source, conversion.target),
                   "The frame's colors cannot be converted to these", location);
    ThrowUnless<E>(IsInRange(tones, conversion),
                   "The luminances of the tone mapping are out of range", location);
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

// CheckFrame's, and "The frame is not in PQ".
template <class E>
void CheckPeakFrame(const D3FrameDesc& frame, const FrameTextures& textures, unsigned slice,
                    const std::source_location& location) {
    CheckFrame<E>(frame, textures, slice, location);
    ThrowUnless<E>(frame.colorSpace.transfer == Conf::TransferCharacteristics::PQ,
                   "The frame is not in PQ", location);
}

// Of both frames of a conversion; "The frames have different sizes", and CheckFrameConversion's.
template <class E, class Frame>
void CheckFrames(const Frame& source, const Frame& target, const FrameConvertParams& params,
                 const std::source_location& location) {
    CheckFrame<E>(source.desc, DescribeTextures(source), source.slice, location);
    CheckFrame<E>(target.desc, DescribeTextures(target), target.slice, location);
    ThrowUnless<E>(source.desc.size == target.desc.size, "The frames have different sizes",
                   location);
    Proc::ColorConversionInfo conversion = params.conversion;
    conversion.target = target.desc.colorSpace;
    CheckFrameConversion<E>(source.desc, conversion, params.toneMapping, location);
}

} // namespace Norvex::DX
