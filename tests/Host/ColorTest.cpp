#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <tuple>

#include "Host/Color.h"
#include "Host/ColorConversionInfo.h"

namespace Norvex {
namespace {

using Conf::YCbCrMatrix;
using Proc::ColorConversionInfo;
using Proc::LinearizationMode;
using Transfer = Conf::TransferCharacteristics;

TEST(YCbCrMatrixTest, HoldsThePublishedCoefficients) {
    // Four-digit coefficients as printed: ITU-R BT.601-7, 2.5.1-2.5.2 (as differences over 1.772
    // and 1.402), BT.709-6, items 3.2-3.3 (1.8556, 1.5748), BT.2020-2, table 4 (1.8814, 1.4746).
    const struct {
        YCbCrMatrix matrix;
        double kr, kg, kb, pbDivisor, prDivisor;
    } cases[] = {
        {YCbCrMatrix::BT601, 0.299, 0.587, 0.114, 1.772, 1.402},
        {YCbCrMatrix::BT709, 0.2126, 0.7152, 0.0722, 1.8556, 1.5748},
        {YCbCrMatrix::BT2020NonConstant, 0.2627, 0.6780, 0.0593, 1.8814, 1.4746},
    };
    for (const auto& item : cases) {
        const double expected[3][3] = {
            {item.kr, item.kg, item.kb},
            {-item.kr / item.pbDivisor, -item.kg / item.pbDivisor, 0.5},
            {0.5, -item.kg / item.prDivisor, -item.kb / item.prDivisor},
        };
        const auto matrix = Conf::GetRGBToYpPbPrMatrix(item.matrix);
        for (std::size_t row = 0; row < 3; ++row) {
            for (std::size_t column = 0; column < 3; ++column) {
                EXPECT_NEAR(matrix[row][column], expected[row][column], 1e-12)
                    << static_cast<int>(item.matrix) << " at " << row << ", " << column;
            }
        }
    }
    EXPECT_THROW(Conf::GetRGBToYpPbPrMatrix(static_cast<YCbCrMatrix>(8)), std::invalid_argument);
}

ColorConversionInfo MakeInfo(Transfer source, Transfer target) {
    ColorConversionInfo info;
    info.source.transfer = source;
    info.target.transfer = target;
    return info;
}

TEST(ColorConversionInfoTest, ScalesLightBetweenSDRAndHDR) {
    const struct {
        Transfer source, target;
        float linearScale, referenceWhite, expected;
    } cases[] = {
        {Transfer::sRGB, Transfer::PQ, 1.0F, 203.0F, 2.03F}, // SDR white at 203 cd/m2
        {Transfer::PQ, Transfer::sRGB, 1.0F, 203.0F, 100.0F / 203.0F},
        {Transfer::BT709, Transfer::HLG, 0.5F, 100.0F, 0.5F},
        {Transfer::HLG, Transfer::BT709, 2.0F, 400.0F, 0.5F},
        {Transfer::PQ, Transfer::PQ, 1.0F, 203.0F, 1.0F},
        {Transfer::HLG, Transfer::PQ, 3.0F, 203.0F, 3.0F},
        {Transfer::sRGB, Transfer::Linear, 2.5F, 203.0F, 2.5F},
        // scRGB counts in 80 cd/m2: PQ light of 100 cd/m2 becomes 1.25.
        {Transfer::PQ, Transfer::Linear, 203.0F / 80.0F, 203.0F, 1.25F},
    };
    for (const auto& item : cases) {
        auto info = MakeInfo(item.source, item.target);
        info.linearScale = item.linearScale;
        info.referenceWhite = item.referenceWhite;
        EXPECT_FLOAT_EQ(info.GetLinearScale(), item.expected)
            << static_cast<int>(item.source) << " to " << static_cast<int>(item.target);
    }
}

TEST(ColorConversionInfoTest, TonemapsOnlyPQThatIsTooBright) {
    const auto hdr = LinearizationMode::DisplayReferredHDR;
    const auto display = LinearizationMode::DisplayReferred;
    const struct {
        Transfer source, target;
        LinearizationMode mode;
        float sourcePeak, targetPeak;
        double shownPeak; // what the curve leads to, in 100 cd/m2; 0: no curve
    } cases[] = {
        {Transfer::PQ, Transfer::PQ, hdr, 4000.0F, 1000.0F, 10.0},
        {Transfer::PQ, Transfer::HLG, display, 4000.0F, 1000.0F, 10.0},
        {Transfer::PQ, Transfer::Linear, hdr, 1000.0F, 600.0F, 6.0},
        {Transfer::PQ, Transfer::Linear, display, 1000.0F, 600.0F, 2.03},
        {Transfer::PQ, Transfer::sRGB, display, 1000.0F, 1000.0F, 2.03},
        {Transfer::PQ, Transfer::PQ, hdr, 1000.0F, 1000.0F, 0.0},
        {Transfer::PQ, Transfer::PQ, hdr, 600.0F, 1000.0F, 0.0},
        {Transfer::PQ, Transfer::sRGB, display, 203.0F, 100.0F, 0.0},
        {Transfer::HLG, Transfer::PQ, hdr, 4000.0F, 1000.0F, 0.0},
        {Transfer::sRGB, Transfer::PQ, hdr, 4000.0F, 1000.0F, 0.0},
    };
    for (const auto& item : cases) {
        auto info = MakeInfo(item.source, item.target);
        info.mode = item.mode;
        info.sourcePeakLuminance = item.sourcePeak;
        info.targetPeakLuminance = item.targetPeak;
        const auto [a, b] = info.GetPQTonemapCoefs();
        SCOPED_TRACE(testing::Message() << item.sourcePeak << " to " << item.targetPeak);
        if (item.shownPeak == 0.0) {
            EXPECT_EQ(std::pair(a, b), std::pair(0.0F, 0.0F));
            continue;
        }
        const double peak = item.sourcePeak / 100.0;
        EXPECT_NEAR(a, item.shownPeak / (peak * peak), 1e-6);
        EXPECT_NEAR(peak * (1.0 + a * peak) / (1.0 + b * peak), item.shownPeak, 1e-4);
    }
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
        for (const auto& [source, target] :
             {std::pair(Transfer::HLG, Transfer::PQ), std::pair(Transfer::sRGB, Transfer::HLG)}) {
            auto info = MakeInfo(source, target);
            info.sourcePeakLuminance = 777.0F;
            info.targetPeakLuminance = peak;
            EXPECT_EQ(info.GetHLGDisplayPeakLuminance(), peak);
            EXPECT_NEAR(info.GetHLGOOTFGamma(), expected, 2e-5) << peak;
        }
    }
}

} // namespace
} // namespace Norvex
