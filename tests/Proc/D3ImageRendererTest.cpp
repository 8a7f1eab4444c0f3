// The part of image rendering that needs no device: where the picture lies on the target, the
// parameter bytes, the constants of the shader text, and the affine transform beneath.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <optional>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3ImageRenderer.h"

namespace {

using namespace Norvex;
using DX::AffineTransform;
using DX::D3ImageRenderer;
using DX::RenderFitMode;
using Size = DX::Size2DT<long>;

constexpr float kPi = std::numbers::pi_v<float>;

struct Point {
    double x;
    double y;
};

// A renderer without a drawer: remembers what it was handed.
class View : public D3ImageRenderer {
public:
    // The corners of the picture in target pixels, y down: top left, top right, bottom right,
    // bottom left.
    std::vector<Point> Draw(const Size& source, const Size& target) {
        UpdateTransform(source, target);
        const double width = static_cast<double>(target.width);
        const double height = static_cast<double>(target.height);
        const auto& m = transform.value().rows;
        std::vector<Point> corners;
        for (const Point quad : {Point{-1, 1}, Point{1, 1}, Point{1, -1}, Point{-1, -1}}) {
            // As the drawers and the vertex shader do.
            const double x = quad.x * m[0][0] + quad.y * m[1][0] + m[3][0] * 2 / width;
            const double y = quad.x * m[0][1] + quad.y * m[1][1] + m[3][1] * 2 / height;
            corners.push_back({(x + 1) / 2 * width, (1 - y) / 2 * height});
        }
        return corners;
    }

    std::optional<AffineTransform> transform;
    int resets = 0;

protected:
    void SetTransform(const std::optional<AffineTransform>& value) override {
        transform = value;
        resets += value ? 0 : 1;
    }
};

TEST(AffineTransformTest, TransformsBoxes) {
    const auto shifted = AffineTransform::Scale(2, 3).Then(AffineTransform::Translation(10, 20));
    EXPECT_EQ(shifted.Transform({1, 2, 3, 4}), (DX::Rect2DT<float>{12, 26, 16, 32}));
    EXPECT_EQ(shifted.Transform({1, 2, 1, 4}).left, shifted.Transform({1, 2, 1, 4}).right);
    // A quarter turn counter-clockwise, y up: (x, y) goes to (-y, x).
    const DX::Rect2DT<float> turned = AffineTransform::Rotation(kPi / 2).Transform({1, 2, 4, 8});
    EXPECT_NEAR(turned.left, -8, 1e-5);
    EXPECT_NEAR(turned.top, 1, 1e-5);
    EXPECT_NEAR(turned.right, -2, 1e-5);
    EXPECT_NEAR(turned.bottom, 4, 1e-5);
}

TEST(AffineTransformTest, InverseUndoesTheTransform) {
    const auto transform = AffineTransform::Scale(3, 0.5F)
                               .Then(AffineTransform::Rotation(0.7F))
                               .Then(AffineTransform::Translation(5, -9));
    const AffineTransform identity = transform.Then(transform.Inverse());
    for (std::size_t row = 0; row < 4; ++row) {
        for (std::size_t column = 0; column < 4; ++column) {
            EXPECT_NEAR(identity.rows[row][column], row == column ? 1 : 0, 1e-5);
        }
    }
    EXPECT_EQ(transform.Transposed().rows[0][3], 5);
    EXPECT_THROW(AffineTransform::Scale(0, 1).Inverse(), std::domain_error);
}

TEST(D3ImageRendererTest, PlacesThePicture) {
    const struct {
        const char* name;
        RenderFitMode mode;
        float scale; // 0: as the mode says
        float rotation;
        std::array<float, 2> translation;
        Size source;
        Size target;
        Point topLeft;
        Point bottomRight;
        float effectiveScale;
    } cases[] = {
        {"same size", RenderFitMode::Fit, 0, 0, {}, {49, 31}, {49, 31}, {0, 0}, {49, 31}, 1},
        {"fit wide",
         RenderFitMode::Fit,
         0,
         0,
         {},
         {400, 100},
         {200, 200},
         {0, 75},
         {200, 125},
         0.5F},
        {"fit enlarges",
         RenderFitMode::Fit,
         0,
         0,
         {},
         {10, 20},
         {400, 200},
         {150, 0},
         {250, 200},
         10},
        {"fill wide",
         RenderFitMode::Fill,
         0,
         0,
         {},
         {400, 100},
         {200, 200},
         {-300, 0},
         {500, 200},
         2},
        {"free", RenderFitMode::Free, 1, 0, {}, {40, 20}, {200, 100}, {80, 40}, {120, 60}, 1},
        {"free, scaled",
         RenderFitMode::Free,
         3,
         0,
         {},
         {40, 20},
         {200, 100},
         {40, 20},
         {160, 80},
         3},
        {"right and down",
         RenderFitMode::Fit,
         0,
         0,
         {7, 5},
         {10, 10},
         {10, 10},
         {7, 5},
         {17, 15},
         1},
        // Counter-clockwise: the top left corner comes to lie at the bottom left.
        {"quarter turn",
         RenderFitMode::Fit,
         0,
         kPi / 2,
         {},
         {100, 50},
         {200, 400},
         {0, 400},
         {200, 0},
         4},
        {"fill, turned",
         RenderFitMode::Fill,
         0,
         kPi / 2,
         {},
         {100, 50},
         {200, 200},
         {0, 300},
         {200, -100},
         4},
        {"turned, then moved",
         RenderFitMode::Free,
         1,
         kPi,
         {10, 0},
         {20, 10},
         {100, 50},
         {70, 30},
         {50, 20},
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        View view;
        view.SetFitMode(c.mode);
        if (c.scale > 0) {
            view.SetScale(c.scale);
        }
        view.SetRotation(c.rotation);
        view.SetTranslation(c.translation[0], c.translation[1]);
        const std::vector<Point> corners = view.Draw(c.source, c.target);
        EXPECT_NEAR(corners[0].x, c.topLeft.x, 1e-3);
        EXPECT_NEAR(corners[0].y, c.topLeft.y, 1e-3);
        EXPECT_NEAR(corners[2].x, c.bottomRight.x, 1e-3);
        EXPECT_NEAR(corners[2].y, c.bottomRight.y, 1e-3);
        EXPECT_NEAR(view.GetEffectiveScale(), c.effectiveScale, 1e-5);
    }
}

TEST(D3ImageRendererTest, SameSizeIsExactlyTheIdentity) {
    for (long size = 1; size < 4000; size += 7) {
        View view;
        view.Draw({size, size + 3}, {size, size + 3});
        EXPECT_EQ(view.transform, AffineTransform());
    }
}

// Signed distance of the point from the edge a-b, positive inside a picture whose corners run
// clockwise on the screen.
double Inside(Point a, Point b, Point point) {
    const double length = std::hypot(b.x - a.x, b.y - a.y);
    return ((b.x - a.x) * (point.y - a.y) - (b.y - a.y) * (point.x - a.x)) / length;
}

TEST(D3ImageRendererTest, FitsExactlyAndKeepsTheShapeAtEveryAngle) {
    const Size sizes[] = {{640, 480}, {100, 700}, {333, 333}, {1920, 1080}};
    for (const Size& source : sizes) {
        for (const Size& target : sizes) {
            for (int degrees = -360; degrees <= 360; degrees += 15) {
                SCOPED_TRACE(fmt::format("{} degrees, {} x {} on {} x {}", degrees, source.width,
                                         source.height, target.width, target.height));
                const double width = static_cast<double>(target.width);
                const double height = static_cast<double>(target.height);
                View view;
                view.SetRotation(static_cast<float>(degrees) * kPi / 180);
                const std::vector<Point> fit = view.Draw(source, target);
                double margin = HUGE_VAL;
                for (const Point p : fit) {
                    margin = std::min({margin, p.x, p.y, width - p.x, height - p.y});
                }
                EXPECT_NEAR(margin, 0, 2e-3) << "Fit: inside, touching";

                const double across = std::hypot(fit[1].x - fit[0].x, fit[1].y - fit[0].y);
                const double down = std::hypot(fit[3].x - fit[0].x, fit[3].y - fit[0].y);
                EXPECT_NEAR(across, static_cast<double>(source.width) * view.GetEffectiveScale(),
                            2e-3);
                EXPECT_NEAR(down, static_cast<double>(source.height) * view.GetEffectiveScale(),
                            2e-3);
                EXPECT_NEAR(Inside(fit[0], fit[1], fit[3]), down, 2e-3)
                    << "right angles, not mirrored";

                view.SetFitMode(RenderFitMode::Fill);
                const std::vector<Point> fill = view.Draw(source, target);
                margin = HUGE_VAL;
                for (const Point p :
                     {Point{0, 0}, Point{width, 0}, Point{width, height}, Point{0, height}}) {
                    for (std::size_t i = 0; i < 4; ++i) {
                        margin = std::min(margin, Inside(fill[i], fill[(i + 1) % 4], p));
                    }
                }
                EXPECT_NEAR(margin, 0, 2e-3) << "Fill: covers, no more than needed";
            }
        }
    }
}

TEST(D3ImageRendererTest, ViewStateFollowsTheSetters) {
    View view;
    EXPECT_EQ(view.GetFitMode(), RenderFitMode::Fit);
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "nothing drawn yet";
    view.Draw({100, 100}, {50, 80});
    EXPECT_EQ(view.GetEffectiveScale(), 0.5F);
    EXPECT_EQ(view.resets, 0);

    view.SetScale(0.0F);
    view.SetScale(-1.0F);
    view.SetScale(std::nanf(""));
    view.ScaleByMult(-2.0F);
    EXPECT_EQ(view.resets, 0) << "ignored";
    EXPECT_EQ(view.GetFitMode(), RenderFitMode::Fit);

    view.ScaleByMult(3.0F);
    EXPECT_EQ(view.GetEffectiveScale(), 1.5F) << "from the scale that the fit implied";
    EXPECT_EQ(view.GetFitMode(), RenderFitMode::Free);
    view.ScaleByDelta(0.25F);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 1.875F);
    view.ScaleByDelta(-0.25F);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 1.5F) << "steps in and out cancel";
    view.SetFitMode(RenderFitMode::Fill);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 0.8F);
    view.SetFitMode(RenderFitMode::Free);
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "a fitting mode resets the scale";

    view.SetTranslation(3, 4);
    view.TranslateBy(-1, 2);
    EXPECT_EQ(view.GetTranslation(), (std::array<float, 2>{2, 6}));
    view.SetRotation(0.5F);
    EXPECT_EQ(view.GetRotation(), 0.5F);
    EXPECT_EQ(view.resets, 8);
    EXPECT_FALSE(view.transform);

    for (const auto& [source, target] : {std::pair<Size, Size>{{0, 5}, {5, 5}}, {{5, 5}, {5, 0}}}) {
        View empty;
        empty.SetRotation(1);
        empty.Draw(source, target);
        EXPECT_EQ(empty.transform.value(), AffineTransform()) << "nothing to fit";
        EXPECT_EQ(empty.GetEffectiveScale(), 1.0F);
    }
}

template <class T>
T ReadAt(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, &bytes.at(offset + sizeof(T) - 1) - (sizeof(T) - 1), sizeof(T));
    return value;
}

TEST(D3ImageRendererTest, ParamsBufferHasItsLayout) {
    AffineTransform transform;
    for (std::size_t i = 0; i < 16; ++i) {
        transform.rows[i / 4][i % 4] = static_cast<float>(i + 1);
    }
    Proc::ColorAlphaConversionInfo info;
    info.source = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    info.target = {Conf::ColorPrimaries::BT709, Conf::TransferCharacteristics::sRGB};
    info.sourceAlpha = Proc::AlphaType::Premultiplied;
    info.targetAlpha = Proc::AlphaType::AlphaIsOne;
    info.targetPeakLuminance = 600.0F;
    const auto with = D3ImageRenderer::MakeParamsBuffer(transform, info);
    const auto without = D3ImageRenderer::MakeParamsBuffer(transform, std::nullopt);
    ASSERT_EQ(with.size(), 256U);
    ASSERT_EQ(without.size(), 256U);

    for (std::size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(ReadAt<float>(with, i * 4), transform.rows[i % 4][i / 4]) << "columns first";
    }
    const auto [tonemapA, tonemapB] = info.GetPQTonemapCoefs();
    EXPECT_GT(tonemapA, 0.0F);
    const struct {
        std::size_t offset;
        std::uint32_t with;
        std::uint32_t without;
    } integers[] = {{64, 0x910, 0}, {68, 0x10d, 0}, {72, 2, 0}, {76, 1, 0}, {80, 1, 0}};
    for (const auto& c : integers) {
        EXPECT_EQ(ReadAt<std::uint32_t>(with, c.offset), c.with) << c.offset;
        EXPECT_EQ(ReadAt<std::uint32_t>(without, c.offset), c.without) << c.offset;
    }
    const struct {
        std::size_t offset;
        float with;
        float without;
    } floats[] = {{84, info.GetLinearScale(), 1.0F},
                  {88, tonemapA, 0.0F},
                  {92, tonemapB, 0.0F},
                  {96, 600.0F, 1000.0F},
                  {100, info.GetHLGOOTFGamma(), 1.0F}};
    for (const auto& c : floats) {
        EXPECT_EQ(ReadAt<float>(with, c.offset), c.with) << c.offset;
        EXPECT_EQ(ReadAt<float>(without, c.offset), c.without) << c.offset;
    }
    EXPECT_TRUE(std::all_of(with.begin() + 104, with.end(), [](auto byte) { return byte == 0; }));

    info.mode = Proc::LinearizationMode::SceneReferred;
    EXPECT_EQ(ReadAt<std::uint32_t>(D3ImageRenderer::MakeParamsBuffer(transform, info), 80), 0U);
    info.mode = Proc::LinearizationMode::DisplayReferredHDR;
    EXPECT_EQ(ReadAt<std::uint32_t>(D3ImageRenderer::MakeParamsBuffer(transform, info), 80), 1U);
}

TEST(D3ImageRendererTest, PixelShaderBeginsWithItsConstants) {
    const std::string text = D3ImageRenderer::GetPixelShader();
    EXPECT_TRUE(text.starts_with("static const uint sRGB = 0x10d;\n"
                                 "static const uint Rec709 = 0x101;\n"
                                 "static const uint Rec709Linear = 0x108;\n"
                                 "static const uint Rec2020 = 0x901;\n"
                                 "static const uint Rec2020Linear = 0x908;\n"
                                 "static const uint Rec2020PQ = 0x910;\n"
                                 "static const uint Rec2020HLG = 0x912;\n"
                                 "static const uint BT709 = 0x1;\n"
                                 "static const uint BT2020 = 0x9;\n"
                                 "static const uint AlphaTypeNonPremultiplied = 0;\n"
                                 "static const uint AlphaTypeAlphaIsOne = 0x1;\n"
                                 "static const uint AlphaTypePremultiplied = 0x2;\n"))
        << text.substr(0, 600);
}

} // namespace
