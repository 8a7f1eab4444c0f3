#include "Host/Color.h"

#include <gtest/gtest.h>

#include "Host/ColorConversionInfo.h"

namespace Norvex {
namespace {

using enum Conf::TransferCharacteristics;
using Conf::TransferCharacteristics;
using Mode = Proc::LinearizationMode;

Proc::ColorConversionInfo MakeInfo(TransferCharacteristics source, TransferCharacteristics target) {
    Proc::ColorConversionInfo info;
    info.source.transfer = source;
    info.target.transfer = target;
    return info;
}

TEST(ColorConversionInfoTest, ScalesLightBetweenSDRAndHDR) {
    const auto check = [](TransferCharacteristics source, TransferCharacteristics target,
                          float linearScale, float referenceWhite, float expected) {
        auto info = MakeInfo(source, target);
        info.linearScale = linearScale;
        info.referenceWhite = referenceWhite;
        EXPECT_FLOAT_EQ(info.GetLinearScale(), expected) << linearScale << " " << referenceWhite;
    };
    check(sRGB, PQ, 1.0F, 203.0F, 2.03F); // SDR white at 203 cd/m2
    check(PQ, sRGB, 1.0F, 203.0F, 100.0F / 203.0F);
    check(HLG, BT709, 2.0F, 400.0F, 0.5F);
    check(PQ, PQ, 1.0F, 203.0F, 1.0F);
    check(sRGB, Linear, 2.5F, 203.0F, 2.5F);
    // scRGB counts in 80 cd/m2: PQ light of 100 cd/m2 becomes 1.25.
    check(PQ, Linear, 203.0F / 80.0F, 203.0F, 1.25F);
}

TEST(ColorConversionInfoTest, TonemapsOnlyPQThatIsTooBright) {
    const auto getCurve = [](TransferCharacteristics source, TransferCharacteristics target,
                             Mode mode, float sourcePeak, float targetPeak) {
        auto info = MakeInfo(source, target);
        info.mode = mode;
        info.sourcePeakLuminance = sourcePeak;
        info.targetPeakLuminance = targetPeak;
        return info.GetPQTonemapCoefs();
    };
    // shownPeak: what the curve leads to, in 100 cd/m2.
    const auto check = [&](TransferCharacteristics target, Mode mode, float sourcePeak,
                           float targetPeak, double shownPeak) {
        const auto [a, b] = getCurve(PQ, target, mode, sourcePeak, targetPeak);
        const double peak = sourcePeak / 100.0;
        EXPECT_NEAR(a, shownPeak / (peak * peak), 1e-6) << sourcePeak << " to " << targetPeak;
        EXPECT_NEAR(peak * (1.0 + a * peak) / (1.0 + b * peak), shownPeak, 1e-4) << targetPeak;
    };
    check(PQ, Mode::DisplayReferredHDR, 4000.0F, 1000.0F, 10.0);
    check(HLG, Mode::DisplayReferred, 4000.0F, 1000.0F, 10.0);
    check(Linear, Mode::DisplayReferredHDR, 1000.0F, 600.0F, 6.0);
    check(Linear, Mode::DisplayReferred, 1000.0F, 600.0F, 2.03);
    constexpr std::pair kNone(0.0F, 0.0F);
    EXPECT_EQ(getCurve(PQ, PQ, Mode::DisplayReferredHDR, 1000.0F, 1000.0F), kNone);
    EXPECT_EQ(getCurve(PQ, sRGB, Mode::DisplayReferred, 203.0F, 100.0F), kNone);
    EXPECT_EQ(getCurve(HLG, PQ, Mode::DisplayReferredHDR, 4000.0F, 1000.0F), kNone);
}

TEST(ColorConversionInfoTest, DerivesTheHLGSystemGammaFromTheDisplay) {
    const std::pair<float, double> cases[] = {
        {1000.0F, 1.2},       // ITU-R BT.2100-2, table 5
        {400.0F, 1.0328652},  // 1.2 + 0.42 log10 0.4
        {2000.0F, 1.3264326}, // 1.2 + 0.42 log10 2
        {100.0F, 0.8459},     // ITU-R BT.2390-8, 6.2: 1.2 x 1.111^-3.3219281
        {4000.0F, 1.4811852}, // 1.2 x 1.111^2
        {250.0F, 0.9721946},  // 1.2 x 1.111^-2
    };
    for (const auto& [peak, expected] : cases) {
        auto info = MakeInfo(HLG, PQ);
        info.sourcePeakLuminance = 777.0F;
        info.targetPeakLuminance = peak;
        EXPECT_NEAR(info.GetHLGOOTFGamma(), expected, 2e-5) << peak;
    }
}

} // namespace
} // namespace Norvex
