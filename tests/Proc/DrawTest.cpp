// Drawing on a real device, pixels read back and compared with the double-precision reference.

#include <cmath>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/Canvas.h"
#include "tests/support/ColorReference.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using Proc::AlphaType;
using Proc::ColorAlphaConversionInfo;
using Proc::LinearizationMode;

constexpr RGBColorSpace kSRGB = {ColorPrimaries::BT709, TransferCharacteristics::sRGB};
constexpr RGBColorSpace kRec709 = {ColorPrimaries::BT709, TransferCharacteristics::BT709};
constexpr RGBColorSpace kRec709Linear = {ColorPrimaries::BT709, TransferCharacteristics::Linear};
constexpr RGBColorSpace kRec2020 = {ColorPrimaries::BT2020, TransferCharacteristics::BT709};
constexpr RGBColorSpace kPQ = {ColorPrimaries::BT2020, TransferCharacteristics::PQ};
constexpr RGBColorSpace kHLG = {ColorPrimaries::BT2020, TransferCharacteristics::HLG};

constexpr RGBColorSpace kSources[] = {kSRGB, kRec709, kRec2020, kPQ, kHLG};
constexpr RGBColorSpace kTargets[] = {kSRGB, kRec709, kRec2020, kPQ, kHLG, kRec709Linear};
constexpr LinearizationMode kModes[] = {LinearizationMode::SceneReferred,
                                        LinearizationMode::DisplayReferredHDR,
                                        LinearizationMode::DisplayReferred};
constexpr AlphaType kAlphas[] = {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne,
                                 AlphaType::Premultiplied};

std::string Describe(const ColorAlphaConversionInfo& info) {
    return fmt::format(
        "from {}/{} alpha {} to {}/{} alpha {}, mode {}", static_cast<int>(info.source.primaries),
        static_cast<int>(info.source.transfer), static_cast<int>(info.sourceAlpha),
        static_cast<int>(info.target.primaries), static_cast<int>(info.target.transfer),
        static_cast<int>(info.targetAlpha), static_cast<int>(info.mode));
}

// A grey ramp, ramps of the primaries, and random colours with random alpha.
Pixels MakeTestCard() {
    constexpr unsigned kWidth = 64;
    std::mt19937 random(20201);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    return MakePixels(kWidth, 32, [&](unsigned x, unsigned y) -> Color {
        const double ramp = x / (kWidth - 1.0);
        switch (y) {
        case 0:
            return {ramp, ramp, ramp, 1.0};
        case 1:
            return {ramp, 0.0, 0.0, 1.0};
        case 2:
            return {0.0, ramp, 0.0, 1.0};
        case 3:
            return {0.0, 0.0, ramp, 1.0};
        case 4:
            return {1.0, ramp, 0.5, ramp};
        default:
            return {uniform(random), uniform(random), uniform(random), uniform(random)};
        }
    });
}

// The largest difference of a channel, and where.
struct Worst {
    double error = 0.0;
    std::string where;
};

Worst CompareWithReference(const Pixels& drawn, const Pixels& source,
                           const ColorAlphaConversionInfo& info) {
    Worst worst;
    for (std::size_t i = 0; i < source.colors.size(); ++i) {
        const Color expected = ReferenceConvert(source.colors[i], info);
        for (std::size_t channel = 0; channel < expected.size(); ++channel) {
            const double reference = std::clamp(expected[channel], 0.0, 1.0);
            const double error = std::fabs(drawn.colors[i][channel] - reference);
            if (!(error <= worst.error)) {
                worst = {error, fmt::format("pixel {} channel {}: {} instead of {}", i, channel,
                                            drawn.colors[i][channel], reference)};
            }
        }
    }
    return worst;
}

class DrawTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_canvas = std::make_unique<Canvas>();
        s_draw.reset(new DX::D12ImageDraw(s_canvas->GetDevice()));
    }
    static void TearDownTestSuite() {
        s_draw.reset();
        s_canvas.reset();
    }

    // One to one, with the conversion.
    static Pixels Draw(const boost::intrusive_ptr<DX::D12Descriptor>& source,
                       const std::optional<ColorAlphaConversionInfo>& info, DXGI_FORMAT format) {
        const DX::Size2DT<long> size = source->GetSize();
        const auto target = s_canvas->MakeTarget(static_cast<unsigned>(size.width),
                                                 static_cast<unsigned>(size.height), format);
        const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
        s_draw->Encode(allocator, source, target, info, std::nullopt);
        allocator->Execute();
        return s_canvas->Read(target);
    }

    static inline std::unique_ptr<Canvas> s_canvas;
    static inline boost::intrusive_ptr<DX::D12ImageDraw> s_draw;
};

// One quantum at 8 bits, eight at 16. Light decoded from PQ reaches 100, so where a channel of
// BT.709 is the small difference of great channels of BT.2020, single precision leaves an error
// that 16 bits show: measured 15 quanta, and 75 where the target is linear and nothing compresses
// it.
double BoundOf(DXGI_FORMAT format, const ColorAlphaConversionInfo& info) {
    if (format == DXGI_FORMAT_R8G8B8A8_UNORM) {
        return 1.0 / 255.0;
    }
    const bool cancels = info.source == kPQ && info.target.primaries == ColorPrimaries::BT709;
    const double quanta = !cancels ? 8.0 : info.target == kRec709Linear ? 100.0 : 20.0;
    return quanta / 65535.0;
}

TEST_F(DrawTest, EveryConversionAgreesWithTheReference) {
    const Pixels card = MakeTestCard();
    for (const auto format : {DXGI_FORMAT_R8G8B8A8_UNORM, DXGI_FORMAT_R16G16B16A16_UNORM}) {
        const Pixels quantized = Quantize(card, format);
        const auto source = s_canvas->MakeSource(card, format);
        double largest = 0.0;
        for (const auto& from : kSources) {
            for (const auto& to : kTargets) {
                for (const auto mode : kModes) {
                    ColorAlphaConversionInfo info;
                    info.source = from;
                    info.target = to;
                    info.mode = mode;
                    const Worst worst =
                        CompareWithReference(Draw(source, info, format), quantized, info);
                    EXPECT_LE(worst.error, BoundOf(format, info))
                        << Describe(info) << ", " << worst.where;
                    largest = std::max(largest, worst.error / BoundOf(format, info));
                }
            }
        }
        RecordProperty(format == DXGI_FORMAT_R8G8B8A8_UNORM ? "largest_8bit" : "largest_16bit",
                       fmt::format("{:.3g} of the bound", largest));
    }
}

TEST_F(DrawTest, EveryAlphaPairAgreesWithTheReference) {
    const Pixels card = Quantize(MakeTestCard(), DXGI_FORMAT_R16G16B16A16_UNORM);
    // A premultiplied picture holds no colour above its alpha.
    const Pixels premultiplied =
        Quantize(MakePixels(card.width, card.height,
                            [&card](unsigned x, unsigned y) -> Color {
                                const Color& c = card.At(x, y);
                                return {c[0] * c[3], c[1] * c[3], c[2] * c[3], c[3]};
                            }),
                 DXGI_FORMAT_R16G16B16A16_UNORM);
    for (const auto sourceAlpha : kAlphas) {
        const Pixels& pixels = sourceAlpha == AlphaType::Premultiplied ? premultiplied : card;
        const auto source = s_canvas->MakeSource(pixels, DXGI_FORMAT_R16G16B16A16_UNORM);
        for (const auto targetAlpha : kAlphas) {
            for (const auto& to : {kSRGB, kPQ}) {
                ColorAlphaConversionInfo info;
                info.target = to;
                info.sourceAlpha = sourceAlpha;
                info.targetAlpha = targetAlpha;
                const Worst worst = CompareWithReference(
                    Draw(source, info, DXGI_FORMAT_R16G16B16A16_UNORM), pixels, info);
                EXPECT_LE(worst.error, 8.0 / 65535.0) << Describe(info) << ", " << worst.where;
            }
        }
    }
}

TEST_F(DrawTest, ToneMappingAndScaleAgreeWithTheReference) {
    const Pixels card = Quantize(MakeTestCard(), DXGI_FORMAT_R16G16B16A16_UNORM);
    const auto source = s_canvas->MakeSource(card, DXGI_FORMAT_R16G16B16A16_UNORM);
    struct Case {
        RGBColorSpace from, to;
        float sourcePeak, targetPeak, scale;
    };
    for (const Case& c : {Case{kPQ, kSRGB, 4000, 203, 1}, Case{kPQ, kPQ, 10000, 600, 1},
                          Case{kHLG, kPQ, 1000, 600, 1}, Case{kSRGB, kHLG, 1000, 2000, 1},
                          Case{kSRGB, kRec709Linear, 1000, 1000, 0.25F}}) {
        ColorAlphaConversionInfo info;
        info.source = c.from;
        info.target = c.to;
        info.sourcePeakLuminance = c.sourcePeak;
        info.targetPeakLuminance = c.targetPeak;
        info.linearScale = c.scale;
        constexpr auto kFormat = DXGI_FORMAT_R16G16B16A16_UNORM;
        const Worst worst = CompareWithReference(Draw(source, info, kFormat), card, info);
        EXPECT_LE(worst.error, BoundOf(kFormat, info)) << Describe(info) << ", " << worst.where;
    }
}

// Negative and above-one values, as scRGB and filters leave them in FP16 textures.
TEST_F(DrawTest, NoConversionMakesNaNOrInfinity) {
    constexpr double kLevels[] = {-60000.0, -2.0, -0.5, -1e-7, 0.0,   1e-7,
                                  0.02,     0.5,  1.0,  1.5,   100.0, 60000.0};
    constexpr unsigned kCount = std::size(kLevels);
    constexpr double kAlphaLevels[] = {0.0, 1.0, 0.5, -0.5, 1e-7};
    const Pixels cube =
        MakePixels(kCount * kCount, kCount * std::size(kAlphaLevels), [&](unsigned x, unsigned y) {
            return Color{kLevels[x % kCount], kLevels[x / kCount], kLevels[y % kCount],
                         kAlphaLevels[y / kCount]};
        });
    const auto source = s_canvas->MakeSource(cube, DXGI_FORMAT_R16G16B16A16_FLOAT);
    for (const auto& from : kSources) {
        for (const auto& to : kTargets) {
            for (const auto mode :
                 {LinearizationMode::SceneReferred, LinearizationMode::DisplayReferred}) {
                for (const auto alpha : kAlphas) {
                    ColorAlphaConversionInfo info;
                    info.source = from;
                    info.target = to;
                    info.mode = mode;
                    info.sourceAlpha = alpha;
                    info.sourcePeakLuminance = 10000.0F;
                    const Pixels drawn = Draw(source, info, DXGI_FORMAT_R32G32B32A32_FLOAT);
                    const auto bad = std::ranges::find_if(drawn.colors, [](const Color& color) {
                        return !std::ranges::all_of(
                            color, [](double channel) { return std::isfinite(channel); });
                    });
                    if (bad != drawn.colors.end()) {
                        const auto& from16 =
                            cube.colors[static_cast<std::size_t>(bad - drawn.colors.begin())];
                        FAIL() << Describe(info) << ": " << testing::PrintToString(from16)
                               << " becomes " << testing::PrintToString(*bad);
                    }
                }
            }
        }
    }
}

TEST_F(DrawTest, WithoutConversionTheSampleIsCopied) {
    const Pixels card = Quantize(MakeTestCard(), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto source = s_canvas->MakeSource(card, DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(Draw(source, std::nullopt, DXGI_FORMAT_R8G8B8A8_UNORM).colors, card.colors);
}

TEST_F(DrawTest, UnsupportedSpacesShowTheirErrorColor) {
    const auto source = s_canvas->MakeSource(MakeTestCard(), DXGI_FORMAT_R8G8B8A8_UNORM);
    ColorAlphaConversionInfo info;
    info.source = kRec709Linear;
    info.target = kRec709;
    info.mode = LinearizationMode::DisplayReferred;
    EXPECT_EQ(Draw(source, info, DXGI_FORMAT_R8G8B8A8_UNORM).At(30, 0), (Color{1, 0, 0, 1}));
    info.source = kSRGB;
    info.target = {ColorPrimaries::BT2020, TransferCharacteristics::Linear};
    EXPECT_EQ(Draw(source, info, DXGI_FORMAT_R8G8B8A8_UNORM).At(30, 0), (Color{0, 0, 1, 1}));
}

// The four quadrants of a picture in four colours, to see where they land.
Pixels MakeQuadrants(unsigned width, unsigned height) {
    return MakePixels(width, height, [=](unsigned x, unsigned y) -> Color {
        const bool right = x >= width / 2;
        const bool bottom = y >= height / 2;
        return {right ? 1.0 : 0.0, bottom ? 1.0 : 0.0, 0.5, 1.0};
    });
}

TEST_F(DrawTest, TransformsMoveThePictureAsDocumented) {
    const auto source = s_canvas->MakeSource(MakeQuadrants(8, 8), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = s_canvas->MakeTarget(200, 100, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
    // 100 pixels of 200 are one clip unit: half the width to the right.
    s_draw->Encode(allocator, source, target, DX::AffineTransform::Translation(100.0F, 0.0F),
                   std::nullopt, {});
    allocator->Execute();
    const Pixels drawn = s_canvas->Read(target);
    EXPECT_EQ(drawn.At(99, 10), (Color{0, 0, 0, 0}));
    EXPECT_EQ(drawn.At(100, 10)[3], 1.0);
    EXPECT_EQ(drawn.At(180, 99)[0], 0.0)
        << "the left half of the picture reaches to the right edge";
}

TEST_F(DrawTest, RectLimitsTheViewportAndNotTheScissor) {
    const auto source = s_canvas->MakeSource(MakeQuadrants(8, 8), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = s_canvas->MakeTarget(64, 64, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
    s_draw->Encode(allocator, source, target, std::nullopt, DX::Rect2DT<long>{16, 8, 48, 40});
    allocator->Execute();
    const Pixels drawn = s_canvas->Read(target);
    EXPECT_EQ(drawn.At(15, 20)[3], 0.0);
    EXPECT_EQ(drawn.At(16, 8)[3], 1.0);
    EXPECT_EQ(drawn.At(47, 39)[3], 1.0);
    EXPECT_EQ(drawn.At(48, 39)[3], 0.0);
    EXPECT_EQ(drawn.At(47, 40)[3], 0.0);
}

TEST_F(DrawTest, ViewsOfTheWrongKindAreRefusedBeforeRecording) {
    const auto source = s_canvas->MakeSource(MakeQuadrants(8, 8), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = s_canvas->MakeTarget(8, 8, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
    EXPECT_EQ(
        SentenceOf([&] { s_draw->Encode(allocator, target, target, std::nullopt, std::nullopt); }),
        "The texture is expected to be the shader resource view");
    EXPECT_EQ(
        SentenceOf([&] { s_draw->Encode(allocator, source, source, std::nullopt, std::nullopt); }),
        "The texture is expected to be the render target view");
    boost::intrusive_ptr<DX::D12FillDraw> fill(new DX::D12FillDraw(s_canvas->GetDevice()));
    EXPECT_EQ(SentenceOf([&] { fill->Encode(allocator, {}, source, {0, 0, 8, 8}); }),
              "The texture is expected to be the render target view");
    EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "There are no command lists to execute");
}

TEST_F(DrawTest, FillCoversTheRectInTheTargetsEncoding) {
    const auto target = s_canvas->MakeTarget(32, 32, DXGI_FORMAT_R8G8B8A8_UNORM, {0, 0, 1, 1});
    boost::intrusive_ptr<DX::D12FillDraw> fill(new DX::D12FillDraw(s_canvas->GetDevice()));
    const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
    fill->Encode(allocator, {1.0F, 0.2F, 0.0F, 0.6F}, target, {8, 4, 40, 12});
    DX::D12BlendState over = fill->GetBlendState();
    over.targets[0].destBlend = D3D12_BLEND_ONE;
    fill->SetBlendState(over);
    fill->Encode(allocator, {0.0F, 0.2F, 0.0F, 0.0F}, target, {0, 0, 32, 32});
    allocator->Execute();
    const Pixels drawn = s_canvas->Read(target);
    EXPECT_THAT(drawn.At(8, 4),
                testing::Pointwise(testing::DoubleNear(1e-6), Color{1.0, 0.4, 0.0, 0.0}));
    EXPECT_THAT(drawn.At(31, 11),
                testing::Pointwise(testing::DoubleNear(1e-6), Color{1.0, 0.4, 0.0, 0.0}));
    EXPECT_THAT(drawn.At(7, 4),
                testing::Pointwise(testing::DoubleNear(1e-6), Color{0.0, 0.2, 1.0, 0.0}));
}

struct FitCase {
    const char* name;
    DX::RenderFitMode mode;
    float rotation;
    // Where there is picture and where there is none, in a 100 x 50 target under a 40 x 40 picture.
    std::vector<std::pair<unsigned, unsigned>> inside, outside;
};

TEST_F(DrawTest, FitModesPlaceThePicture) {
    constexpr float kQuarter = 1.57079633F;
    const auto source = s_canvas->MakeSource(MakeQuadrants(40, 40), DXGI_FORMAT_R8G8B8A8_UNORM);
    const FitCase cases[] = {
        {"free",
         DX::RenderFitMode::Free,
         0,
         {{30, 5}, {69, 44}},
         {{29, 5}, {70, 44}, {50, 4}, {50, 45}}},
        {"fit", DX::RenderFitMode::Fit, 0, {{25, 0}, {74, 49}}, {{24, 0}, {75, 49}}},
        {"fill", DX::RenderFitMode::Fill, 0, {{0, 0}, {99, 0}, {0, 49}, {99, 49}}, {}},
        {"fit, turned by an eighth",
         DX::RenderFitMode::Fit,
         kQuarter / 2,
         {{50, 1}, {26, 25}, {73, 25}},
         {{27, 2}, {23, 25}}},
        {"fill, turned by an eighth",
         DX::RenderFitMode::Fill,
         kQuarter / 2,
         {{0, 0}, {99, 0}, {0, 49}, {99, 49}},
         {}},
    };
    for (const FitCase& c : cases) {
        SCOPED_TRACE(c.name);
        boost::intrusive_ptr<DX::D12ImageRenderer> renderer(
            new DX::D12ImageRenderer(s_canvas->GetDevice()));
        renderer->SetFitMode(c.mode);
        renderer->SetRotation(c.rotation);
        const auto target = s_canvas->MakeTarget(100, 50, DXGI_FORMAT_R8G8B8A8_UNORM);
        const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
        renderer->Encode(allocator, source, target, std::nullopt, std::nullopt);
        allocator->Execute();
        const Pixels drawn = s_canvas->Read(target);
        for (const auto& [x, y] : c.inside) {
            EXPECT_EQ(drawn.At(x, y)[3], 1.0) << x << ", " << y;
        }
        for (const auto& [x, y] : c.outside) {
            EXPECT_EQ(drawn.At(x, y)[3], 0.0) << x << ", " << y;
        }
    }
}

// A quarter turn counter-clockwise brings the top right corner to the top left; the view state
// moves right and down.
TEST_F(DrawTest, ViewStateTurnsAndMovesAsSeenOnScreen) {
    constexpr float kQuarter = 1.57079633F;
    const auto source = s_canvas->MakeSource(MakeQuadrants(40, 40), DXGI_FORMAT_R8G8B8A8_UNORM);
    boost::intrusive_ptr<DX::D12ImageRenderer> renderer(
        new DX::D12ImageRenderer(s_canvas->GetDevice()));
    const auto draw = [&] {
        const auto target = s_canvas->MakeTarget(80, 60, DXGI_FORMAT_R8G8B8A8_UNORM);
        const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
        renderer->Encode(allocator, source, target, std::nullopt, std::nullopt);
        allocator->Execute();
        return s_canvas->Read(target);
    };
    renderer->SetScale(1.0F);
    renderer->SetRotation(kQuarter);
    const Color topLeft = draw().At(25, 15);
    EXPECT_EQ(topLeft[0], 1.0) << "right half of the picture";
    EXPECT_EQ(topLeft[1], 0.0) << "top half of the picture";

    renderer->SetRotation(0.0F);
    renderer->SetTranslation(10.0F, 5.0F);
    const Pixels moved = draw();
    EXPECT_EQ(moved.At(29, 15)[3], 0.0);
    EXPECT_EQ(moved.At(30, 15)[3], 1.0);
    EXPECT_EQ(moved.At(30, 14)[3], 0.0);
}

} // namespace

} // namespace Norvex::Test
