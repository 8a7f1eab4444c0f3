// The references that pictures and frames are judged by, and the description's numbers, against
// published ones.

#include <cmath>

#include <gmock/gmock.h>

#include "tests/support/ColorReference.h"
#include "tests/support/YCbCrReference.h"

namespace {

using namespace Norvex;
using namespace Norvex::Test;
using enum Conf::TransferCharacteristics;
using enum Proc::AlphaType;
using Conf::RGBColorSpace;

constexpr auto k709 = Conf::ColorPrimaries::BT709;
constexpr auto k2020 = Conf::ColorPrimaries::BT2020;

auto IsColor(const Pixel& color, double tolerance) {
    return testing::Pointwise(testing::DoubleNear(tolerance), color);
}

TEST(ColorReferenceTest, TransferFunctionsMeetPublishedValues) {
    const auto expect = [](const char* source, auto encode, auto decode, double light, double value,
                           double tolerance) {
        EXPECT_NEAR(encode(light), value, tolerance) << source;
        EXPECT_NEAR(encode(decode(value)), value, tolerance + 1e-12) << source;
    };
    expect("ST 2084, 10 000 cd/m2", PQFromLight, LightFromPQ, 100, 1, 1e-12);
    expect("ST 2084, 100 cd/m2", PQFromLight, LightFromPQ, 1, 0.508078421517399, 1e-12);
    expect("BT.2408-7, 203 cd/m2", PQFromLight, LightFromPQ, 2.03, 0.580688881, 1e-9);
    expect("BT.2100-2, sqrt(3 x 0.18 / 12)", HLGFromScene, SceneFromHLG, 0.18, 0.212132034, 1e-9);
    expect("BT.2100-2, a twelfth of the peak", HLGFromScene, SceneFromHLG, 1, 0.5, 1e-7);
    expect("BT.2100-2, peak", HLGFromScene, SceneFromHLG, 12, 1, 1e-7);
    expect("IEC 61966-2-1, line", SRGBFromLight, LightFromSRGB, 0.0031308, 0.04045, 1e-6);
    expect("IEC 61966-2-1, half", SRGBFromLight, LightFromSRGB, 0.214041140482232, 0.5, 1e-12);
    expect("BT.709-6, line", Rec709FromScene, SceneFromRec709, 0.018, 0.081, 3e-4);
    expect("BT.709-6, white", Rec709FromScene, SceneFromRec709, 1, 1, 1e-12);
}

// SDR white, and what stands for it in PQ and HLG, become each other.
TEST(ColorReferenceTest, WhiteStaysWhiteBetweenAllSpacesInAllModes) {
    for (const double nits : {203.0, 100.0}) {
        // BT.2408-7, table 1: at 203 cd/m2 75 % of HLG.
        const double hlg = nits == 203.0 ? 0.75 : HLGFromScene(12 * std::pow(nits / 1000, 1 / 1.2));
        const std::pair<RGBColorSpace, double> whites[] = {
            {{k709, sRGB}, 1},   {{k709, BT709}, 1},  {{k2020, BT709}, 1},
            {{k2020, HLG}, hlg}, {{k709, Linear}, 1}, {{k2020, PQ}, PQFromLight(nits / 100)}};
        for (const auto& [from, v] : whites) {
            for (const auto& [to, w] : whites) {
                for (unsigned mode = 0; mode < 3 && from.transfer != Linear; ++mode) {
                    Proc::ColorAlphaConversionInfo info;
                    info.source = from;
                    info.target = to;
                    info.mode = static_cast<Proc::LinearizationMode>(mode);
                    info.referenceWhite = static_cast<float>(nits);
                    info.sourcePeakLuminance = info.referenceWhite; // no tone mapping
                    EXPECT_THAT(ReferenceConvert({v, v, v, 1}, info), IsColor({w, w, w, 1}, 1e-3))
                        << static_cast<int>(from.transfer) << " to "
                        << static_cast<int>(to.transfer) << ", mode " << mode;
                }
            }
        }
    }
}

TEST(ColorReferenceTest, PrimariesPeaksAndAlphaMeetPublishedValues) {
    Proc::ColorAlphaConversionInfo info;
    info.sourcePeakLuminance = 4000;
    const auto expect = [&info](const Pixel& color, const Pixel& expected) {
        EXPECT_THAT(ReferenceConvert(color, info), IsColor(expected, 1e-4));
    };
    const auto expectAlpha = [&](Proc::AlphaType from, Proc::AlphaType to, const Pixel& color,
                                 const Pixel& expected) {
        info.sourceAlpha = from;
        info.targetAlpha = to;
        expect(color, expected);
    };
    // In the encoded domain.
    expectAlpha(NonPremultiplied, Premultiplied, {0.8, 0.4, 0.2, 0.5}, {0.4, 0.2, 0.1, 0.5});
    expectAlpha(NonPremultiplied, AlphaIsOne, {0.8, 0.4, 0.2, 0.5}, {0.4, 0.2, 0.1, 1.0});
    expectAlpha(Premultiplied, NonPremultiplied, {0.4, 0.2, 0.1, 0.5}, {0.8, 0.4, 0.2, 0.5});
    expectAlpha(Premultiplied, NonPremultiplied, {0.3, 0.2, 0.1, 0.0}, {0.3, 0.2, 0.1, 0.0});
    expectAlpha(AlphaIsOne, Premultiplied, {0.8, 0.4, 0.2, 0.5}, {0.8, 0.4, 0.2, 1.0});
    info.sourceAlpha = info.targetAlpha = NonPremultiplied;
    // BT.2087-0: the red of BT.709 in linear BT.2020, encoded by BT.1886.
    info.source = {k709, BT709};
    info.target = {k2020, BT709};
    expect({1, 0, 0, 0.5}, {0.823451, 0.328432, 0.180295, 0.5});
    // A tone curve takes the mastering peak to the SDR white.
    info.source = {k2020, PQ};
    info.target = {k709, sRGB};
    const double peak = PQFromLight(40);
    expect({peak, peak, peak, 1}, {1, 1, 1, 1});
}

TEST(ColorReferenceTest, ColorsGiveTheirPublishedCodes) {
    const auto expect = [](const Color& color, Conf::YCbCrMatrix matrix,
                           const std::array<double, 3>& codesAt10Bits) {
        const auto frame = ReferenceFrame(MakePixels(2, 2, [&](auto...) { return color; }), matrix,
                                          AlphaIsOne, {1, 1});
        EXPECT_THAT((std::array{1024 * frame[0], 1024 * frame[4], 1024 * frame[5]}),
                    testing::Pointwise(testing::DoubleNear(0.55), codesAt10Bits));
    };
    using Matrix = Conf::YCbCrMatrix;
    expect({0.25, 0.5, 0.75, 1}, Matrix::BT601, {461, 662, 382});
    expect({0, 0, 1, 1}, Matrix::BT601, {164, 960, 439});
    expect({1, 1, 1, 1}, Matrix::BT709, {940, 512, 512});
    expect({0, 0, 0, 1}, Matrix::BT709, {64, 512, 512});
    expect({1, 0, 0, 1}, Matrix::BT709, {250, 409, 960});
    expect({0, 1, 0, 1}, Matrix::BT2020NonConstant, {658, 189, 100});
}

} // namespace
