// The reference that pictures are judged by, and the description's numbers, against published ones.

#include <cmath>

#include <gmock/gmock.h>

#include "tests/support/ColorReference.h"

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
    const struct {
        const char* source;
        double (*encode)(double);
        double (*decode)(double);
        double light, value, tolerance;
    } cases[] = {
        {"ST 2084, 10 000 cd/m2", PQFromLight, LightFromPQ, 100.0, 1.0, 1e-12},
        {"ST 2084, 100 cd/m2", PQFromLight, LightFromPQ, 1.0, 0.508078421517399, 1e-12},
        {"BT.2408-7, table 1, 203 cd/m2", PQFromLight, LightFromPQ, 2.03, 0.580688881, 1e-9},
        {"BT.2100-2, sqrt(3 x 0.18 / 12)", HLGFromScene, SceneFromHLG, 0.18, 0.212132034, 1e-9},
        {"BT.2100-2, a twelfth of the peak", HLGFromScene, SceneFromHLG, 1.0, 0.5, 1e-7},
        {"BT.2100-2, peak", HLGFromScene, SceneFromHLG, 12.0, 1.0, 1e-7},
        {"IEC 61966-2-1, end of the line", SRGBFromLight, LightFromSRGB, 0.0031308, 0.04045, 1e-6},
        {"IEC 61966-2-1, half", SRGBFromLight, LightFromSRGB, 0.214041140482232, 0.5, 1e-12},
        {"BT.709-6, end of the line", Rec709FromScene, SceneFromRec709, 0.018, 0.081, 3e-4},
        {"BT.709-6, white", Rec709FromScene, SceneFromRec709, 1.0, 1.0, 1e-12},
    };
    for (const auto& [source, encode, decode, light, value, tolerance] : cases) {
        EXPECT_NEAR(encode(light), value, tolerance) << source;
        EXPECT_NEAR(encode(decode(value)), value, tolerance + 1e-12) << source;
    }
}

// SDR white, and what stands for it in PQ and HLG, become each other.
TEST(ColorReferenceTest, WhiteStaysWhiteBetweenAllSpacesInAllModes) {
    struct White {
        RGBColorSpace space;
        double value;
    };
    for (const double nits : {203.0, 100.0}) {
        // BT.2408-7, table 1: at 203 cd/m2 75 % of HLG.
        const double hlg = nits == 203.0 ? 0.75 : HLGFromScene(12 * std::pow(nits / 1000, 1 / 1.2));
        const White whites[] = {{{k709, sRGB}, 1},   {{k709, BT709}, 1},
                                {{k2020, BT709}, 1}, {{k2020, PQ}, PQFromLight(nits / 100)},
                                {{k2020, HLG}, hlg}, {{k709, Linear}, 1}};
        for (const White& from : whites) {
            for (const White& to : whites) {
                for (const unsigned mode : {0U, 1U, 2U}) {
                    Proc::ColorAlphaConversionInfo info;
                    info.source = from.space;
                    info.target = to.space;
                    info.mode = static_cast<Proc::LinearizationMode>(mode);
                    info.referenceWhite = static_cast<float>(nits);
                    info.sourcePeakLuminance = info.referenceWhite; // no tone mapping
                    const double v = from.value;
                    if (from.space.transfer != Linear) { // which is no source
                        EXPECT_THAT(ReferenceConvert({v, v, v, 1}, info),
                                    IsColor({to.value, to.value, to.value, 1}, 1e-3))
                            << static_cast<int>(from.space.transfer) << " to "
                            << static_cast<int>(to.space.transfer) << ", mode " << mode;
                    }
                }
            }
        }
    }
}

TEST(ColorReferenceTest, PrimariesPeaksAndAlphaMeetPublishedValues) {
    const double peak = PQFromLight(40.0);
    const struct {
        RGBColorSpace source, target;
        Proc::AlphaType from, to;
        Pixel color, expected;
    } cases[] = {
        // BT.2087-0: the red of BT.709 in linear BT.2020, encoded by BT.1886.
        {{k709, BT709},
         {k2020, BT709},
         NonPremultiplied,
         NonPremultiplied,
         {1, 0, 0, 0.5},
         {0.823451, 0.328432, 0.180295, 0.5}},
        // A tone curve takes the mastering peak to the SDR white.
        {{k2020, PQ},
         {k709, sRGB},
         NonPremultiplied,
         NonPremultiplied,
         {peak, peak, peak, 1},
         {1, 1, 1, 1}},
        // In the encoded domain.
        {{}, {}, NonPremultiplied, Premultiplied, {0.8, 0.4, 0.2, 0.5}, {0.4, 0.2, 0.1, 0.5}},
        {{}, {}, NonPremultiplied, AlphaIsOne, {0.8, 0.4, 0.2, 0.5}, {0.4, 0.2, 0.1, 1.0}},
        {{}, {}, Premultiplied, NonPremultiplied, {0.4, 0.2, 0.1, 0.5}, {0.8, 0.4, 0.2, 0.5}},
        {{}, {}, Premultiplied, NonPremultiplied, {0.3, 0.2, 0.1, 0.0}, {0.3, 0.2, 0.1, 0.0}},
        {{}, {}, AlphaIsOne, Premultiplied, {0.8, 0.4, 0.2, 0.5}, {0.8, 0.4, 0.2, 1.0}},
    };
    for (const auto& c : cases) {
        Proc::ColorAlphaConversionInfo info;
        info.source = c.source;
        info.target = c.target;
        info.sourceAlpha = c.from;
        info.targetAlpha = c.to;
        info.sourcePeakLuminance = 4000.0F;
        EXPECT_THAT(ReferenceConvert(c.color, info), IsColor(c.expected, 1e-4)) << &c - cases;
    }
}

} // namespace
