#include "Proc/DirectX/Manager/D3ToneMapping.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3ToneStages.h"

namespace Norvex::DX {

namespace {

constexpr double kMostLuminance = 10000.0; // of PQ, cd/m2

// Of SMPTE ST 2084.
constexpr double kM1 = 2610.0 / 16384.0;
constexpr double kM2 = 2523.0 / 4096.0 * 128.0;
constexpr double kC1 = 3424.0 / 4096.0;
constexpr double kC2 = 2413.0 / 4096.0 * 32.0;
constexpr double kC3 = 2392.0 / 4096.0 * 32.0;

// cd/m2.
struct TonePeaks {
    double source = kMostLuminance;
    double target = kMostLuminance;
};

// Out of the coefficients, which are what a description is asked for: A = D / L^2, B = 1 / D.
TonePeaks GetTonePeaks(const Proc::ColorConversionInfo& conversion) {
    constexpr double kLightUnit = 100.0;
    const auto [a, b] = conversion.GetPQTonemapCoefs();
    const bool isDarkened = a > 0.0F && b > 0.0F;
    return isDarkened
               ? TonePeaks{kLightUnit / std::sqrt(double{a} * double{b}), kLightUnit / double{b}}
               : TonePeaks{};
}

bool IsBlackOf(double black, double peak) {
    return black >= 0.0 && black < peak;
}

} // namespace

double GetPQOfLuminance(double luminance) {
    const double power = std::pow(std::clamp(luminance / kMostLuminance, 0.0, 1.0), kM1);
    return std::pow((kC1 + kC2 * power) / (1.0 + kC3 * power), kM2);
}

double GetLuminanceOfPQ(double value) {
    const double power = std::pow(std::clamp(value, 0.0, 1.0), 1.0 / kM2);
    return kMostLuminance * std::pow(std::max(power - kC1, 0.0) / (kC2 - kC3 * power), 1.0 / kM1);
}

bool IsInRange(const D3ToneMapping& tones, const Proc::ColorConversionInfo& conversion) {
    const TonePeaks peaks = GetTonePeaks(conversion);
    return IsBlackOf(double{tones.sourceBlack}, peaks.source) &&
           IsBlackOf(double{tones.targetBlack}, peaks.target);
}

D3ToneStages GetToneStages(const D3ToneMapping& tones,
                           const Proc::ColorConversionInfo& conversion) {
    using Conf::ColorPrimaries;
    D3ToneStages stages;
    const bool changesBlack = tones.sourceBlack != tones.targetBlack;
    if (tones.curve == ToneCurve::BT2390 &&
        conversion.source.transfer == Conf::TransferCharacteristics::PQ &&
        (conversion.GetPQTonemapCoefs().first > 0.0F || changesBlack)) {
        stages.curve =
            tones.channels == ToneChannels::PerChannel ? FrameTone::PerChannel : FrameTone::MaxRGB;
        stages.liftsBlack = changesBlack;
    }
    stages.reducesGamut = tones.gamut == GamutReduction::Soft &&
                          conversion.source.primaries == ColorPrimaries::BT2020 &&
                          conversion.target.primaries == ColorPrimaries::BT709;
    return stages;
}

D3ToneParams MakeToneParams(const D3ToneMapping& tones,
                            const Proc::ColorConversionInfo& conversion) {
    constexpr double kPower = 4.0;
    constexpr double kLeastLift = 0.001; // with less the power is the report's
    constexpr float kAnyLight = 1e37F;
    const auto [sourcePeak, targetPeak] = GetTonePeaks(conversion);
    const double black = GetPQOfLuminance(double{tones.sourceBlack});
    const double range = GetPQOfLuminance(sourcePeak) - black;
    const double peak = (GetPQOfLuminance(targetPeak) - black) / range;
    const double knee = std::clamp(1.5 * peak - 0.5, 0.0, 1.0);
    const double lift = GetPQOfLuminance(double{tones.targetBlack}) - black;
    D3ToneParams params;
    params.black = static_cast<float>(black);
    params.range = static_cast<float>(range);
    params.inverseRange = static_cast<float>(1.0 / range);
    params.knee = static_cast<float>(knee);
    params.inverseRest = knee < 1.0 ? static_cast<float>(1.0 / (1.0 - knee)) : 0.0F;
    params.peak = static_cast<float>(peak);
    params.lift = static_cast<float>(lift);
    // With more than a quarter of the range the power would make black brighter than what is above.
    params.liftPower = static_cast<float>(std::min(kPower, range / std::max(lift, kLeastLift)));
    const bool isLinear = conversion.target.transfer == Conf::TransferCharacteristics::Linear;
    params.brightest = isLinear ? kAnyLight : 1.0F;
    return params;
}

std::string GetToneMacros(const D3ToneStages& stages) {
    std::string text;
    if (stages.curve != FrameTone::Rational) {
        text += fmt::format("#define TONE_CURVE {}\n", static_cast<unsigned>(stages.curve));
    }
    text += stages.liftsBlack ? "#define LIFTS_BLACK\n" : "";
    text += stages.reducesGamut ? "#define REDUCES_GAMUT\n" : "";
    return text;
}

float GetSourcePeak(float maxContentLightLevel, float maxMasteringLuminance) {
    const auto isPeak = [](float peak) { return peak > 0.0F && double{peak} <= kMostLuminance; };
    constexpr float kUnknown = 1000.0F;
    return isPeak(maxContentLightLevel)    ? maxContentLightLevel
           : isPeak(maxMasteringLuminance) ? maxMasteringLuminance
                                           : kUnknown;
}

} // namespace Norvex::DX
