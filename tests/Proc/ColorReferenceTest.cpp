// The references that pictures and frames are judged by, against published numbers.

#include <gmock/gmock.h>

#include "tests/support/ColorReference.h"
#include "tests/support/YCbCrReference.h"

namespace {

using namespace Norvex;
using namespace Norvex::Test;
using enum Conf::ColorPrimaries;
using Transfer = Conf::TransferCharacteristics;

auto IsNear(const std::vector<double>& numbers, double tolerance) {
    return testing::Pointwise(testing::DoubleNear(tolerance), numbers);
}

TEST(ColorReferenceTest, TransferFunctionsMeetPublishedValues) {
    const auto expect = [](const char* source, auto encode, auto decode, double light, double value,
                           double tolerance) {
        EXPECT_NEAR(encode(light), value, tolerance) << source;
        EXPECT_NEAR(encode(decode(value)), value, tolerance + 1e-12) << source;
    };
    expect("ST 2084, 100 cd/m2", PQFromLight, LightFromPQ, 1, 0.508078421517399, 1e-12);
    expect("BT.2408-7, 203 cd/m2", PQFromLight, LightFromPQ, 2.03, 0.580688881, 1e-9);
    expect("BT.2100-2, sqrt(3 x 0.18 / 12)", HLGFromScene, SceneFromHLG, 0.18, 0.212132034, 1e-9);
    expect("BT.2100-2, peak", HLGFromScene, SceneFromHLG, 12, 1, 1e-7);
    expect("IEC 61966-2-1, line", SRGBFromLight, LightFromSRGB, 0.0031308, 0.04045, 1e-6);
    expect("IEC 61966-2-1, half", SRGBFromLight, LightFromSRGB, 0.214041140482232, 0.5, 1e-12);
    expect("BT.709-6, line", Rec709FromScene, SceneFromRec709, 0.018, 0.081, 3e-4);
    expect("BT.709-6, white", Rec709FromScene, SceneFromRec709, 1, 1, 1e-12);
}

TEST(ColorReferenceTest, ConversionsMeetPublishedValues) {
    const auto expect = [](const Conf::RGBColorSpace& from, const Pixel& color,
                           const Conf::RGBColorSpace& to, const Pixel& expected) {
        Proc::ColorAlphaConversionInfo info;
        info.source = from;
        info.target = to;
        info.mode = Proc::LinearizationMode::DisplayReferred;
        info.sourcePeakLuminance = 4000;
        info.referenceWhite = 203;
        info.targetPeakLuminance = 1000;
        EXPECT_THAT(ReferenceConvert(color, info),
                    IsNear({expected.begin(), expected.end()}, 1e-3));
    };
    // BT.2087-0: the red of BT.709 in linear BT.2020, encoded by BT.1886.
    expect({BT709, Transfer::BT709}, {1, 0, 0, 0.5}, {BT2020, Transfer::BT709},
           {0.823451, 0.328432, 0.180295, 0.5});
    // BT.2408-7, table 1: SDR white at 203 cd/m2 in PQ and HLG.
    expect({BT709, Transfer::sRGB}, {1, 1, 1, 1}, {BT2020, Transfer::PQ}, {0.58, 0.58, 0.58, 1});
    expect({BT709, Transfer::sRGB}, {1, 1, 1, 1}, {BT2020, Transfer::HLG}, {0.75, 0.75, 0.75, 1});
    // A tone curve takes the mastering peak to the SDR white.
    const double peak = PQFromLight(40);
    expect({BT2020, Transfer::PQ}, {peak, peak, peak, 1}, {BT709, Transfer::sRGB}, {1, 1, 1, 1});
}

TEST(ColorReferenceTest, ColorsGiveTheirPublishedCodes) {
    const auto expect = [](const Color& color, Conf::YCbCrMatrix matrix,
                           const std::vector<double>& codesAt10Bits) {
        const auto frame = ReferenceFrame({1, 1, {color}}, matrix, {}, {1, 1});
        EXPECT_THAT((std::array{1024 * frame[0], 1024 * frame[1], 1024 * frame[2]}),
                    IsNear(codesAt10Bits, 0.55));
    };
    expect({0.25, 0.5, 0.75, 1}, Conf::YCbCrMatrix::BT601, {461, 662, 382});
    expect({1, 0, 0, 1}, Conf::YCbCrMatrix::BT709, {250, 409, 960});
    expect({0, 1, 0, 1}, Conf::YCbCrMatrix::BT2020NonConstant, {658, 189, 100});
}

} // namespace
