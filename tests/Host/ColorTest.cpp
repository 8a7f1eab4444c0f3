#include "Host/Color.h"

#include <gtest/gtest.h>

#include "Host/ColorConversionInfo.h"

namespace Norvex {
namespace {

using enum Conf::TransferCharacteristics;
using Conf::TransferCharacteristics;
using Mode = Proc::LinearizationMode;

Proc::ColorConversionInfo MakeInfo(TransferCharacteristics source, TransferCharacteristics target,
                                   Mode mode = Mode::DisplayReferred, float sourcePeak = 777.0F,
                                   float targetPeak = 555.0F) {
    Proc::ColorConversionInfo info;
    info.source.transfer = source;
    info.target.transfer = target;
    info.mode = mode;
    info.sourcePeakLuminance = sourcePeak;
    info.targetPeakLuminance = targetPeak;
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
    check(sRGB, Linear, 2.5F, 203.0F, 2.5F);
    // scRGB counts in 80 cd/m2: PQ light of 100 cd/m2 becomes 1.25.
    check(PQ, Linear, 203.0F / 80.0F, 203.0F, 1.25F);
}

TEST(ColorConversionInfoTest, TonemapsOnlyPQThatIsTooBright) {
    // shownPeak: what the curve leads to, in 100 cd/m2; 0: no curve.
    const auto check = [&](TransferCharacteristics source, TransferCharacteristics target,
                           Mode mode, float sourcePeak, float targetPeak, double shownPeak) {
        const auto [a, b] =
            MakeInfo(source, target, mode, sourcePeak, targetPeak).GetPQTonemapCoefs();
        const double peak = sourcePeak / 100.0;
        EXPECT_NEAR(a, shownPeak / (peak * peak), 1e-6) << sourcePeak << " to " << targetPeak;
        if (shownPeak > 0) {
            EXPECT_NEAR(peak * (1.0 + a * peak) / (1.0 + b * peak), shownPeak, 1e-4) << targetPeak;
        }
    };
    check(PQ, PQ, Mode::DisplayReferredHDR, 4000.0F, 1000.0F, 10.0);
    check(PQ, HLG, Mode::DisplayReferred, 4000.0F, 1000.0F, 10.0);
    check(PQ, Linear, Mode::DisplayReferredHDR, 1000.0F, 600.0F, 6.0);
    check(PQ, Linear, Mode::DisplayReferred, 1000.0F, 600.0F, 2.03);
    check(PQ, PQ, Mode::DisplayReferredHDR, 1000.0F, 1000.0F, 0);
    check(PQ, sRGB, Mode::DisplayReferred, 203.0F, 100.0F, 0);
    check(HLG, PQ, Mode::DisplayReferredHDR, 4000.0F, 1000.0F, 0);
}

TEST(ColorConversionInfoTest, DerivesTheHLGSystemGammaFromTheDisplay) {
    const std::pair<float, double> cases[] = {
        {1000.0F, 1.2},       // ITU-R BT.2100-2, table 5
        {400.0F, 1.0328652},  // 1.2 + 0.42 log10 0.4
        {2000.0F, 1.3264326}, // 1.2 + 0.42 log10 2
        {4000.0F, 1.4811852}, // ITU-R BT.2390-8, 6.2: 1.2 x 1.111^2
        {250.0F, 0.9721946},  // 1.2 x 1.111^-2
    };
    for (const auto& [peak, expected] : cases) {
        const auto info = MakeInfo(HLG, PQ, Mode::DisplayReferred, 777.0F, peak);
        EXPECT_NEAR(info.GetHLGOOTFGamma(), expected, 2e-5) << peak;
    }
}

} // namespace
} // namespace Norvex
