#include "tests/support/ColorReference.h"

#include <algorithm>
#include <cmath>

namespace Norvex::Test {

namespace {

using Proc::AlphaType;
using RGB = std::array<double, 3>;

enum Transfer : unsigned { kBT709 = 1, kLinear = 8, kSRGB = 13, kPQ = 16, kHLG = 18 };
enum Primaries : unsigned { kPrimaries709 = 1, kPrimaries2020 = 9 };

constexpr unsigned Code(Primaries primaries, Transfer transfer) {
    return primaries * 256U + transfer;
}

template <class F>
RGB Each(const RGB& color, F function) {
    return {function(color[0]), function(color[1]), function(color[2])};
}

RGB Scaled(const RGB& color, double factor) {
    return Each(color, [factor](double c) { return c * factor; });
}

// ITU-R BT.1886 with black at zero, continued to negative values as an odd function.
double DisplayFromRec709(double value) {
    return std::copysign(std::pow(std::abs(value), 2.4), value);
}

double Rec709FromDisplay(double light) {
    return std::copysign(std::pow(std::abs(light), 1.0 / 2.4), light);
}

double SceneFromDisplay(double light) {
    return SceneFromRec709(Rec709FromDisplay(light));
}

double DisplayFromScene(double light) {
    return DisplayFromRec709(Rec709FromScene(light));
}

// ITU-R BT.2100-2, table 5: Y of scene light.
double Luminance(const RGB& color) {
    return 0.2627 * color[0] + 0.6780 * color[1] + 0.0593 * color[2];
}

// ITU-R BT.2100-2, table 5, OOTF: F_D = alpha Y_S^(gamma - 1) E, alpha the peak; light 1.0 is 100
// cd/m2.
RGB HLGDisplayFromScene(const RGB& scene, const ReferenceParams& params) {
    const RGB normal = Each(scene, [](double s) { return std::clamp(s / 12.0, 0.0, 1.0); });
    const double y = Luminance(normal);
    return y > 0.0
               ? Scaled(normal, std::pow(y, params.systemGamma - 1.0) * params.displayPeak / 100.0)
               : RGB{};
}

// The inverse; light below a ten-thousandth of the peak is left as it is.
RGB HLGSceneFromDisplay(const RGB& light, const ReferenceParams& params) {
    const RGB normal =
        Each(light, [&](double c) { return std::clamp(c * 100.0 / params.displayPeak, 0.0, 1.0); });
    const double y = Luminance(normal);
    return y > 0.0001 ? Scaled(normal, 12.0 * std::pow(y, 1.0 / params.systemGamma - 1.0)) : light;
}

RGB Tonemapped(const RGB& light, const ReferenceParams& params) {
    const double maximum = *std::ranges::max_element(light);
    if (params.tonemapA <= 0.0 || maximum <= 0.0) {
        return light;
    }
    return Scaled(light, (1.0 + params.tonemapA * maximum) / (1.0 + params.tonemapB * maximum));
}

RGB Decode(const RGB& color, const ReferenceParams& params) {
    const bool isDisplay = params.isDisplayLight;
    switch (params.sourceCode) {
    case Code(kPrimaries709, kSRGB): {
        const RGB light = Each(color, LightFromSRGB);
        return isDisplay ? light : Each(light, SceneFromDisplay);
    }
    case Code(kPrimaries709, kBT709):
    case Code(kPrimaries2020, kBT709):
        return Each(color, isDisplay ? DisplayFromRec709 : SceneFromRec709);
    case Code(kPrimaries2020, kPQ): {
        const RGB light = Tonemapped(Each(color, LightFromPQ), params);
        return isDisplay ? light : Each(light, SceneFromDisplay);
    }
    case Code(kPrimaries2020, kHLG): {
        const RGB scene = Each(color, SceneFromHLG);
        return isDisplay ? HLGDisplayFromScene(scene, params) : scene;
    }
    default:
        return {1.0, 0.0, 0.0};
    }
}

RGB ConvertPrimaries(const RGB& color, unsigned from, unsigned to) {
    constexpr std::array<RGB, 3> kTo2020 = {{{0.627402, 0.329292, 0.043306},
                                             {0.069095, 0.919544, 0.011360},
                                             {0.016394, 0.088028, 0.895578}}};
    constexpr std::array<RGB, 3> kTo709 = {{{1.660496, -0.587656, -0.072840},
                                            {-0.124547, 1.132895, -0.008348},
                                            {-0.018154, -0.100597, 1.118751}}};
    if (from == to) {
        return color;
    }
    const bool isTo2020 = from == kPrimaries709 && to == kPrimaries2020;
    if (!isTo2020 && !(from == kPrimaries2020 && to == kPrimaries709)) {
        return {0.0, 1.0, 0.0};
    }
    RGB result{};
    for (std::size_t row = 0; row < 3; ++row) {
        for (std::size_t column = 0; column < 3; ++column) {
            result[row] += (isTo2020 ? kTo2020 : kTo709)[row][column] * color[column];
        }
    }
    return result;
}

RGB Encode(const RGB& light, const ReferenceParams& params) {
    const bool isDisplay = params.isDisplayLight;
    switch (params.targetCode) {
    case Code(kPrimaries709, kSRGB):
        return Each(isDisplay ? light : Each(light, DisplayFromScene), SRGBFromLight);
    case Code(kPrimaries709, kBT709):
    case Code(kPrimaries2020, kBT709):
        return Each(light, isDisplay ? Rec709FromDisplay : Rec709FromScene);
    case Code(kPrimaries2020, kPQ):
        return Each(isDisplay ? light : Each(light, DisplayFromScene), PQFromLight);
    case Code(kPrimaries2020, kHLG):
        return Each(isDisplay ? HLGSceneFromDisplay(light, params) : light, HLGFromScene);
    case Code(kPrimaries709, kLinear):
        return light;
    default:
        return {0.0, 0.0, 1.0};
    }
}

RGB ConvertColor(const RGB& color, const ReferenceParams& params) {
    if (params.sourceCode == params.targetCode && params.linearScale == 1.0) {
        return color;
    }
    const RGB light =
        ConvertPrimaries(Decode(color, params), params.sourceCode / 256U, params.targetCode / 256U);
    return Encode(Scaled(light, params.linearScale), params);
}

unsigned CodeOf(const Conf::RGBColorSpace& space) {
    return static_cast<unsigned>(space.primaries) * 256U + static_cast<unsigned>(space.transfer);
}

} // namespace

// SMPTE ST 2084:2014, equations 4.1 and 5.1, with the constants as the fractions given there.
constexpr double kM1 = 2610.0 / 16384.0;
constexpr double kM2 = 2523.0 / 4096.0 * 128.0;
constexpr double kC1 = 3424.0 / 4096.0;
constexpr double kC2 = 2413.0 / 4096.0 * 32.0;
constexpr double kC3 = 2392.0 / 4096.0 * 32.0;

double PQFromLight(double light) {
    const double power = std::pow(std::clamp(light / 100.0, 0.0, 1.0), kM1);
    return std::pow((kC1 + kC2 * power) / (1.0 + kC3 * power), kM2);
}

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

double LightFromSRGB(double value) {
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double Rec709FromScene(double scene) {
    return scene < 0.018 ? 4.5 * scene : 1.099 * std::pow(scene, 0.45) - 0.099;
}

double SceneFromRec709(double value) {
    return value < 0.081 ? value / 4.5 : std::pow((value + 0.099) / 1.099, 1.0 / 0.45);
}

// Results are bounded by what a 16-bit float holds.
constexpr double kMaxResult = 65504.0;

Pixel ReferenceConvert(const Pixel& color, const ReferenceParams& params) {
    if (params.sourceCode == 0 || params.targetCode == 0) {
        return color;
    }
    double alpha = params.sourceAlpha == AlphaType::AlphaIsOne ? 1.0 : color[3];
    const bool isDivided = params.sourceAlpha == AlphaType::Premultiplied && alpha > 0.0;
    const RGB straight = Scaled({color[0], color[1], color[2]}, isDivided ? 1.0 / alpha : 1.0);
    RGB converted = ConvertColor(straight, params);
    for (double& channel : converted) {
        channel = std::clamp(channel, -kMaxResult, kMaxResult);
    }
    const RGB result =
        Scaled(converted, params.targetAlpha == AlphaType::NonPremultiplied ? 1.0 : alpha);
    if (params.targetAlpha == AlphaType::AlphaIsOne) {
        alpha = 1.0;
    }
    return {result[0], result[1], result[2], alpha};
}

Pixel ReferenceConvert(const Pixel& color, const Proc::ColorAlphaConversionInfo& info) {
    const auto [tonemapA, tonemapB] = info.GetPQTonemapCoefs();
    return ReferenceConvert(color,
                            {.sourceCode = CodeOf(info.source),
                             .targetCode = CodeOf(info.target),
                             .sourceAlpha = info.sourceAlpha,
                             .targetAlpha = info.targetAlpha,
                             .isDisplayLight = info.mode != Proc::LinearizationMode::SceneReferred,
                             .linearScale = info.GetLinearScale(),
                             .tonemapA = tonemapA,
                             .tonemapB = tonemapB,
                             .displayPeak = info.GetHLGDisplayPeakLuminance(),
                             .systemGamma = info.GetHLGOOTFGamma()});
}

} // namespace Norvex::Test
