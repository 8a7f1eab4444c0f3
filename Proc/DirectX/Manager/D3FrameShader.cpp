#include "Proc/DirectX/Manager/D3FrameShader.h"

#include <algorithm>
#include <cstddef>

#include <fmt/format.h>

#include "FrameShaders.h"
#include "Proc/DirectX/Manager/D3YUVFormat.h"

namespace Norvex::DX {

namespace {

using Proc::AlphaType;
using Triple = std::array<double, 3>;
using Matrix3 = std::array<Triple, 3>;

constexpr Matrix3 kIdentity = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};

// R'G'B' of Y'P'bP'r, the inverse of GetRGBToYpPbPrMatrix.
Matrix3 MakeRGBOfYPbPr(Conf::YCbCrMatrix matrix) {
    const auto [kr, kg, kb] = Conf::GetRGBToYpPbPrMatrix(matrix)[0];
    const double blue = 2.0 * (1.0 - kb);
    const double red = 2.0 * (1.0 - kr);
    return {{{1, 0, red}, {1, -kb * blue / kg, -kr * red / kg}, {1, blue, 0}}};
}

struct CodesOfChannels {
    Triple zero;
    Triple scale;
};

CodesOfChannels GetCodesOfChannels(const D3FrameDesc& frame) {
    const FrameCodes codes = frame.GetCodes();
    const double zero = frame.IsRGB() ? codes.black : codes.chromaZero;
    const double scale = frame.IsRGB() ? codes.lumaScale : codes.chromaScale;
    return {{codes.black, zero, zero}, {codes.lumaScale, scale, scale}};
}

// matrix * (x - from) + to
struct Affine {
    Matrix3 matrix;
    Triple from;
    Triple to;
};

Affine MakeColorsOfSamples(const D3FrameDesc& frame) {
    const auto [zero, scale] = GetCodesOfChannels(frame);
    const double unit = frame.GetCodes().unit;
    Affine result = {frame.IsRGB() ? kIdentity : MakeRGBOfYPbPr(frame.matrix), {}, {}};
    for (std::size_t column = 0; column < scale.size(); ++column) {
        for (Triple& row : result.matrix) {
            row.at(column) /= scale.at(column) * unit;
        }
        result.from.at(column) = zero.at(column) * unit;
    }
    return result;
}

Affine MakeCodesOfColors(const D3FrameDesc& frame) {
    const auto [zero, scale] = GetCodesOfChannels(frame);
    Affine result = {
        frame.IsRGB() ? kIdentity : Conf::GetRGBToYpPbPrMatrix(frame.matrix), {}, zero};
    for (std::size_t i = 0; i < scale.size(); ++i) {
        for (double& entry : result.matrix.at(i)) {
            entry *= scale.at(i);
        }
    }
    return result;
}

Affine Compose(const Affine& first, const Affine& second) {
    Affine result = {{}, first.from, second.to};
    for (std::size_t i = 0; i < result.matrix.size(); ++i) {
        for (std::size_t k = 0; k < result.matrix.size(); ++k) {
            const double factor = second.matrix.at(i).at(k);
            result.to.at(i) += factor * (first.to.at(k) - second.from.at(k));
            for (std::size_t j = 0; j < result.matrix.size(); ++j) {
                result.matrix.at(i).at(j) += factor * first.matrix.at(k).at(j);
            }
        }
    }
    return result;
}

FrameVector MakeVector(const Triple& vector, double last = 0.0) {
    return {static_cast<float>(vector[0]), static_cast<float>(vector[1]),
            static_cast<float>(vector[2]), static_cast<float>(last)};
}

std::array<std::int32_t, 2> GetLast(const FramePlane& plane) {
    return {static_cast<std::int32_t>(plane.size.width - 1),
            static_cast<std::int32_t>(plane.size.height - 1)};
}

// One sample; the two about a place between them; or those and the one before, about the middle
// one.
long CountTaps(long step, double origin) {
    constexpr double kOnSample = 0.5;
    return step == 1 ? 1 : origin == kOnSample ? 3 : 2;
}

const char* FindMistakeOfTexture(const FrameTexture& texture, const FramePlane& plane,
                                 bool hasFormat, unsigned slice) {
    if (!hasFormat) {
        return "A texture is not of the frame's layout";
    }
    if (texture.size.width < plane.size.width || texture.size.height < plane.size.height) {
        return "A texture is smaller than the frame's plane";
    }
    return slice < texture.slices ? nullptr : "A texture of the frame has no such slice";
}

std::vector<FramePass> GetFramePasses(const D3FrameDesc& target) {
    const unsigned planes = target.GetPlaneCount();
    if (target.GetChromaStep() == Size2DT<long>{1, 1}) {
        return {{0, planes}};
    }
    return {{0, 1}, {1, planes - 1}};
}

void SetFramePass(D3FrameParams& params, const Affine& codesOfColors, const FrameCodes& codes,
                  const FramePass& pass) {
    const auto& [matrix, from, to] = codesOfColors;
    // A pass of chroma begins with the second channel.
    for (std::size_t i = 0; i + pass.firstPlane < matrix.size(); ++i) {
        const std::size_t channel = i + pass.firstPlane;
        const Triple& row = matrix.at(channel);
        const double zero =
            to.at(channel) - (row[0] * from[0] + row[1] * from[1] + row[2] * from[2]);
        params.codesOfColors.at(i) = MakeVector(row, zero);
    }
    params.smallestCode = static_cast<float>(codes.smallest);
    params.largestCode = static_cast<float>(codes.largest);
    params.codeUnit = static_cast<float>(codes.unit);
}

FrameChroma GetFrameChroma(const D3FrameDesc& source, ChromaFilter filter) {
    return source.IsRGB()                       ? FrameChroma::OnLuma
           : filter == ChromaFilter::CatmullRom ? FrameChroma::CatmullRom
                                                : FrameChroma::Bilinear;
}

// Whether it keeps colours, so that the mean of pixels may be taken before it; they are multiplied
// with alpha at most.
bool IsPlain(const Proc::ColorAlphaConversionInfo& conversion) {
    const bool isDivided = conversion.sourceAlpha == AlphaType::Premultiplied &&
                           conversion.targetAlpha == AlphaType::NonPremultiplied;
    return conversion.source == conversion.target && conversion.GetLinearScale() == 1.0F &&
           !isDivided;
}

// Of a pass, from the source's.
FrameShaderKey MakeFrameCodesKey(FrameShaderKey key, const D3FrameDesc& target,
                                 const FramePass& pass, const FrameConvertParams& params) {
    key.targets = pass.planeCount;
    key.channels = pass.firstPlane != 0 ? 2 : target.GetChromaStep() == Size2DT<long>{1, 1} ? 3 : 1;
    if (pass.firstPlane != 0) {
        const auto [across, down] = target.GetChromaStep();
        const auto [left, top] = target.GetChromaOrigin();
        key.taps = {CountTaps(across, left), CountTaps(down, top)};
    }
    key.dither = params.dither;
    return key;
}

// Of a shader with this conversion.
void SetToneMapping(FrameShaderKey& key, D3FrameParams& params, const D3ToneMapping& tones,
                    const Proc::ColorConversionInfo& conversion) {
    key.tones = GetToneStages(tones, conversion);
    if (key.tones.curve != FrameTone::Rational) {
        key.conversion->keepsColors = false; // of PQ to PQ
    }
    if (key.tones != D3ToneStages{}) {
        params.tone = MakeToneParams(tones, conversion);
    }
}

} // namespace

FrameShaderKey MakeFrameSourceKey(const D3FrameDesc& source, bool hasArrays, ChromaFilter filter) {
    FrameShaderKey key;
    key.hasArrays = hasArrays;
    key.sourcePlanes = source.GetPlaneCount();
    if (source.GetChromaStep() != Size2DT<long>{1, 1}) {
        key.chroma = GetFrameChroma(source, filter);
    }
    return key;
}

D3FrameParams MakeFrameParams(const D3FrameDesc& source) {
    const Affine colors = MakeColorsOfSamples(source);
    D3FrameParams params;
    params.sampleZero = MakeVector(colors.from);
    for (std::size_t i = 0; i < colors.matrix.size(); ++i) {
        params.colorsOfSamples.at(i) = MakeVector(colors.matrix.at(i));
    }
    // The centre of chroma sample 0 is 0.5, in luma samples the origin.
    const auto [across, down] = source.GetChromaStep();
    const auto [left, top] = source.GetChromaOrigin();
    const auto shift = [](double origin, long step) {
        return static_cast<float>(0.5 - origin / static_cast<double>(step));
    };
    params.chromaScale = {1.0F / static_cast<float>(across), 1.0F / static_cast<float>(down)};
    params.chromaShift = {shift(left, across), shift(top, down)};
    params.lastLuma = GetLast(source.GetPlane(0));
    params.lastChroma = GetLast(source.GetPlane(source.GetPlaneCount() > 1 ? 1 : 0));
    return params;
}

FrameDrawing MakeFrameDrawing(const D3FrameDesc& source, bool hasArrays, ChromaFilter chromaFilter,
                              const D3ImageParams& image, unsigned lutDimensions,
                              const D3ToneMapping& tones,
                              const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    FrameDrawing drawing{MakeFrameParams(source), {}};
    FrameShaderKey& key = drawing.shader;
    key.sourcePlanes = source.GetPlaneCount();
    key.hasArrays = hasArrays;
    key.chroma = GetFrameChroma(source, chromaFilter);
    key.conversion.emplace(image);
    key.lutDimensions = lutDimensions;
    if (conversion) {
        SetToneMapping(key, drawing.frame, tones, *conversion);
    }
    return drawing;
}

FrameShaderKey MakeFramePeakKey(const D3FrameDesc& source, bool hasArrays) {
    FrameShaderKey key = MakeFrameSourceKey(source, hasArrays, ChromaFilter::Bilinear);
    key.measuresPeak = true;
    return key;
}

std::vector<Size2DT<long>> GetPeakSizes(Size2DT<long> source) {
    constexpr long kBlock = 16; // PEAK_BLOCK
    std::vector<Size2DT<long>> sizes;
    do {
        source = {(source.width + kBlock - 1) / kBlock, (source.height + kBlock - 1) / kBlock};
        sizes.push_back(source);
    } while (source != Size2DT<long>{1, 1});
    return sizes;
}

FrameConversion MakeFrameConversion(const D3FrameDesc& source, bool hasArrays,
                                    const D3FrameDesc& target, const FrameConvertParams& params,
                                    unsigned lutDimensions) {
    Proc::ColorAlphaConversionInfo info{params.conversion, source.alpha, target.alpha};
    info.source = source.colorSpace;
    info.target = target.colorSpace;
    const bool isPlain = IsPlain(info) && lutDimensions == 0 &&
                         GetToneStages(params.toneMapping, info).curve == FrameTone::Rational;
    const Affine ofColors = MakeCodesOfColors(target);
    const Affine codes = isPlain ? Compose(MakeColorsOfSamples(source), ofColors) : ofColors;
    const FrameShaderKey sourceKey = MakeFrameSourceKey(source, hasArrays, params.chromaFilter);
    FrameConversion conversion;
    conversion.image = D3ImageRenderer::MakeParams({}, info);
    conversion.passes = GetFramePasses(target);
    for (const FramePass& pass : conversion.passes) {
        SetFramePass(conversion.frames.emplace_back(MakeFrameParams(source)), codes,
                     target.GetCodes(), pass);
        FrameShaderKey& key =
            conversion.shaders.emplace_back(MakeFrameCodesKey(sourceKey, target, pass, params));
        if (!isPlain) {
            key.conversion.emplace(conversion.image);
            key.lutDimensions = lutDimensions;
            SetToneMapping(key, conversion.frames.back(), params.toneMapping, info);
        } else { // alpha of no target is as good as one
            key.isOpaque = !target.IsRGB() || info.sourceAlpha == AlphaType::AlphaIsOne ||
                           info.targetAlpha == AlphaType::AlphaIsOne;
            key.isPremultiplied = info.sourceAlpha == AlphaType::NonPremultiplied &&
                                  info.targetAlpha != AlphaType::NonPremultiplied;
        }
    }
    return conversion;
}

bool CanConvert(const Conf::RGBColorSpace& source, const Conf::RGBColorSpace& target) {
    constexpr auto kLinearLight = Conf::TransferCharacteristics::Linear;
    const bool isLinear2020 =
        target.transfer == kLinearLight && target.primaries == Conf::ColorPrimaries::BT2020;
    return source == target || (source.transfer != kLinearLight && !isLinear2020);
}

bool IsPlanar(const D3FrameDesc& frame, const FrameTextures& textures) {
    return !frame.IsRGB() && textures[0].format == frame.GetPlanarFormat();
}

const char* FindFrameMistake(const D3FrameDesc& frame, const FrameTextures& textures,
                             unsigned slice) {
    if (const char* const contradiction = frame.FindContradiction()) {
        return contradiction;
    }
    const bool isPlanar = IsPlanar(frame, textures);
    for (unsigned i = 0; i < textures.size(); ++i) {
        const bool isExpected = i < (isPlanar ? 1 : frame.GetPlaneCount());
        if (isExpected != (textures.at(i).slices != 0)) {
            return isExpected ? "A texture of the frame is missing"
                              : "The frame has too many textures";
        }
    }
    for (unsigned i = 0; i < frame.GetPlaneCount(); ++i) {
        const FramePlane plane = frame.GetPlane(i);
        FrameTexture texture = textures.at(isPlanar ? 0 : i);
        if (isPlanar && i == 1) { // as Direct3D has it, whose sizes are even
            texture.size = {texture.size.width / 2, texture.size.height / 2};
        }
        const bool hasFormat = isPlanar || frame.IsRGB() ||
                               HasPlaneFormat({texture.format, texture.size}, plane.format);
        if (const char* const mistake = FindMistakeOfTexture(texture, plane, hasFormat, slice)) {
            return mistake;
        }
    }
    return nullptr;
}

std::string GetFrameSourceMacros(const FrameShaderKey& key) {
    return fmt::format("#define SOURCE_PLANES {}\n#define CHROMA_PLACES {}\n{}", key.sourcePlanes,
                       static_cast<unsigned>(key.chroma),
                       key.hasArrays ? "#define SOURCE_ARRAY\n" : "");
}

std::string GetFrameShader(const FrameShaderKey& key) {
    std::string text = "#define FRAME_SHADER\n" + GetFrameSourceMacros(key);
    if (key.targets != 0) {
        text += fmt::format("#define TARGET_COUNT {}\n#define CHANNEL_COUNT {}\n"
                            "#define TAPS_ACROSS {}\n#define TAPS_DOWN {}\n#define DITHER {}\n",
                            key.targets, key.channels, key.taps.width, key.taps.height,
                            static_cast<unsigned>(key.dither));
    }
    if (key.isOpaque) {
        text += "#define OPAQUE\n";
    }
    if (key.isPremultiplied) {
        text += "#define PREMULTIPLIED\n";
    }
    if (key.lutDimensions != 0) {
        text += fmt::format("#define COLOR_STAGE\n#define LUT_DIMENSIONS {}\n", key.lutDimensions);
    }
    text += GetToneMacros(key.tones);
    if (key.conversion) {
        text += D3ImageRenderer::GetPixelShader(*key.conversion);
    } else {
        text += "#define PLAIN\n" + D3ImageRenderer::GetPixelShader();
    }
    text += Shaders::kFrameSource;
    if (key.tones != D3ToneStages{}) {
        text += Shaders::kToneMapping;
    }
    if (key.lutDimensions != 0) {
        text += Shaders::kColorLut;
    }
    text += key.measuresPeak   ? Shaders::kFramePeak
            : key.targets != 0 ? Shaders::kFrameCodes
                               : Shaders::kFramePixel;
    return text;
}

} // namespace Norvex::DX
