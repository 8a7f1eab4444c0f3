#include "apps/norvexdx/reference/ColorReference.h"

#include <algorithm>
#include <cmath>

namespace Norvex::Reference {

namespace {

using enum Conf::TransferCharacteristics;
using Info = Proc::ColorAlphaConversionInfo;
using Proc::AlphaType;
using RGB = std::array<double, 3>;

template <class F>
RGB Each(const RGB& color, F function) {
    return {function(color[0]), function(color[1]), function(color[2])};
}

RGB Scaled(const RGB& color, double factor) {
    return {color[0] * factor, color[1] * factor, color[2] * factor};
}

// SMPTE ST 2084:2014, equations 4.1 and 5.1, with the constants as the fractions given there.
constexpr double kM1 = 2610.0 / 16384.0;
constexpr double kM2 = 2523.0 / 4096.0 * 128.0;
constexpr double kC1 = 3424.0 / 4096.0;
constexpr double kC2 = 2413.0 / 4096.0 * 32.0;
constexpr double kC3 = 2392.0 / 4096.0 * 32.0;

double LightFromPQ(double value) {
    const double power = std::pow(std::clamp(value, 0.0, 1.0), 1.0 / kM2);
    return 100.0 * std::pow(std::max(power - kC1, 0.0) / (kC2 - kC3 * power), 1.0 / kM1);
}

// ARIB STD-B67, section 2.2.
constexpr double kA = 0.17883277;
constexpr double kB = 0.28466892;
constexpr double kC = 0.55991073;

double HLGFromScene(double scene) {
    const double s = std::clamp(scene, 0.0, 12.0);
    return s < 1.0 ? 0.5 * std::sqrt(s) : kA * std::log(s - kB) + kC;
}

double SceneFromHLG(double value) {
    const double v = std::clamp(value, 0.0, 1.0);
    return v < 0.5 ? 4.0 * v * v : std::exp((v - kC) / kA) + kB;
}

double SRGBFromLight(double light) {
    return light <= 0.0031308 ? 12.92 * light : 1.055 * std::pow(light, 1.0 / 2.4) - 0.055;
}

double Rec709FromScene(double scene) {
    return scene < 0.018 ? 4.5 * scene : 1.099 * std::pow(scene, 0.45) - 0.099;
}

double SceneFromRec709(double value) {
    return value < 0.081 ? value / 4.5 : std::pow((value + 0.099) / 1.099, 1.0 / 0.45);
}

// ITU-R BT.1886 with black at zero, continued to negative values as an odd function.
double DisplayFromRec709(double value) {
    return std::copysign(std::pow(std::abs(value), 2.4), value);
}

double Rec709FromDisplay(double light) {
    return std::copysign(std::pow(std::abs(light), 1.0 / 2.4), light);
}

// The power of the luminance of light from 0 to 1 that an OOTF multiplies it with, or its inverse.
double PowerOfLuminance(const RGB& light, double exponent) {
    return std::pow(0.2627 * light[0] + 0.6780 * light[1] + 0.0593 * light[2], exponent);
}

// ITU-R BT.2100-2, table 5, OOTF: F_D = alpha Y_S^(gamma - 1) E, alpha the peak; light 1.0 is 100
// cd/m2.
RGB HLGDisplayFromScene(const RGB& scene, const Info& info) {
    const RGB normal = Each(scene, [](double s) { return std::clamp(s / 12.0, 0.0, 1.0); });
    return normal == RGB{} ? normal
                           : Scaled(normal, PowerOfLuminance(normal, info.GetHLGOOTFGamma() - 1.0) *
                                                info.GetHLGDisplayPeakLuminance() / 100.0);
}

// The inverse; light below a ten-thousandth of the peak is left as it is.
RGB HLGSceneFromDisplay(const RGB& light, const Info& info) {
    const double peak = info.GetHLGDisplayPeakLuminance() / 100.0;
    const RGB normal = Each(light, [peak](double c) { return std::clamp(c / peak, 0.0, 1.0); });
    return PowerOfLuminance(normal, 1.0) > 0.0001
               ? Scaled(normal, 12.0 * PowerOfLuminance(normal, 1.0 / info.GetHLGOOTFGamma() - 1.0))
               : light;
}

RGB Tonemapped(const RGB& light, const Info& info) {
    const auto [a, b] = info.GetPQTonemapCoefs();
    const double maximum = *std::ranges::max_element(light);
    return maximum > 0.0 ? Scaled(light, (1.0 + a * maximum) / (1.0 + b * maximum)) : light;
}

// ITU-R BT.2390-11, 5.4.1, in values of PQ; black is lifted by itself, since a channel is meant
// that need not be the largest.
struct ToneMapper {
    double black;
    double range;
    double peak; // maxLum
    double lift; // b
    ToneMapper(const Info& info, const DX::D3ToneMapping& tones) {
        const auto pq = [](double luminance) { return PQFromLight(luminance / 100.0); };
        const bool isHDR = info.target.transfer == PQ || info.target.transfer == HLG ||
                           (info.target.transfer == Linear &&
                            info.mode == Proc::LinearizationMode::DisplayReferredHDR);
        const double target = double{isHDR ? info.targetPeakLuminance : info.referenceWhite};
        const bool isBrighter = double{info.sourcePeakLuminance} > target;
        black = pq(double{tones.sourceBlack});
        range = pq(isBrighter ? double{info.sourcePeakLuminance} : 10000.0) - black;
        peak = isBrighter ? (pq(target) - black) / range : 1.0;
        lift = (pq(double{tones.targetBlack}) - black) / range;
    }
    double Curve(double value) const {
        const double knee = std::max(1.5 * peak - 0.5, 0.0);
        const double e = std::min((value - black) / range, 1.0);
        const double t = e < knee || knee >= 1.0 ? 0.0 : (e - knee) / (1.0 - knee);
        const double high = (2.0 * t * t * t - 3.0 * t * t + 1.0) * knee +
                            (t * t * t - 2.0 * t * t + t) * (1.0 - knee) +
                            (3.0 * t * t - 2.0 * t * t * t) * peak;
        return (e < knee ? e : high) * range + black;
    }
    double Lifted(double value) const {
        const double e = std::clamp((value - black) / range, 0.0, 1.0);
        return value + range * lift * std::pow(1.0 - e, lift > 0.25 ? 1.0 / lift : 4.0);
    }
};

RGB ToneMapped(const RGB& color, const Info& info, const DX::D3ToneMapping& tones) {
    const ToneMapper mapper(info, tones);
    const auto curve = [&](double value) { return mapper.Curve(value); };
    const auto lift = [&](double value) { return LightFromPQ(mapper.Lifted(value)); };
    const RGB values = Each(color, [](double value) { return std::clamp(value, 0.0, 1.0); });
    if (tones.channels == DX::ToneChannels::PerChannel) {
        return Each(Each(values, curve), lift);
    }
    const double largest = *std::ranges::max_element(values);
    const double ratio = largest > 0.0 ? LightFromPQ(curve(largest)) / LightFromPQ(largest) : 1.0;
    return Each(Each(Scaled(Each(values, LightFromPQ), ratio), PQFromLight), lift);
}

// Mixed with grey of the same luminance: saturations from 0.8 to that of BT.2020's blue become 0.8
// to 1, which is the edge; in SDR then heights from 0.9 to infinity become 0.9 to 1, white's.
RGB GamutReduced(const RGB& light, bool hasWhite) {
    const double y = 0.2126 * light[0] + 0.7152 * light[1] + 0.0722 * light[2];
    if (!(y > 0.0)) {
        return light;
    }
    constexpr double kKnee = 0.8;
    constexpr double kFarthest = 2.228;
    const auto mix = [&](const RGB& color, double share) {
        return Each(color, [&](double channel) { return y + (channel - y) * share; });
    };
    const double saturation = (y - *std::ranges::min_element(light)) / y;
    const double beyond = saturation - kKnee;
    const double squeezed =
        kKnee + beyond / (1.0 + beyond * (1.0 / (1.0 - kKnee) - 1.0 / (kFarthest - kKnee)));
    const RGB reduced = beyond > 0.0 ? mix(light, squeezed / saturation) : light;
    if (!hasWhite || y >= 1.0) {
        return hasWhite ? RGB{y, y, y} : reduced;
    }
    const double height = (*std::ranges::max_element(reduced) - y) / (1.0 - y);
    const double above = height - 0.9;
    return above > 0.0 ? mix(reduced, (0.9 + above / (1.0 + above / 0.1)) / height) : reduced;
}

RGB DecodePQ(const RGB& color, const Info& info, const DX::D3ToneMapping& tones) {
    const bool hasCurve =
        tones.curve == DX::ToneCurve::BT2390 &&
        (info.GetPQTonemapCoefs().first > 0.0F || tones.sourceBlack != tones.targetBlack);
    return hasCurve ? ToneMapped(color, info, tones) : Tonemapped(Each(color, LightFromPQ), info);
}

RGB Decode(const RGB& color, const Info& info, const DX::D3ToneMapping& tones) {
    const bool isScene = info.mode == Proc::LinearizationMode::SceneReferred;
    if (info.source.transfer == BT709) {
        return Each(color, isScene ? SceneFromRec709 : DisplayFromRec709);
    }
    if (info.source.transfer == HLG) {
        const RGB scene = Each(color, SceneFromHLG);
        return isScene ? scene : HLGDisplayFromScene(scene, info);
    }
    const RGB light =
        info.source.transfer == PQ ? DecodePQ(color, info, tones) : Each(color, LightFromSRGB);
    return isScene ? Each(Each(light, Rec709FromDisplay), SceneFromRec709) : light;
}

RGB ConvertPrimaries(const RGB& color, Conf::ColorPrimaries from, Conf::ColorPrimaries to) {
    constexpr std::array<RGB, 3> kTo2020 = {{{0.627402, 0.329292, 0.043306},
                                             {0.069095, 0.919544, 0.011360},
                                             {0.016394, 0.088028, 0.895578}}};
    constexpr std::array<RGB, 3> kTo709 = {{{1.660496, -0.587656, -0.072840},
                                            {-0.124547, 1.132895, -0.008348},
                                            {-0.018154, -0.100597, 1.118751}}};
    if (from == to) {
        return color;
    }
    const auto& matrix = to == Conf::ColorPrimaries::BT2020 ? kTo2020 : kTo709;
    const auto row = [&](std::size_t i) {
        return matrix[i][0] * color[0] + matrix[i][1] * color[1] + matrix[i][2] * color[2];
    };
    return {row(0), row(1), row(2)};
}

RGB Encode(const RGB& light, const Info& info) {
    const bool isScene = info.mode == Proc::LinearizationMode::SceneReferred;
    switch (info.target.transfer) {
    case Linear:
        return light;
    case BT709:
        return Each(light, isScene ? Rec709FromScene : Rec709FromDisplay);
    case HLG:
        return Each(isScene ? light : HLGSceneFromDisplay(light, info), HLGFromScene);
    default:
        return Each(isScene ? Each(Each(light, Rec709FromScene), DisplayFromRec709) : light,
                    info.target.transfer == PQ ? PQFromLight : SRGBFromLight);
    }
}

RGB ConvertColor(const RGB& color, const Info& info, const DX::D3ToneMapping& tones) {
    const double scale = info.GetLinearScale();
    const RGB light = Scaled(
        ConvertPrimaries(Decode(color, info, tones), info.source.primaries, info.target.primaries),
        scale);
    const bool isReduced = tones.gamut == DX::GamutReduction::Soft &&
                           info.source.primaries == Conf::ColorPrimaries::BT2020 &&
                           info.target.primaries == Conf::ColorPrimaries::BT709;
    const bool isMapped = info.source.transfer == PQ && tones.curve == DX::ToneCurve::BT2390;
    return info.source == info.target && scale == 1.0 && !isMapped
               ? color
               : Encode(isReduced ? GamutReduced(light, info.target.transfer != Linear) : light,
                        info);
}

} // namespace

double PQFromLight(double light) {
    const double power = std::pow(std::clamp(light / 100.0, 0.0, 1.0), kM1);
    return std::pow((kC1 + kC2 * power) / (1.0 + kC3 * power), kM2);
}

double LightFromSRGB(double value) {
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double LightFromValue(double value, Conf::TransferCharacteristics transfer) {
    switch (transfer) {
    case BT709:
        return DisplayFromRec709(value);
    case sRGB:
        return LightFromSRGB(value);
    case PQ:
        return LightFromPQ(value);
    case HLG:
        return SceneFromHLG(value);
    default:
        return value;
    }
}

double ValueFromLight(double light, Conf::TransferCharacteristics transfer) {
    switch (transfer) {
    case BT709:
        return Rec709FromDisplay(light);
    case sRGB:
        return SRGBFromLight(light);
    case PQ:
        return PQFromLight(light);
    case HLG:
        return HLGFromScene(light);
    default:
        return light;
    }
}

Pixel ReferenceConvert(const Pixel& color, const Info& info, const DX::D3ToneMapping& tones) {
    const double alpha = info.sourceAlpha == AlphaType::AlphaIsOne ? 1.0 : color[3];
    const bool isDivided = info.sourceAlpha == AlphaType::Premultiplied && alpha > 0.0;
    const RGB straight = Scaled({color[0], color[1], color[2]}, isDivided ? 1.0 / alpha : 1.0);
    const RGB result = Scaled(ConvertColor(straight, info, tones),
                              info.targetAlpha == AlphaType::NonPremultiplied ? 1.0 : alpha);
    return {result[0], result[1], result[2],
            info.targetAlpha == AlphaType::AlphaIsOne ? 1.0 : alpha};
}

} // namespace Norvex::Reference
