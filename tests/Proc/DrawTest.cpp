// Drawing on a real device, pixels read back and compared with the double-precision reference.

#include <cmath>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/ColorReference.h"
#include "tests/support/Device11.h"
#include "tests/support/Painter.h"
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

// The same drawing on each generation.
class DrawTest : public testing::TestWithParam<std::unique_ptr<Painter> (*)()> {
protected:
    static void TearDownTestSuite() { s_painter.reset(); }

    void SetUp() override {
        if (s_painter == nullptr) {
            s_painter = GetParam()();
        }
    }

    static Pixels Draw(const Drawing& drawing) { return s_painter->Draw(drawing); }
    // One to one, with the conversion, from a texture of that format to another.
    static Pixels Convert(const Pixels& source, const std::optional<ColorAlphaConversionInfo>& info,
                          DXGI_FORMAT format) {
        return Draw(
            {.source = source, .sourceFormat = format, .targetFormat = format, .conversion = info});
    }

    static inline std::unique_ptr<Painter> s_painter;
};

INSTANTIATE_TEST_SUITE_P(D3D11, DrawTest, testing::Values(&MakePainter11));
INSTANTIATE_TEST_SUITE_P(D3D12, DrawTest, testing::Values(&MakePainter12));

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

TEST_P(DrawTest, EveryConversionAgreesWithTheReference) {
    const Pixels card = MakeTestCard();
    for (const auto format : {DXGI_FORMAT_R8G8B8A8_UNORM, DXGI_FORMAT_R16G16B16A16_UNORM}) {
        const Pixels quantized = Quantize(card, format);
        double largest = 0.0;
        for (const auto& from : kSources) {
            for (const auto& to : kTargets) {
                for (const auto mode : kModes) {
                    ColorAlphaConversionInfo info;
                    info.source = from;
                    info.target = to;
                    info.mode = mode;
                    const Worst worst =
                        CompareWithReference(Convert(card, info, format), quantized, info);
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

TEST_P(DrawTest, EveryAlphaPairAgreesWithTheReference) {
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
        for (const auto targetAlpha : kAlphas) {
            for (const auto& to : {kSRGB, kPQ}) {
                ColorAlphaConversionInfo info;
                info.target = to;
                info.sourceAlpha = sourceAlpha;
                info.targetAlpha = targetAlpha;
                const Worst worst = CompareWithReference(
                    Convert(pixels, info, DXGI_FORMAT_R16G16B16A16_UNORM), pixels, info);
                EXPECT_LE(worst.error, 8.0 / 65535.0) << Describe(info) << ", " << worst.where;
            }
        }
    }
}

TEST_P(DrawTest, ToneMappingAndScaleAgreeWithTheReference) {
    const Pixels card = Quantize(MakeTestCard(), DXGI_FORMAT_R16G16B16A16_UNORM);
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
        const Worst worst = CompareWithReference(Convert(card, info, kFormat), card, info);
        EXPECT_LE(worst.error, BoundOf(kFormat, info)) << Describe(info) << ", " << worst.where;
    }
}

// Negative and above-one values, as scRGB and filters leave them in FP16 textures.
TEST_P(DrawTest, NoConversionMakesNaNOrInfinity) {
    constexpr double kLevels[] = {-60000.0, -2.0, -0.5, -1e-7, 0.0,   1e-7,
                                  0.02,     0.5,  1.0,  1.5,   100.0, 60000.0};
    constexpr unsigned kCount = std::size(kLevels);
    constexpr double kAlphaLevels[] = {0.0, 1.0, 0.5, -0.5, 1e-7};
    const Pixels cube =
        MakePixels(kCount * kCount, kCount * std::size(kAlphaLevels), [&](unsigned x, unsigned y) {
            return Color{kLevels[x % kCount], kLevels[x / kCount], kLevels[y % kCount],
                         kAlphaLevels[y / kCount]};
        });
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
                    const Pixels drawn = Draw({.source = cube,
                                               .sourceFormat = DXGI_FORMAT_R16G16B16A16_FLOAT,
                                               .targetFormat = DXGI_FORMAT_R32G32B32A32_FLOAT,
                                               .conversion = info});
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

TEST_P(DrawTest, WithoutConversionTheSampleIsCopied) {
    const Pixels card = Quantize(MakeTestCard(), DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(Convert(card, std::nullopt, DXGI_FORMAT_R8G8B8A8_UNORM).colors, card.colors);
}

TEST_P(DrawTest, UnsupportedSpacesShowTheirErrorColor) {
    const Pixels card = MakeTestCard();
    ColorAlphaConversionInfo info;
    info.source = kRec709Linear;
    info.target = kRec709;
    info.mode = LinearizationMode::DisplayReferred;
    EXPECT_EQ(Convert(card, info, DXGI_FORMAT_R8G8B8A8_UNORM).At(30, 0), (Color{1, 0, 0, 1}));
    info.source = kSRGB;
    info.target = {ColorPrimaries::BT2020, TransferCharacteristics::Linear};
    EXPECT_EQ(Convert(card, info, DXGI_FORMAT_R8G8B8A8_UNORM).At(30, 0), (Color{0, 0, 1, 1}));
}

// The four quadrants of a picture in four colours, to see where they land.
Pixels MakeQuadrants(unsigned width, unsigned height) {
    return MakePixels(width, height, [=](unsigned x, unsigned y) -> Color {
        const bool right = x >= width / 2;
        const bool bottom = y >= height / 2;
        return {right ? 1.0 : 0.0, bottom ? 1.0 : 0.0, 0.5, 1.0};
    });
}

TEST_P(DrawTest, TransformsMoveThePictureAsDocumented) {
    // 100 pixels of 200 are one clip unit: half the width to the right.
    const Pixels drawn = Draw({.source = MakeQuadrants(8, 8),
                               .size = {200, 100},
                               .transform = DX::AffineTransform::Translation(100.0F, 0.0F)});
    EXPECT_EQ(drawn.At(99, 10), (Color{0, 0, 0, 0}));
    EXPECT_EQ(drawn.At(100, 10)[3], 1.0);
    EXPECT_EQ(drawn.At(180, 99)[0], 0.0)
        << "the left half of the picture reaches to the right edge";
}

TEST_P(DrawTest, RectLimitsTheViewportAndScalesTheTranslation) {
    const DX::Rect2DT<long> rect = {16, 8, 48, 40};
    const Pixels drawn = Draw({.source = MakeQuadrants(8, 8), .size = {64, 64}, .rect = rect});
    EXPECT_EQ(drawn.At(15, 20)[3], 0.0);
    EXPECT_EQ(drawn.At(16, 8)[3], 1.0);
    EXPECT_EQ(drawn.At(47, 39)[3], 1.0);
    EXPECT_EQ(drawn.At(48, 39)[3], 0.0);
    EXPECT_EQ(drawn.At(47, 40)[3], 0.0);
    const Pixels moved = Draw({.source = MakeQuadrants(8, 8),
                               .size = {64, 64},
                               .rect = rect,
                               .transform = DX::AffineTransform::Translation(8.0F, 0.0F)});
    EXPECT_EQ(moved.At(23, 20)[3], 0.0);
    EXPECT_EQ(moved.At(24, 20)[3], 1.0);
}

struct FitCase {
    const char* name;
    DX::RenderFitMode mode;
    float rotation;
    // Where there is picture and where there is none, in a 100 x 50 target under a 40 x 40 picture.
    std::vector<std::pair<unsigned, unsigned>> inside, outside;
};

TEST_P(DrawTest, FitModesPlaceThePicture) {
    constexpr float kQuarter = 1.57079633F;
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
        const Pixels drawn = Draw({.source = MakeQuadrants(40, 40),
                                   .size = {100, 50},
                                   .view = [&c](DX::D3ImageRenderer& view) {
                                       view.SetFitMode(c.mode);
                                       view.SetRotation(c.rotation);
                                   }});
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
TEST_P(DrawTest, ViewStateTurnsAndMovesAsSeenOnScreen) {
    constexpr float kQuarter = 1.57079633F;
    const auto draw = [&](const std::function<void(DX::D3ImageRenderer&)>& view) {
        return Draw({.source = MakeQuadrants(40, 40), .size = {80, 60}, .view = view});
    };
    const Color topLeft = draw([](DX::D3ImageRenderer& view) {
                              view.SetScale(1.0F);
                              view.SetRotation(kQuarter);
                          }).At(25, 15);
    EXPECT_EQ(topLeft[0], 1.0) << "right half of the picture";
    EXPECT_EQ(topLeft[1], 0.0) << "top half of the picture";

    const Pixels moved = draw([](DX::D3ImageRenderer& view) {
        view.SetScale(1.0F);
        view.SetTranslation(10.0F, 5.0F);
    });
    EXPECT_EQ(moved.At(29, 15)[3], 0.0);
    EXPECT_EQ(moved.At(30, 15)[3], 1.0);
    EXPECT_EQ(moved.At(30, 14)[3], 0.0);
}

// Draws on both generations; the largest difference, in 255ths.
class GenerationsTest : public testing::Test {
protected:
    void Compare(const Drawing& drawing, const std::string& what) {
        const Pixels drawn11 = m_painter11->Draw(drawing);
        const Pixels drawn12 = m_painter12->Draw(drawing);
        ++m_count;
        for (std::size_t i = 0; i < drawn11.colors.size(); ++i) {
            for (std::size_t channel = 0; channel < std::size(drawn11.colors[i]); ++channel) {
                const double difference =
                    255.0 * std::fabs(drawn11.colors[i][channel] - drawn12.colors[i][channel]);
                if (difference > m_largest.error) {
                    m_largest = {difference, fmt::format("{}, pixel {} channel {}: {} and {}", what,
                                                         i, channel, drawn11.colors[i][channel],
                                                         drawn12.colors[i][channel])};
                }
            }
        }
    }

    void TearDown() override {
        EXPECT_LE(m_largest.error, 1.0 + 1e-6) << m_largest.where;
        RecordProperty("pictures", m_count);
        RecordProperty("largest_difference_255ths", fmt::format("{:.3g}", m_largest.error));
        RecordProperty("largest_difference_where", m_largest.where);
    }

    std::unique_ptr<Painter> m_painter11 = MakePainter11();
    std::unique_ptr<Painter> m_painter12 = MakePainter12();
    Worst m_largest;
    int m_count = 0;
};

TEST_F(GenerationsTest, ConversionsLookAlike) {
    const Pixels card = MakeTestCard();
    ColorAlphaConversionInfo info;
    std::size_t turn = 0;
    for (const auto& from : kSources) {
        for (const auto& to : kTargets) {
            for (const auto sourceAlpha : kAlphas) {
                for (const auto targetAlpha : kAlphas) {
                    info.source = from;
                    info.target = to;
                    info.sourceAlpha = sourceAlpha;
                    info.targetAlpha = targetAlpha;
                    info.mode = kModes[turn++ % std::size(kModes)];
                    Compare({.source = card, .conversion = info}, Describe(info));
                }
            }
        }
    }
}

TEST_F(GenerationsTest, PlacementsLookAlike) {
    const std::optional<DX::Rect2DT<long>> rects[] = {
        std::nullopt, {{10, 5, 80, 45}}, {{-20, 10, 60, 90}}};
    for (const auto mode :
         {DX::RenderFitMode::Free, DX::RenderFitMode::Fit, DX::RenderFitMode::Fill}) {
        for (const float rotation : {0.0F, 0.3F, 1.57079633F, 2.5F}) {
            for (const auto& rect : rects) {
                Compare({.source = MakeTestCard(),
                         .size = {100, 50},
                         .rect = rect,
                         .view =
                             [=](DX::D3ImageRenderer& view) {
                                 view.SetFitMode(mode);
                                 view.SetRotation(rotation);
                                 view.SetTranslation(3.3F, -2.0F);
                             }},
                        fmt::format("mode {}, rotation {}, {} rect", static_cast<int>(mode),
                                    rotation, rect ? rect->left : 0));
            }
        }
    }
}

TEST(D3D12DrawTest, ViewsOfTheWrongKindAreRefusedBeforeRecording) {
    Canvas canvas;
    const boost::intrusive_ptr draw(new DX::D12ImageDraw(canvas.GetDevice()));
    const auto source = canvas.MakeSource(MakeQuadrants(8, 8), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = canvas.MakeTarget(8, 8, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
    EXPECT_EQ(
        SentenceOf([&] { draw->Encode(allocator, target, target, std::nullopt, std::nullopt); }),
        "The texture is expected to be the shader resource view");
    EXPECT_EQ(
        SentenceOf([&] { draw->Encode(allocator, source, source, std::nullopt, std::nullopt); }),
        "The texture is expected to be the render target view");
    const boost::intrusive_ptr<DX::D12FillDraw> fill(new DX::D12FillDraw(canvas.GetDevice()));
    EXPECT_EQ(SentenceOf([&] { fill->Encode(allocator, {}, source, {0, 0, 8, 8}); }),
              "The texture is expected to be the render target view");
    EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "There are no command lists to execute");
}

TEST(D3D12DrawTest, FillCoversTheRectInTheTargetsEncoding) {
    Canvas canvas;
    const auto target = canvas.MakeTarget(32, 32, DXGI_FORMAT_R8G8B8A8_UNORM, {0, 0, 1, 1});
    const boost::intrusive_ptr<DX::D12FillDraw> fill(new DX::D12FillDraw(canvas.GetDevice()));
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
    fill->Encode(allocator, {1.0F, 0.2F, 0.0F, 0.6F}, target, {8, 4, 40, 12});
    DX::D12BlendState over = fill->GetBlendState();
    over.targets[0].destBlend = D3D12_BLEND_ONE;
    fill->SetBlendState(over);
    fill->Encode(allocator, {0.0F, 0.2F, 0.0F, 0.0F}, target, {0, 0, 32, 32});
    allocator->Execute();
    const Pixels drawn = canvas.Read(target);
    EXPECT_THAT(drawn.At(8, 4),
                testing::Pointwise(testing::DoubleNear(1e-6), Color{1.0, 0.4, 0.0, 0.0}));
    EXPECT_THAT(drawn.At(31, 11),
                testing::Pointwise(testing::DoubleNear(1e-6), Color{1.0, 0.4, 0.0, 0.0}));
    EXPECT_THAT(drawn.At(7, 4),
                testing::Pointwise(testing::DoubleNear(1e-6), Color{0.0, 0.2, 1.0, 0.0}));
}

class D3D11DrawTest : public testing::Test {
protected:
    void Encode(const boost::intrusive_ptr<DX::D11ShaderTexture2D>& source,
                const boost::intrusive_ptr<DX::D11RenderTexture2D>& target) {
        m_canvas.GetDevice()->Encode([&](const auto& context) {
            m_renderer->Encode(context, source, target, std::nullopt, std::nullopt);
        });
    }

    Canvas11 m_canvas;
    boost::intrusive_ptr<DX::D11ImageRenderer> m_renderer{
        new DX::D11ImageRenderer(m_canvas.GetDevice())};
};

// The interface that a context's getter puts out, borrowed.
template <class T, class Getter>
T* Bound(const Getter& getter) {
    CComPtr<T> bound;
    getter(&bound);
    return bound;
}

TEST_F(D3D11DrawTest, BlendsAndLeavesTheTargetFree) {
    const auto source = m_canvas.MakeSource(MakeQuadrants(8, 8), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = m_canvas.MakeTarget(8, 8, DXGI_FORMAT_R8G8B8A8_UNORM, {0.2F, 0, 0, 0});
    m_renderer->SetBlendState(m_canvas.GetDevice()->CreateBlendState(
        {TRUE, D3D11_BLEND_ONE, D3D11_BLEND_ONE, D3D11_BLEND_OP_ADD, D3D11_BLEND_ONE,
         D3D11_BLEND_ONE, D3D11_BLEND_OP_ADD, D3D11_COLOR_WRITE_ENABLE_RED}));
    Encode(source, target);
    const auto context = GetImmediateContext(m_canvas.GetDevice()->Get());
    EXPECT_EQ(Bound<ID3D11RenderTargetView>(
                  [&](auto** out) { context->OMGetRenderTargets(1, out, nullptr); }),
              nullptr);
    EXPECT_EQ(Bound<ID3D11BlendState>(
                  [&](auto** out) { context->OMGetBlendState(out, nullptr, nullptr); }),
              nullptr);
    EXPECT_EQ(Bound<ID3D11DepthStencilState>(
                  [&](auto** out) { context->OMGetDepthStencilState(out, nullptr); }),
              nullptr);
    EXPECT_EQ(Bound<ID3D11RasterizerState>([&](auto** out) { context->RSGetState(out); }), nullptr);
    EXPECT_EQ(Bound<ID3D11ShaderResourceView>(
                  [&](auto** out) { context->PSGetShaderResources(0, 1, out); }),
              source->GetView().p);
    EXPECT_NE(Bound<ID3D11Buffer>([&](auto** out) { context->PSGetConstantBuffers(0, 1, out); }),
              nullptr);

    const Pixels drawn = m_canvas.Read(target->GetTexture());
    EXPECT_THAT(drawn.At(0, 7), testing::Pointwise(testing::DoubleNear(1e-6), Color{0.2, 0, 0, 0}))
        << "red is added, the rest is masked";
    EXPECT_EQ(drawn.At(7, 0)[0], 1.0);
}

TEST_F(D3D11DrawTest, TheTransformFollowsTheSizesAndTheView) {
    const auto square = m_canvas.MakeSource(MakeQuadrants(40, 40), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto narrow = m_canvas.MakeSource(MakeQuadrants(20, 40), DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = m_canvas.MakeTarget(100, 50, DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_THROW(m_renderer->GetTransform(), std::bad_optional_access);
    Encode(square, target);
    EXPECT_FLOAT_EQ(m_renderer->GetTransform().rows[0][0], 0.5F);
    Encode(narrow, target);
    EXPECT_FLOAT_EQ(m_renderer->GetTransform().rows[0][0], 0.25F);
    const auto wide = m_canvas.MakeTarget(200, 50, DXGI_FORMAT_R8G8B8A8_UNORM);
    Encode(narrow, wide);
    EXPECT_FLOAT_EQ(m_renderer->GetTransform().rows[0][0], 0.125F);

    const auto mine = DX::AffineTransform::Scale(0.75F, 1.0F);
    m_renderer->SetTransform(mine);
    Encode(narrow, wide);
    EXPECT_EQ(m_renderer->GetTransform(), mine) << "nothing changed: it is kept";
    m_renderer->SetFitMode(DX::RenderFitMode::Fill);
    EXPECT_THROW(m_renderer->GetTransform(), std::bad_optional_access);
    Encode(narrow, wide);
    EXPECT_FLOAT_EQ(m_renderer->GetTransform().rows[0][0], 1.0F);
}

} // namespace

} // namespace Norvex::Test
