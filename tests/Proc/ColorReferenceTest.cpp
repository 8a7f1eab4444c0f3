// The references that pictures and frames are judged by, against published numbers.

#include <algorithm>

#include <gmock/gmock.h>

#include "tests/support/ColorReference.h"
#include "tests/support/YCbCrReference.h"

namespace {

using namespace Norvex;
using namespace Norvex::Test;
using enum Conf::TransferCharacteristics;

TEST(ColorReferenceTest, TransferFunctionsMeetPublishedValues) {
    const auto expect = [](const char* source, auto encode, auto decode, double light, double value,
                           double tolerance) {
        EXPECT_NEAR(encode(light), value, tolerance) << source;
        EXPECT_NEAR(encode(decode(value)), value, tolerance + 1e-12) << source;
    };
    expect("ST 2084, 100 cd/m2", PQFromLight, LightFromPQ, 1, 0.508078421517399, 1e-12);
    expect("BT.2100-2, sqrt(3 x 0.18 / 12)", HLGFromScene, SceneFromHLG, 0.18, 0.212132034, 1e-9);
    expect("BT.2100-2, peak", HLGFromScene, SceneFromHLG, 12, 1, 1e-7);
    expect("IEC 61966-2-1, line", SRGBFromLight, LightFromSRGB, 0.0031308, 0.04045, 1e-6);
    expect("IEC 61966-2-1, half", SRGBFromLight, LightFromSRGB, 0.214041140482232, 0.5, 1e-12);
    expect("BT.709-6, line", Rec709FromScene, SceneFromRec709, 0.018, 0.081, 3e-4);
}

TEST(ColorReferenceTest, ConversionsMeetPublishedValues) {
    Proc::ColorAlphaConversionInfo info;
    info.source = {Conf::ColorPrimaries::BT709, BT709};
    info.target = {Conf::ColorPrimaries::BT2020, BT709};
    info.mode = Proc::LinearizationMode::DisplayReferred;
    const auto expect = [&](const Pixel& color, const Pixel& expected, double tolerance) {
        EXPECT_THAT(ReferenceConvert(color, info),
                    testing::Pointwise(testing::DoubleNear(tolerance), expected));
    };
    // BT.2087-0: the red of BT.709 in linear BT.2020, encoded by BT.1886.
    expect({1, 0, 0, 0.5}, {0.823451, 0.328432, 0.180295, 0.5}, 1e-4);
    // BT.2408-7, table 1: SDR white at 203 cd/m2 in PQ and HLG.
    info.target.transfer = PQ;
    expect({1, 1, 1, 1}, {0.58, 0.58, 0.58, 1}, 1e-3);
    info.target.transfer = HLG;
    expect({1, 1, 1, 1}, {0.75, 0.75, 0.75, 1}, 1e-3);
}

TEST(ColorReferenceTest, ColorsGiveTheirPublishedCodes) {
    const auto expect = [](const Color& color, Conf::YCbCrMatrix matrix,
                           const std::array<double, 3>& codesAt10Bits) {
        auto frame = ReferenceFrame({1, 1, {color}}, matrix, {}, {1, 1});
        std::ranges::transform(frame, frame.begin(), [](double code) { return 1024 * code; });
        EXPECT_THAT(frame, testing::Pointwise(testing::DoubleNear(0.55), codesAt10Bits));
    };
    expect({0.25, 0.5, 0.75, 1}, Conf::YCbCrMatrix::BT601, {461, 662, 382});
    expect({1, 0, 0, 1}, Conf::YCbCrMatrix::BT709, {250, 409, 960});
    expect({0, 1, 0, 1}, Conf::YCbCrMatrix::BT2020NonConstant, {658, 189, 100});
}

} // namespace
