// Tone mapping and gamut reduction, drawn on both generations: against the reference in double
// precision, and against what ITU-R BT.2390 and a hue that stays ask for, whatever the formulas.

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "apps/norvexdx/reference/ColorReference.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::RGBColorSpace;
using DX::D3ToneMapping;
using DX::GamutReduction;
using DX::ToneChannels;
using DX::ToneCurve;
using Proc::ColorAlphaConversionInfo;

double PQOf(double luminance) {
    return Reference::PQFromLight(luminance / 100.0);
}

template <class AnyCanvas>
class D3ToneMappingTest : public testing::Test {
protected:
    typename AnyCanvas::Frame MakeFrame(const Pixels& pixels, const RGBColorSpace& space) {
        typename AnyCanvas::Frame frame;
        frame.desc = DX::D3FrameDesc::MakeRGB(
            {static_cast<long>(pixels.width), static_cast<long>(pixels.height)});
        frame.desc.colorSpace = space;
        frame.textures[0] =
            m_canvas.TextureOf(m_canvas.MakeSource(pixels, DXGI_FORMAT_R32G32B32A32_FLOAT));
        return frame;
    }
    // Of single precision, as the target has it.
    Pixels Draw(const Pixels& pixels, const ColorAlphaConversionInfo& conversion,
                const D3ToneMapping& tones) {
        const auto frame = MakeFrame(pixels, conversion.source);
        const auto target =
            m_canvas.MakeTarget(pixels.width, pixels.height, DXGI_FORMAT_R32G32B32A32_FLOAT);
        m_draw->SetToneMapping(tones);
        m_canvas.Record(
            [&](const auto& on) { m_draw->Encode(on, frame, target, {.conversion = conversion}); });
        return m_canvas.Read(target);
    }

    AnyCanvas m_canvas;
    boost::intrusive_ptr<typename AnyCanvas::FrameDraw> m_draw{
        new typename AnyCanvas::FrameDraw(m_canvas.GetDevice())};
};

TYPED_TEST_SUITE(D3ToneMappingTest, BothCanvases, CanvasName);

ColorAlphaConversionInfo MakeInfo(const RGBColorSpace& source, const RGBColorSpace& target,
                                  float sourcePeak, float targetPeak) {
    ColorAlphaConversionInfo info;
    info.source = source;
    info.target = target;
    info.sourcePeakLuminance = sourcePeak;
    info.targetPeakLuminance = targetPeak;
    return info;
}

// Colours of noise, half of them grey.
Pixels MakeNoise() {
    std::mt19937 random(2390);
    std::uniform_real_distribution<float> any;
    return MakePixels(64, 16, [&](unsigned x, unsigned) {
        const double first = any(random);
        return x % 2 == 0 ? Color{first, first, first, 1}
                          : Color{first, any(random), any(random), 1};
    });
}

TYPED_TEST(D3ToneMappingTest, EveryChoiceIsWhatTheReferenceSays) {
    struct Row {
        RGBColorSpace source;
        RGBColorSpace target;
        float sourcePeak;
        float targetPeak;
        D3ToneMapping tones;
    };
    using enum ToneCurve;
    using enum ToneChannels;
    using enum GamutReduction;
    const Row rows[] = {
        {kPQ, kSRGB, 1000, 0, {BT2390, MaxRGB, Soft}},
        {kPQ, kRec709, 10000, 0, {BT2390, PerChannel, Clip, 0, 0.1F}},
        {kPQ, kRec709Linear, 4000, 0, {BT2390, MaxRGB, Soft, 0.005F, 0.05F}},
        {kPQ, kPQ, 4000, 600, {BT2390, MaxRGB, Clip}},
        {kPQ, kPQ, 10000, 100, {BT2390, PerChannel, Soft, 0, 2}}, // the lift is a third
        {kPQ, kPQ, 500, 600, {BT2390, PerChannel, Clip, 0.05F, 0}},
        {kPQ, kHLG, 4000, 1000, {BT2390, PerChannel, Clip}},
        {kPQ, kSRGB, 1000, 0, {Rational, MaxRGB, Soft}},
        {kHLG, kRec709, 1000, 1000, {Rational, MaxRGB, Soft}},
        {kRec2020, kSRGB, 1000, 0, {BT2390, MaxRGB, Soft, 0, 0.1F}}};
    const Pixels noise = MakeNoise();
    unsigned number = 0;
    for (const auto& [source, target, sourcePeak, targetPeak, tones] : rows) {
        auto info = MakeInfo(source, target, sourcePeak, targetPeak);
        info.mode = ++number % 4 == 0 ? Proc::LinearizationMode::DisplayReferredHDR
                                      : Proc::LinearizationMode::DisplayReferred;
        const Pixels drawn = this->Draw(noise, info, tones);
        double largest = 0.0;
        for (std::size_t i = 0; i < drawn.colors.size(); ++i) {
            const Color wanted = Reference::ReferenceConvert(noise.colors[i], info, tones);
            for (std::size_t k = 0; k < wanted.size(); ++k) {
                const double size = std::max(1.0, std::fabs(wanted.at(k)));
                largest = std::max(largest, std::fabs(drawn.colors[i].at(k) - wanted.at(k)) / size);
            }
        }
        EXPECT_LE(largest * 65535.0, 2.0) << "row " << number;
        std::printf("  %s row %u: %.3f of 65535\n", TypeParam::kName, number, largest * 65535.0);
    }
}

// What the report says in words: what is below the knee stays, the source's peak becomes the
// target's, black becomes black, and brighter stays brighter.
TYPED_TEST(D3ToneMappingTest, BlackPeakAndWhatIsDarkGoWhereTheReportSays) {
    constexpr unsigned kSteps = 256;
    for (const auto channels : {ToneChannels::MaxRGB, ToneChannels::PerChannel}) {
        for (const float black : {0.0F, 0.1F}) {
            const Pixels ramp = MakePixels(kSteps, 1, [&](unsigned x, unsigned) {
                const double value = PQOf(1000.0) * x / (kSteps - 1);
                return Color{value, value, value, 1};
            });
            const Pixels drawn = this->Draw(
                ramp, MakeInfo(kPQ, kPQ, 1000.0F, 400.0F),
                {.curve = ToneCurve::BT2390, .channels = channels, .targetBlack = black});
            EXPECT_NEAR(drawn.colors.front()[1], PQOf(black), 1e-4);
            EXPECT_NEAR(drawn.colors.back()[1], PQOf(400.0), 5e-5); // of the lift a little is left
            const double knee = 1.5 * PQOf(400.0) - 0.5 * PQOf(1000.0);
            for (unsigned x = 1; x < kSteps; ++x) {
                EXPECT_GT(drawn.colors[x][1], drawn.colors[x - 1][1]) << x;
                const double from = ramp.colors[x][1];
                if (black == 0.0F && from < knee) {
                    EXPECT_NEAR(drawn.colors[x][1], from, 1e-6);
                }
            }
        }
    }
}

TYPED_TEST(D3ToneMappingTest, ReducedColorsAreInsideAndKeepHueAndLuminance) {
    const Pixels noise = MakeNoise();
    const auto info = MakeInfo(kRec2020, kRec709Linear, 1000.0F, 1000.0F);
    const Pixels full = this->Draw(noise, info, {});
    const Pixels reduced = this->Draw(noise, info, {.gamut = GamutReduction::Soft});
    const Pixels white = this->Draw(noise, MakeInfo(kRec2020, kRec709, 1000.0F, 1000.0F),
                                    {.gamut = GamutReduction::Soft});
    unsigned changed = 0;
    for (std::size_t i = 0; i < full.colors.size(); ++i) {
        const auto& from = full.colors[i];
        const auto& to = reduced.colors[i];
        const auto luminance = [](const Color& color) {
            return 0.2126 * color[0] + 0.7152 * color[1] + 0.0722 * color[2];
        };
        const double y = luminance(from);
        EXPECT_NEAR(luminance(to), y, 1e-5);
        const double share =
            (to[0] - y) * (from[0] - y) + (to[1] - y) * (from[1] - y) + (to[2] - y) * (from[2] - y);
        const double whole = (from[0] - y) * (from[0] - y) + (from[1] - y) * (from[1] - y) +
                             (from[2] - y) * (from[2] - y);
        for (std::size_t k = 0; k < 3; ++k) {
            EXPECT_GE(to.at(k), -1e-5);
            if (whole > 1e-6) {
                EXPECT_NEAR(to.at(k) - y, (from.at(k) - y) * share / whole, 1e-4);
            }
            EXPECT_GE(white.colors[i].at(k), -1e-2);
            EXPECT_LE(white.colors[i].at(k), 1.0 + 1e-5);
        }
        changed += share < 0.999 * whole ? 1 : 0;
    }
    EXPECT_GT(changed, full.colors.size() / 8);
    EXPECT_LT(changed, full.colors.size() / 2); // greys, and what was well inside
}

TYPED_TEST(D3ToneMappingTest, ThePeakIsThatOfTheBrightestPixel) {
    const boost::intrusive_ptr peak(new typename TypeParam::FramePeak(this->m_canvas.GetDevice()));
    for (const auto& [width, height] :
         {std::pair(1U, 1U), {16U, 16U}, {17U, 33U}, {300U, 20U}, {300U, 20U}}) {
        for (const bool isLast : {false, true}) {
            std::mt19937 random(width);
            std::uniform_real_distribution<float> any(-0.5F, 0.7F);
            Pixels pixels = MakePixels(width, height, [&](unsigned, unsigned) {
                return Color{any(random), any(random), any(random), 1};
            });
            (isLast ? pixels.colors.back()[2] : pixels.colors.front()[0]) = PQOf(1234.0);
            EXPECT_NEAR(this->m_canvas.Measure(*peak, this->MakeFrame(pixels, kPQ)), 1234.0, 0.1)
                << width << " x " << height;
        }
    }
    EXPECT_EQ(
        SentenceOf([&] { this->m_canvas.Measure(*peak, this->MakeFrame(MakeNoise(), kSRGB)); }),
        "The frame is not in PQ");
}

TYPED_TEST(D3ToneMappingTest, RefusesLuminancesOutOfRange) {
    const auto info = MakeInfo(kPQ, kSRGB, 1000.0F, 1000.0F);
    for (const float wrong : {-0.1F, 203.5F, std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_EQ(SentenceOf([&] {
                      this->Draw(MakeNoise(), info,
                                 {.curve = ToneCurve::BT2390, .targetBlack = wrong});
                  }),
                  "The luminances of the tone mapping are out of range");
    }
    EXPECT_EQ(DX::GetSourcePeak(0.0F, 4000.0F), 4000.0F);
    EXPECT_EQ(DX::GetSourcePeak(812.0F, 4000.0F), 812.0F);
    EXPECT_EQ(DX::GetSourcePeak(65535.0F, -1.0F), 1000.0F);
}

} // namespace

} // namespace Norvex::Test
