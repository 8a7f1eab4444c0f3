// Drawing on a real device, pixels read back and compared with the double-precision reference; and
// the part of it that needs no device: the affine transform, the operations of the view state.

#include <cmath>
#include <random>
#include <span>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "apps/norvexdx/reference/ColorReference.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using namespace Reference;
using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using DX::AffineTransform;
using DX::RenderFitMode;
using enum DX::RenderFitMode;
using Proc::AlphaType;
using Proc::ColorAlphaConversionInfo;
using Proc::LinearizationMode;
using Rect = DX::Rect2DT<long>;

constexpr auto kRGBA8 = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr AlphaType kAlphas[] = {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne,
                                 AlphaType::Premultiplied};

constexpr unsigned kWidth = 256;
constexpr unsigned kRows = 8; // of ordinary colours

// A grey ramp, ramps of the primaries, and random colours with random alpha; below them negative
// and above-one values, as scRGB and filters leave them in floating point.
Pixels MakeTestCard() {
    constexpr double kLevels[] = {-60000.0, -2.0, -0.5, -1e-7, 0.0,   1e-7,
                                  0.02,     0.5,  1.0,  1.5,   100.0, 60000.0};
    constexpr double kAlphaLevels[] = {0.0, 1.0, 0.5, -0.5, 1e-7};
    std::mt19937 random(20201);
    std::uniform_real_distribution<float> uniform(0.0F, 1.0F);
    return MakePixels(kWidth, 64, [&](unsigned x, unsigned y) -> Color {
        if (y < 4) {
            const double ramp = x / (kWidth - 1.0);
            return {y == 0 || y == 1 ? ramp : 0, y == 0 || y == 2 ? ramp : 0,
                    y == 0 || y == 3 ? ramp : 0, 1};
        }
        if (y < kRows) {
            return {uniform(random), uniform(random), uniform(random), uniform(random)};
        }
        const unsigned i = (y - kRows) * kWidth + x;
        return {kLevels[i % 12], kLevels[i / 12 % 12], kLevels[i / 144 % 12],
                kAlphaLevels[i / 1728 % 5]};
    });
}

// Where a channel first is no number, or within 0 and 1 further than the bound from what is
// expected; empty when nowhere.
std::string FindDifference(const Pixels& drawn, double bound,
                           const std::function<Color(std::size_t)>& expectedAt) {
    for (std::size_t i = 0; i < drawn.colors.size(); ++i) {
        const Color expected = expectedAt(i);
        for (std::size_t channel = 0; channel < expected.size(); ++channel) {
            const double value = drawn.colors[i][channel];
            const double difference =
                std::clamp(value, 0.0, 1.0) - std::clamp(expected[channel], 0.0, 1.0);
            if (!std::isfinite(value) || !(std::fabs(difference) <= bound)) {
                return fmt::format("pixel {} channel {}: {} instead of {}", i, channel, value,
                                   expected[channel]);
            }
        }
    }
    return {};
}

// The same drawing on each generation.
template <class AnyCanvas>
class DrawTest : public testing::Test {
protected:
    // Onto a new target of the same size and format.
    Pixels Draw(const Pixels& pixels, DXGI_FORMAT format, const AffineTransform& transform,
                const std::optional<ColorAlphaConversionInfo>& conversion) {
        const auto source = m_canvas.MakeSource(pixels, format);
        const auto target = m_canvas.MakeTarget(pixels.width, pixels.height, format);
        m_canvas.Record([&](const auto& on) {
            m_draw->Encode(on, source, target, transform, conversion, std::nullopt);
        });
        return m_canvas.Read(target);
    }

    AnyCanvas m_canvas;
    boost::intrusive_ptr<typename AnyCanvas::ImageDraw> m_draw{
        new typename AnyCanvas::ImageDraw(m_canvas.GetDevice())};
    boost::intrusive_ptr<typename AnyCanvas::ImageRenderer> m_renderer{
        new typename AnyCanvas::ImageRenderer(m_canvas.GetDevice())};
};

TYPED_TEST_SUITE(DrawTest, BothCanvases, CanvasName);

// The reference itself: the red of BT.709 in ITU-R BT.2087-0, SDR white in BT.2408-7, table 1.
TEST(ColorReferenceTest, MeetsPublishedValues) {
    ColorAlphaConversionInfo info;
    const auto expect = [&](const RGBColorSpace& target, const Color& color,
                            const Color& expected) {
        info.target = target;
        EXPECT_THAT(ReferenceConvert(color, info),
                    testing::Pointwise(testing::DoubleNear(1e-3), expected));
    };
    expect(kRec2020, {1, 0, 0, 0.5}, {0.823451, 0.328432, 0.180295, 0.5});
    expect(kPQ, {1, 1, 1, 1}, {0.58, 0.58, 0.58, 1});
    expect(kHLG, {1, 1, 1, 1}, {0.75, 0.75, 0.75, 1});
}

TYPED_TEST(DrawTest, EveryConversionAgreesWithTheReferenceAndMakesNumbers) {
    constexpr float kPeaks[] = {203, 450, 600, 1000, 2000, 4000, 10000};
    constexpr float kScales[] = {1, 1, 0.5F, 0.25F};
    const Pixels card = MakeTestCard();
    // A premultiplied picture holds no colour above its alpha.
    Pixels premultiplied = card;
    for (auto& [r, g, b, alpha] : std::span(premultiplied.colors).first(kRows * kWidth)) {
        r = static_cast<float>(r * alpha);
        g = static_cast<float>(g * alpha);
        b = static_cast<float>(b * alpha);
    }
    std::mt19937 random(2020);
    const auto any = [&](const auto& values) { return values[random() % std::size(values)]; };
    const auto expect = [&](const ColorAlphaConversionInfo& info) {
        const Pixels& source = info.sourceAlpha == AlphaType::Premultiplied ? premultiplied : card;
        const Pixels drawn = this->Draw(source, DXGI_FORMAT_R32G32B32A32_FLOAT, {}, info);
        const auto reference = [&](std::size_t i) {
            return i < kRows * kWidth ? ReferenceConvert(source.colors[i], info) : drawn.colors[i];
        };
        const auto codes = DX::D3ImageRenderer::MakeParams({}, info);
        EXPECT_EQ(FindDifference(drawn, 8.0 / 65535.0, reference), "")
            << fmt::format("from {:#x} to {:#x}, alpha {} to {}, mode {}", codes.sourceColorSpace,
                           codes.targetColorSpace, codes.sourceAlphaType, codes.targetAlphaType,
                           static_cast<int>(info.mode));
    };
    unsigned pair = 0;
    ColorAlphaConversionInfo info;
    for (const auto& from : {kSRGB, kRec709, kRec2020, kPQ, kHLG}) {
        for (const auto& to : {kSRGB, kRec709, kRec2020, kPQ, kHLG, kRec709Linear}) {
            for (unsigned i = 0; i < 9; ++i) {
                info.source = from;
                info.target = to;
                info.mode = static_cast<LinearizationMode>(i / 3);
                info.sourceAlpha = kAlphas[i % 3];
                info.targetAlpha = any(kAlphas);
                info.sourcePeakLuminance = any(kPeaks);
                info.targetPeakLuminance = any(kPeaks);
                info.linearScale = any(kScales);
                if (pair % 5 == 2 && i == pair % 9) { // by a shader of its own
                    this->m_draw->Specialize(info);
                    this->m_draw->Specialize(info);
                }
                expect(info);
            }
            ++pair;
        }
    }
    EXPECT_EQ(this->m_draw->GetSpecializationCount(), 6U);
}

// A part of a picture, enlarged, at an opacity and blended in each way over what a fill has left:
// through a conversion to each alpha type, or without, where the blend says which the picture has.
// What lies around the part would be seen at once.
TYPED_TEST(DrawTest, PartsFadeAndBlendAndNothingAroundThemShows) {
    using enum DX::BlendPreset;
    constexpr unsigned kAcross = 40, kDown = 24, kFilled = 20;
    constexpr Rect kPart = {3, 2, 8, 5};
    constexpr auto kFloats = DXGI_FORMAT_R32G32B32A32_FLOAT;
    const Color fill = {0.25, 0.5, 0.75, 0.5};
    std::mt19937 random(7);
    std::uniform_real_distribution<float> uniform(0.0F, 1.0F);
    const Pixels picture = MakePixels(11, 7, [&](unsigned x, unsigned y) -> Color {
        const double alpha = uniform(random);
        return x < 3 || x >= 8 || y < 2 || y >= 5
                   ? Color{100, 100, 100, 100}
                   : Color{uniform(random) * alpha, uniform(random) * alpha, alpha / 2, alpha};
    });
    const auto source = this->m_canvas.MakeSource(picture, kFloats);
    const boost::intrusive_ptr filler(new typename TypeParam::FillDraw(this->m_canvas.GetDevice()));
    const auto expect = [&](DX::BlendPreset blend, const DX::ImageDrawParams& params) {
        const auto target = this->m_canvas.MakeTarget(kAcross, kDown, kFloats);
        this->m_renderer->SetBlend(blend);
        this->m_canvas.Record([&](const auto& on) {
            filler->Encode(on, {0.25F, 0.5F, 0.75F, 0.5F}, target, {-9, -9, 99, kFilled});
            this->m_renderer->Encode(on, source, target, params);
        });
        const auto expected = [&](std::size_t i) {
            const bool isFilled = i / kAcross < kFilled;
            const double x =
                std::clamp((static_cast<double>(i % kAcross) + 0.5) / 8 + 2.5, 3.0, 7.0);
            const double y = std::clamp(
                (std::trunc(static_cast<double>(i) / kAcross) + 0.5) / 8 + 1.5, 2.0, 4.0);
            Color color = {};
            for (std::size_t texel = 0; texel < picture.colors.size(); ++texel) {
                const double across = std::fabs(x - static_cast<double>(texel % 11));
                const double down = std::fabs(y - std::trunc(static_cast<double>(texel) / 11));
                for (std::size_t k = 0; k < 4 && across < 1 && down < 1; ++k) {
                    color[k] += (1 - across) * (1 - down) * picture.colors[texel][k];
                }
            }
            double factor = blend == StraightOver ? 1 : params.opacity;
            double alpha = color[3] * params.opacity;
            if (params.conversion) {
                ColorAlphaConversionInfo straight = *params.conversion;
                straight.targetAlpha = AlphaType::NonPremultiplied;
                color = ReferenceConvert(color, straight);
                factor = params.conversion->targetAlpha == straight.targetAlpha ? 1 : alpha;
                alpha = params.conversion->targetAlpha == AlphaType::AlphaIsOne ? 1 : alpha;
            }
            factor *= blend == StraightOver ? alpha : 1;
            const double keep = blend == Replace ? 0 : blend == Add ? 1 : 1 - alpha;
            for (std::size_t k = 0; k < 4; ++k) {
                color[k] = (k < 3 ? color[k] * factor : alpha) + (isFilled ? fill[k] : 0) * keep;
            }
            return color;
        };
        EXPECT_EQ(FindDifference(this->m_canvas.Read(target), 1e-4, expected), "")
            << "blend " << static_cast<int>(blend) << ", opacity " << params.opacity;
    };
    for (const auto blend : {Replace, StraightOver, PremultipliedOver, Add}) {
        for (const float opacity : {1.0F, 0.4F}) {
            DX::ImageDrawParams params = {.sourceRect = kPart, .opacity = opacity};
            expect(blend, params);
            params.conversion.emplace().target = kPQ;
            params.conversion->sourceAlpha = AlphaType::Premultiplied;
            for (const auto alpha : kAlphas) {
                params.conversion->targetAlpha = alpha;
                expect(blend, params);
            }
        }
    }
}

// The four quadrants of a picture in four colours, to see where they land.
Pixels MakeQuadrants(unsigned width, unsigned height) {
    return MakePixels(width, height, [=](unsigned x, unsigned y) -> Color {
        return {x >= width / 2 ? 1.0 : 0.0, y >= height / 2 ? 1.0 : 0.0, 0.0, 1.0};
    });
}

TYPED_TEST(DrawTest, PicturesAreMirroredOrShowWhatIsNotSupported) {
    const Pixels picture = MakeQuadrants(8, 8);
    const auto mirror = AffineTransform::Scale(-1, 1);
    EXPECT_EQ(this->Draw(picture, kRGBA8, mirror, {}).At(0, 7), (Color{1, 1, 0, 1}));
    ColorAlphaConversionInfo info;
    info.source = kRec709Linear;
    EXPECT_EQ(this->Draw(picture, kRGBA8, {}, info).At(0, 0), (Color{1, 0, 0, 1}));
    info.source = kSRGB;
    info.target = {ColorPrimaries::BT2020, TransferCharacteristics::Linear};
    EXPECT_EQ(this->Draw(picture, kRGBA8, {}, info).At(0, 0), (Color{0, 0, 1, 1}));
}

// Fit modes, turns counter-clockwise, and a shift right and up, in any rectangle: what a pixel
// shows follows from where it lies in the picture. Pixels at the
// edges of the quadrants are left out. Rectangles and pictures change together and one at a time.
TYPED_TEST(DrawTest, ViewStatePlacesThePictureAsSeenOnScreen) {
    constexpr long kFar = 1L << 30;
    const struct {
        Rect rect;
        unsigned width, height;
    } kPlaces[] = {
        {{0, 0, 100, 50}, 40, 30},      {{10, 5, 80, 45}, 40, 30},
        {{-20, 10, 50, 50}, 30, 44},    {{30, -40, 120, 60}, 30, 44},
        {{-40000, 5, 60, 33001}, 4, 4}, {{-kFar, -kFar, kFar, kFar}, 40, 30},
        {{110, 0, 130, 50}, 40, 30},    {{40, 4, 20, 28}, 40, 30},
    };
    const auto expect = [&](RenderFitMode mode, double turn) {
        const double cosine = std::cos(turn);
        const double sine = std::sin(turn);
        const double c = std::fabs(cosine);
        const double s = std::fabs(sine);
        this->m_renderer->SetFitMode(mode);
        this->m_renderer->SetRotation(static_cast<float>(turn));
        this->m_renderer->SetTranslation(3.25F, -2.0F);
        for (const auto& [rect, w, h] : kPlaces) {
            const double width = static_cast<double>(rect.right) - rect.left;
            const double height = static_cast<double>(rect.bottom) - rect.top;
            const double scale =
                mode == Free ? 1.0
                : mode == Fit
                    ? std::min(width / (w * c + h * s), height / (w * s + h * c))
                    : std::max((width * c + height * s) / w, (width * s + height * c) / h);
            const auto source = this->m_canvas.MakeSource(MakeQuadrants(w, h), kRGBA8);
            const auto target = this->m_canvas.MakeTarget(100, 50, kRGBA8);
            this->m_canvas.Record([&](const auto& on) {
                this->m_renderer->Encode(on, source, target, std::nullopt, rect);
            });
            const Pixels drawn = this->m_canvas.Read(target);
            const auto expected = [&](std::size_t i) {
                const double x = static_cast<double>(i % 100) + 0.5;
                const double y = std::floor(static_cast<double>(i) / 100) + 0.5;
                const double right = x - (rect.left + width / 2 + 3.25);
                const double down = y - (rect.top + height / 2 - 2.0);
                const double across = right * cosine - down * sine;
                const double along = right * sine + down * cosine;
                const double fromEdge =
                    std::min(w * scale / 2 - std::fabs(across), h * scale / 2 - std::fabs(along));
                const double fromAny =
                    std::min({std::fabs(fromEdge), std::fabs(across), std::fabs(along)});
                if (x < rect.left || x > rect.right || y < rect.top || y > rect.bottom) {
                    return Color{};
                }
                if (fromAny < std::max(1.5, scale)) {
                    return drawn.colors[i];
                }
                return fromEdge < 0 ? Color{}
                                    : Color{across > 0 ? 1.0 : 0.0, along > 0 ? 1.0 : 0.0, 0, 1};
            };
            EXPECT_EQ(FindDifference(drawn, 1e-6, expected), "")
                << "mode " << static_cast<int>(mode) << ", turned " << turn << " in "
                << fmt::format("{} {} {} {}", rect.left, rect.top, rect.right, rect.bottom);
        }
    };
    for (const auto mode : {Free, Fit, Fill}) {
        for (const double turn : {0.0, 0.3, 1.57079633, 2.5}) {
            expect(mode, turn);
        }
    }
}

// A drawing that is refused leaves the recording as it was.
TYPED_TEST(DrawTest, WrongArgumentsAreRefused) {
    constexpr bool kIs12 = std::is_same_v<TypeParam, Canvas>;
    constexpr auto kNoSource = "The texture is expected to be the shader resource view";
    constexpr auto kNoTarget = "The texture is expected to be the render target view";
    const auto source = this->m_canvas.MakeSource(MakeQuadrants(8, 8), kRGBA8);
    const auto target = this->m_canvas.MakeTarget(8, 8, kRGBA8);
    const auto refuses = [&](const auto& on, const auto& from, const auto& to, const char* words) {
        ExpectFailure([&] { this->m_draw->Encode(on, from, to, {}, {}); }, words, "Encode", E_FAIL,
                      TypeParam::kKind);
    };
    this->m_canvas.Record([&](const auto& on) {
        refuses(on, decltype(source)(), target, kNoSource);
        refuses(on, source, decltype(target)(), kNoTarget);
        refuses(std::remove_cvref_t<decltype(on)>(), source, target,
                kIs12 ? "There is no command allocator" : "There is no device context");
        if constexpr (kIs12) {
            const boost::intrusive_ptr fill(new DX::D12FillDraw(on->GetDevice()));
            refuses(on, target, target, kNoSource);
            refuses(on, source, source, kNoTarget);
            ExpectFailure12([&] { fill->Encode(on, {}, source, {}); }, kNoTarget, "Encode");
        }
        for (const Rect& part : {Rect{}, {-1, 0, 8, 8}, {0, 0, 8, 9}, {5, 0, 5, 8}}) {
            EXPECT_EQ(
                SentenceOf([&] { this->m_draw->Encode(on, source, target, {.sourceRect = part}); }),
                "The source rectangle does not lie in the texture");
        }
        this->m_draw->Encode(on, source, target, {}, {});
    });
    EXPECT_EQ(SentenceOf([] { typename TypeParam::ImageDraw(nullptr); }), "There is no device");
}

TEST(D3D12DrawTest, OneDrawServesSeveralThreads) {
    Canvas canvas;
    const boost::intrusive_ptr draw(new DX::D12ImageDraw(canvas.GetDevice()));
    RunThreads(4, [&](unsigned thread) {
        const Color color = {thread / 3.0, 1.0 - thread / 3.0, 0.0, 1.0};
        const auto source = canvas.MakeSource({1, 1, {color}}, kRGBA8);
        for (int round = 0; round < 20; ++round) {
            const auto target = canvas.MakeTarget(8, 8, kRGBA8);
            canvas.Record([&](const auto& on) {
                draw->SetBlendState(draw->GetBlendState());
                for (int i = 0; i < 10; ++i) { // long enough for the threads to meet
                    draw->Encode(on, source, target, {}, {});
                }
            });
            ASSERT_EQ(FindDifference(canvas.Read(target), 0.01, [&](auto) { return color; }), "");
        }
    });
}

TEST(D3D11DrawTest, LeavesNothingBoundThatHindersTheNextUser) {
    Canvas11 canvas;
    const auto source = canvas.MakeSource(MakeQuadrants(8, 8), kRGBA8);
    const auto target = canvas.MakeTarget(8, 8, kRGBA8);
    const boost::intrusive_ptr draw(new DX::D11ImageDraw(canvas.GetDevice()));
    draw->SetBlendState(canvas.GetDevice()->CreateBlendState(
        {TRUE, D3D11_BLEND_ONE, D3D11_BLEND_ONE, D3D11_BLEND_OP_ADD, D3D11_BLEND_ONE,
         D3D11_BLEND_ONE, D3D11_BLEND_OP_ADD, D3D11_COLOR_WRITE_ENABLE_RED}));
    canvas.Record([&](const auto& on) { draw->Encode(on, source, target, {}, {}); });
    EXPECT_EQ(canvas.Read(target).At(7, 7), (Color{1, 0, 0, 0})) << "red alone";
    const auto context = GetImmediateContext(canvas.GetDevice()->Get());
    CComPtr<ID3D11RenderTargetView> view;
    CComPtr<ID3D11BlendState> blend;
    CComPtr<ID3D11DepthStencilState> depth;
    CComPtr<ID3D11RasterizerState> rasterizer;
    context->OMGetRenderTargets(1, &view, nullptr);
    context->OMGetBlendState(&blend, nullptr, nullptr);
    context->OMGetDepthStencilState(&depth, nullptr);
    context->RSGetState(&rasterizer);
    EXPECT_THAT((std::array<void*, 4>{view.p, blend.p, depth.p, rasterizer.p}),
                testing::Each(nullptr));
}

TEST(AffineTransformTest, TransformsBoxesAndInverts) {
    const auto shifted = AffineTransform::Scale(2, 3).Then(AffineTransform::Translation(10, 20));
    EXPECT_EQ(shifted.Transform({1, 2, 3, 4}), (DX::Rect2DT<float>{12, 26, 16, 32}));
    // A quarter turn counter-clockwise, y up: (x, y) goes to (-y, x).
    const auto turned = AffineTransform::Rotation(1.57079633F);
    EXPECT_NEAR(turned.Transform({1, 2, 4, 8}).left, -8, 1e-5);
    EXPECT_EQ(shifted.Then(shifted.Inverse()).Transform({1, 2, 4, 8}).bottom, 8);
    EXPECT_THROW(AffineTransform::Scale(0, 1).Inverse(), std::domain_error);
}

// A renderer without a drawer: remembers what it was handed.
class View : public DX::D3ImageRenderer {
public:
    using D3ImageRenderer::UpdateTransform;

    std::optional<AffineTransform> transform;

protected:
    void SetTransform(const std::optional<AffineTransform>& value) override { transform = value; }
};

TEST(D3ImageRendererTest, ViewStateFollowsTheSetters) {
    View view;
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "nothing drawn yet";
    view.UpdateTransform({100, 100}, {50, 80});
    view.SetScale(0.0F);
    view.ScaleByMult(std::nanf(""));
    EXPECT_EQ(view.GetEffectiveScale(), 0.5F) << "those are ignored";
    view.ScaleByMult(3.0F);
    EXPECT_EQ(view.GetEffectiveScale(), 1.5F) << "from the scale that the fit implied";
    view.ScaleByDelta(0.25F);
    view.ScaleByDelta(-0.25F);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 1.5F) << "steps in and out cancel";
    view.SetFitMode(Fill);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 0.8F);
    view.SetFitMode(Free);
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "a fitting mode resets the scale";
    EXPECT_FALSE(view.transform);
    view.UpdateTransform({0, 5}, {5, 0});
    EXPECT_EQ(view.transform.value(), AffineTransform()) << "nothing to fit";
    view.SetFitMode(Fit);
    for (long size = 1; size < 4000; size += 7) {
        view.UpdateTransform({size, size + 3}, {size, size + 3});
        EXPECT_EQ(view.transform.value(), AffineTransform()) << "exactly, at the same size";
    }
}

} // namespace

} // namespace Norvex::Test
