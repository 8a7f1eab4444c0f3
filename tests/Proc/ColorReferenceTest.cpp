// The reference that pictures are judged by, against published numbers.

#include <gtest/gtest.h>

#include "tests/support/ColorReference.h"

namespace {

using namespace Norvex;
using namespace Norvex::Test;
using Conf::ColorPrimaries;
using Conf::TransferCharacteristics;

TEST(ColorReferenceTest, TransferFunctionsMeetPublishedValues) {
    const struct {
        const char* source;
        double (*encode)(double);
        double (*decode)(double);
        double light;
        double value;
        double tolerance;
    } cases[] = {
        {"ST 2084, 10 000 cd/m2", PQFromLight, LightFromPQ, 100.0, 1.0, 1e-12},
        {"ST 2084, 100 cd/m2", PQFromLight, LightFromPQ, 1.0, 0.508078421517399, 1e-12},
        {"BT.2408-7, table 1, HDR reference white, 203 cd/m2", PQFromLight, LightFromPQ, 2.03,
         0.580688881, 1e-9},
        {"BT.2100-2, table 5, black", HLGFromScene, SceneFromHLG, 0.0, 0.0, 0.0},
        {"BT.2100-2, table 5, sqrt(3 x 0.18 / 12)", HLGFromScene, SceneFromHLG, 0.18,
         0.212132034355964, 1e-12},
        {"BT.2100-2, table 5, a twelfth of the peak", HLGFromScene, SceneFromHLG, 1.0, 0.5, 1e-7},
        {"BT.2100-2, table 5, peak", HLGFromScene, SceneFromHLG, 12.0, 1.0, 1e-7},
        {"IEC 61966-2-1, black", SRGBFromLight, LightFromSRGB, 0.0, 0.0, 0.0},
        {"IEC 61966-2-1, end of the line", SRGBFromLight, LightFromSRGB, 0.0031308, 0.04045, 1e-6},
        {"IEC 61966-2-1, half the code", SRGBFromLight, LightFromSRGB, 0.214041140482232, 0.5,
         1e-12},
        {"IEC 61966-2-1, white", SRGBFromLight, LightFromSRGB, 1.0, 1.0, 1e-12},
        {"BT.709-6, black", Rec709FromScene, SceneFromRec709, 0.0, 0.0, 0.0},
        {"BT.709-6, end of the line", Rec709FromScene, SceneFromRec709, 0.018, 0.081, 3e-4},
        {"BT.709-6, white", Rec709FromScene, SceneFromRec709, 1.0, 1.0, 1e-12},
    };
    for (const auto& [source, encode, decode, light, value, tolerance] : cases) {
        EXPECT_NEAR(encode(light), value, tolerance) << source;
        EXPECT_NEAR(encode(decode(value)), value, tolerance + 1e-12) << source;
    }
}

Pixel Convert(const Pixel& color, ColorPrimaries from, TransferCharacteristics decode,
              ColorPrimaries to, TransferCharacteristics encode, float sourcePeak = 1000.0F) {
    Proc::ColorAlphaConversionInfo info;
    info.source = {from, decode};
    info.target = {to, encode};
    info.sourcePeakLuminance = sourcePeak;
    return ReferenceConvert(color, info);
}

void ExpectColor(const Pixel& actual, const Pixel& expected, double tolerance) {
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(actual[i], expected[i], tolerance) << "channel " << i;
    }
}

TEST(ColorReferenceTest, WhitesAndPrimariesMeetPublishedValues) {
    using enum TransferCharacteristics;
    constexpr auto k709 = ColorPrimaries::BT709;
    constexpr auto k2020 = ColorPrimaries::BT2020;
    constexpr Pixel kWhite = {1, 1, 1, 1};
    constexpr double kReferenceWhite = 0.580688881; // PQ of 203 cd/m2
    ExpectColor(Convert(kWhite, k709, sRGB, k2020, PQ),
                {kReferenceWhite, kReferenceWhite, kReferenceWhite, 1}, 1e-5);
    ExpectColor(Convert({kReferenceWhite, kReferenceWhite, kReferenceWhite, 1}, k2020, PQ, k709,
                        sRGB, 203.0F),
                kWhite, 1e-5);
    // BT.2408-7, table 1: HDR reference white is at 75 % in HLG.
    ExpectColor(Convert(kWhite, k709, sRGB, k2020, HLG), {0.75, 0.75, 0.75, 1}, 3e-3);
    // BT.2087-0: the red of BT.709 in linear BT.2020, encoded by BT.1886.
    ExpectColor(Convert({1, 0, 0, 0.5}, k709, TransferCharacteristics::BT709, k2020,
                        TransferCharacteristics::BT709),
                {0.823451, 0.328432, 0.180295, 0.5}, 1e-4);
    // A tone curve takes the mastering peak to the SDR white.
    const double peak = PQFromLight(40.0);
    ExpectColor(Convert({peak, peak, peak, 1}, k2020, PQ, k709, sRGB, 4000.0F), kWhite, 1e-5);
}

TEST(ColorReferenceTest, AlphaTypesConvertInTheEncodedDomain) {
    using enum Proc::AlphaType;
    const Pixel straight = {0.8, 0.4, 0.2, 0.5};
    const Pixel premultiplied = {0.4, 0.2, 0.1, 0.5};
    const struct {
        Proc::AlphaType from;
        Proc::AlphaType to;
        Pixel color;
        Pixel expected;
    } cases[] = {
        {NonPremultiplied, NonPremultiplied, straight, straight},
        {NonPremultiplied, Premultiplied, straight, premultiplied},
        {NonPremultiplied, AlphaIsOne, straight, {0.4, 0.2, 0.1, 1.0}},
        {Premultiplied, NonPremultiplied, premultiplied, straight},
        {Premultiplied, Premultiplied, premultiplied, premultiplied},
        {Premultiplied, NonPremultiplied, {0.3, 0.2, 0.1, 0.0}, {0.3, 0.2, 0.1, 0.0}},
        {AlphaIsOne, Premultiplied, straight, {0.8, 0.4, 0.2, 1.0}},
    };
    for (const auto& [from, to, color, expected] : cases) {
        Proc::ColorAlphaConversionInfo info;
        info.sourceAlpha = from;
        info.targetAlpha = to;
        ExpectColor(ReferenceConvert(color, info), expected, 1e-15);
    }
}

} // namespace
