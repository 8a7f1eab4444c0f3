#include "Proc/DirectX/Manager/D3FrameShader.h"

#include <algorithm>
#include <cstddef>

#include <fmt/format.h>

#include "FrameShaders.h"
#include "Proc/DirectX/Manager/D3YUVFormat.h"

namespace Norvex::DX {

namespace {

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
void SetTaps(D3FrameParams& params, std::size_t axis, long step, double origin) {
    constexpr double kOnSample = 0.5;
    const bool isOnSample = origin == kOnSample;
    params.tapStep.at(axis) = static_cast<std::int32_t>(step);
    params.tapCount.at(axis) = step == 1 ? 1 : isOnSample ? 3 : 2;
    params.tapFirst.at(axis) = step == 2 && isOnSample ? -1 : 0;
}

std::string MakeShader(const std::string& definitions, std::string_view text) {
    std::string shader = definitions + D3ImageRenderer::GetPixelShader();
    shader += Shaders::kFrameSource;
    shader += text;
    return shader;
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

void SetFramePass(D3FrameParams& params, const D3FrameDesc& target, const FramePass& pass) {
    const auto [zero, scale] = GetCodesOfChannels(target);
    const FrameCodes codes = target.GetCodes();
    const Matrix3 matrix = target.IsRGB() ? kIdentity : Conf::GetRGBToYpPbPrMatrix(target.matrix);
    // A pass of chroma begins with the second channel.
    for (std::size_t i = 0; i + pass.firstPlane < matrix.size(); ++i) {
        const std::size_t channel = i + pass.firstPlane;
        const Triple& row = matrix.at(channel);
        const double factor = scale.at(channel);
        params.codesOfColors.at(i) =
            MakeVector({row[0] * factor, row[1] * factor, row[2] * factor}, zero.at(channel));
    }
    params.smallestCodes = MakeVector({codes.smallest, codes.smallest, codes.smallest});
    params.largestCodes = MakeVector({codes.largest, codes.largest, codes.largest});
    params.codeUnit = static_cast<float>(codes.unit);
    if (pass.firstPlane != 0) {
        const auto [across, down] = target.GetChromaStep();
        const auto [left, top] = target.GetChromaOrigin();
        SetTaps(params, 0, across, left);
        SetTaps(params, 1, down, top);
    }
}

// Whether it changes nothing, or so little that the mean of pixels may be taken before it.
bool IsPlain(const Proc::ColorAlphaConversionInfo& conversion) {
    using Proc::AlphaType;
    const bool hasSameAlpha = conversion.sourceAlpha == conversion.targetAlpha ||
                              conversion.sourceAlpha == AlphaType::AlphaIsOne;
    const bool isOverBlack = conversion.sourceAlpha == AlphaType::Premultiplied &&
                             conversion.targetAlpha == AlphaType::AlphaIsOne;
    return conversion.source == conversion.target && conversion.GetLinearScale() == 1.0F &&
           (hasSameAlpha || isOverBlack);
}

} // namespace

D3FrameParams MakeFrameParams(const D3FrameDesc& source, ChromaFilter chromaFilter) {
    const auto [zero, scale] = GetCodesOfChannels(source);
    const double unit = source.GetCodes().unit;
    const Matrix3 matrix = source.IsRGB() ? kIdentity : MakeRGBOfYPbPr(source.matrix);
    D3FrameParams params;
    params.sampleZero = MakeVector({zero[0] * unit, zero[1] * unit, zero[2] * unit});
    for (std::size_t i = 0; i < matrix.size(); ++i) {
        params.colorsOfSamples.at(i) =
            MakeVector({matrix.at(i)[0] / (scale[0] * unit), matrix.at(i)[1] / (scale[1] * unit),
                        matrix.at(i)[2] / (scale[2] * unit)});
    }
    // The centre of chroma sample 0 is 0.5, in luma samples the origin.
    const auto [across, down] = source.GetChromaStep();
    const auto [left, top] = source.GetChromaOrigin();
    const auto shift = [](double origin, long step) {
        return static_cast<float>(0.5 - origin / static_cast<double>(step));
    };
    params.chromaScale = {1.0F / static_cast<float>(across), 1.0F / static_cast<float>(down)};
    params.chromaShift = {shift(left, across), shift(top, down)};
    params.planeCount = source.GetPlaneCount();
    params.lastLuma = GetLast(source.GetPlane(0));
    params.lastChroma = GetLast(source.GetPlane(params.planeCount > 1 ? 1 : 0));
    params.chromaFilter = static_cast<std::uint32_t>(chromaFilter);
    return params;
}

FrameConversion MakeFrameConversion(const D3FrameDesc& source, const D3FrameDesc& target,
                                    const FrameConvertParams& params) {
    Proc::ColorAlphaConversionInfo info{params.conversion, source.alpha, target.alpha};
    info.source = source.colorSpace;
    info.target = target.colorSpace;
    FrameConversion conversion;
    conversion.image = D3ImageRenderer::MakeParams({}, info);
    conversion.passes = GetFramePasses(target);
    for (const FramePass& pass : conversion.passes) {
        D3FrameParams frame = MakeFrameParams(source, params.chromaFilter);
        frame.isPlain = IsPlain(info) ? 1 : 0;
        frame.dither = params.dither == FrameDither::Ordered ? 1.0F : 0.0F;
        SetFramePass(frame, target, pass);
        conversion.frames.push_back(frame);
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

std::string GetFrameDrawShader() {
    return MakeShader("#define FRAME_SHADER\n", Shaders::kFramePixel);
}

std::string GetFrameCodesShader(const FramePass& pass) {
    return MakeShader(fmt::format("#define FRAME_SHADER\n#define TARGET_COUNT {}\n{}",
                                  pass.planeCount, pass.firstPlane == 0 ? "#define ONE_TAP\n" : ""),
                      Shaders::kFrameCodes);
}

} // namespace Norvex::DX
