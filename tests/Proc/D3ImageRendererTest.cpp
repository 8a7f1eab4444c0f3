// The part of image rendering that needs no device: where the picture lies on the target, the
// parameter bytes, the shader texts, and the affine transform beneath. What the shaders compute is
// DrawTest's.

#include <cmath>
#include <cstring>
#include <numbers>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"

namespace {

using namespace Norvex;
using DX::AffineTransform;
using DX::D3ImageRenderer;
using DX::RenderFitMode;
using testing::DoubleNear;
using Size = DX::Size2DT<long>;
using Point = std::array<double, 2>;
using enum DX::RenderFitMode;

constexpr float kPi = std::numbers::pi_v<float>;

testing::Matcher<const Point&> IsNear(const Point& point, double tolerance = 1e-3) {
    return testing::ElementsAre(DoubleNear(point[0], tolerance), DoubleNear(point[1], tolerance));
}

// A renderer without a drawer: remembers what it was handed.
class View : public D3ImageRenderer {
public:
    // The corners of the picture in target pixels, y down: top left, top right, bottom right,
    // bottom left.
    std::array<Point, 4> Draw(const Size& source, const Size& target) {
        UpdateTransform(source, target);
        const auto width = static_cast<double>(target.width);
        const auto height = static_cast<double>(target.height);
        const auto& m = transform.value().rows;
        std::array<Point, 4> corners = {{{-1, 1}, {1, 1}, {1, -1}, {-1, -1}}};
        for (auto& [x, y] : corners) {
            // As the drawers and the vertex shader do.
            const Point clip = {x * m[0][0] + y * m[1][0] + m[3][0] * 2 / width,
                                x * m[0][1] + y * m[1][1] + m[3][1] * 2 / height};
            x = (clip[0] + 1) / 2 * width;
            y = (1 - clip[1]) / 2 * height;
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

TEST(AffineTransformTest, TransformsBoxesAndInverts) {
    const auto shifted = AffineTransform::Scale(2, 3).Then(AffineTransform::Translation(10, 20));
    EXPECT_EQ(shifted.Transform({1, 2, 3, 4}), (DX::Rect2DT<float>{12, 26, 16, 32}));
    EXPECT_EQ(shifted.Transform({1, 2, 1, 4}), (DX::Rect2DT<float>{12, 26, 12, 32}));
    // A quarter turn counter-clockwise, y up: (x, y) goes to (-y, x).
    const DX::Rect2DT<float> turned = AffineTransform::Rotation(kPi / 2).Transform({1, 2, 4, 8});
    EXPECT_THAT((Point{turned.left, turned.top}), IsNear({-8, 1}, 1e-5));
    EXPECT_THAT((Point{turned.right, turned.bottom}), IsNear({-2, 4}, 1e-5));

    const auto transform = shifted.Then(AffineTransform::Rotation(0.7F));
    const AffineTransform identity = transform.Then(transform.Inverse());
    for (std::size_t i = 0; i < 16; ++i) {
        EXPECT_NEAR(identity.rows[i / 4][i % 4], i % 5 == 0 ? 1 : 0, 1e-5) << i;
    }
    EXPECT_EQ(shifted.Transposed().rows[0][3], 10);
    EXPECT_THROW(AffineTransform::Scale(0, 1).Inverse(), std::domain_error);
}

TEST(D3ImageRendererTest, PlacesThePicture) {
    const struct {
        const char* name;
        RenderFitMode mode;
        float scale, rotation; // scale 0: as the mode says
        Point moved;
        Size source, target;
        Point topLeft, bottomRight;
        float effectiveScale;
    } cases[] = {
        {"same size", Fit, 0, 0, {}, {49, 31}, {49, 31}, {0, 0}, {49, 31}, 1},
        {"fit wide", Fit, 0, 0, {}, {400, 100}, {200, 200}, {0, 75}, {200, 125}, 0.5F},
        {"fit enlarges", Fit, 0, 0, {}, {10, 20}, {400, 200}, {150, 0}, {250, 200}, 10},
        {"fill wide", Fill, 0, 0, {}, {400, 100}, {200, 200}, {-300, 0}, {500, 200}, 2},
        {"free", Free, 1, 0, {}, {40, 20}, {200, 100}, {80, 40}, {120, 60}, 1},
        {"free, scaled", Free, 3, 0, {}, {40, 20}, {200, 100}, {40, 20}, {160, 80}, 3},
        {"right and down", Fit, 0, 0, {7, 5}, {10, 10}, {10, 10}, {7, 5}, {17, 15}, 1},
        // Counter-clockwise: the top left corner comes to lie at the bottom left.
        {"quarter turn", Fit, 0, kPi / 2, {}, {100, 50}, {200, 400}, {0, 400}, {200, 0}, 4},
        {"fill, turned", Fill, 0, kPi / 2, {}, {100, 50}, {200, 200}, {0, 300}, {200, -100}, 4},
        {"turned, moved", Free, 1, kPi, {10, 0}, {20, 10}, {100, 50}, {70, 30}, {50, 20}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        View view;
        view.SetFitMode(c.mode);
        if (c.scale > 0) {
            view.SetScale(c.scale);
        }
        view.SetRotation(c.rotation);
        view.SetTranslation(static_cast<float>(c.moved[0]), static_cast<float>(c.moved[1]));
        const auto corners = view.Draw(c.source, c.target);
        EXPECT_THAT(corners[0], IsNear(c.topLeft));
        EXPECT_THAT(corners[2], IsNear(c.bottomRight));
        EXPECT_NEAR(view.GetEffectiveScale(), c.effectiveScale, 1e-5);
    }
    for (long size = 1; size < 4000; size += 7) {
        View view;
        view.Draw({size, size + 3}, {size, size + 3});
        EXPECT_EQ(view.transform, AffineTransform()) << "exactly, at the same size";
    }
}

// Signed distance of the point from the edge a-b, positive inside a picture whose corners run
// clockwise on the screen.
double Inside(Point a, Point b, Point point) {
    const double length = std::hypot(b[0] - a[0], b[1] - a[1]);
    return ((b[0] - a[0]) * (point[1] - a[1]) - (b[1] - a[1]) * (point[0] - a[0])) / length;
}

// How far the inner corners lie inside the outer ones' box; 0: inside, and touching it.
double Margin(const std::array<Point, 4>& outer, const std::array<Point, 4>& inner) {
    double margin = HUGE_VAL;
    for (const Point& point : inner) {
        for (std::size_t i = 0; i < 4; ++i) {
            margin = std::min(margin, Inside(outer[i], outer[(i + 1) % 4], point));
        }
    }
    return margin;
}

TEST(D3ImageRendererTest, FitsExactlyAndKeepsTheShapeAtEveryAngle) {
    const Size sizes[] = {{640, 480}, {100, 700}, {333, 333}, {1920, 1080}};
    for (const Size& source : sizes) {
        for (const Size& target : sizes) {
            const auto width = static_cast<double>(target.width);
            const auto height = static_cast<double>(target.height);
            const std::array<Point, 4> screen = {
                {{0, 0}, {width, 0}, {width, height}, {0, height}}};
            for (int degrees = -360; degrees <= 360; degrees += 15) {
                SCOPED_TRACE(fmt::format("{} degrees, {} x {} on {} x {}", degrees, source.width,
                                         source.height, target.width, target.height));
                View view;
                view.SetRotation(static_cast<float>(degrees) * kPi / 180);
                const auto fit = view.Draw(source, target);
                EXPECT_NEAR(Margin(screen, fit), 0, 2e-3) << "Fit: inside, touching";
                const double scale = view.GetEffectiveScale();
                const double down = static_cast<double>(source.height) * scale;
                EXPECT_NEAR(Inside(fit[3], fit[0], fit[1]),
                            static_cast<double>(source.width) * scale, 2e-3);
                EXPECT_NEAR(std::hypot(fit[3][0] - fit[0][0], fit[3][1] - fit[0][1]), down, 2e-3);
                EXPECT_NEAR(Inside(fit[0], fit[1], fit[3]), down, 2e-3) << "not mirrored";

                view.SetFitMode(Fill);
                EXPECT_NEAR(Margin(view.Draw(source, target), screen), 0, 2e-3)
                    << "Fill: covers, no more than needed";
            }
        }
    }
}

TEST(D3ImageRendererTest, ViewStateFollowsTheSetters) {
    View view;
    EXPECT_EQ(view.GetFitMode(), Fit);
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "nothing drawn yet";
    view.Draw({100, 100}, {50, 80});
    EXPECT_EQ(view.GetEffectiveScale(), 0.5F);
    for (const float scale : {0.0F, -1.0F, std::nanf("")}) {
        view.SetScale(scale);
        view.ScaleByMult(scale);
    }
    EXPECT_EQ(view.resets, 0) << "ignored";
    EXPECT_EQ(view.GetFitMode(), Fit);

    view.ScaleByMult(3.0F);
    EXPECT_EQ(view.GetEffectiveScale(), 1.5F) << "from the scale that the fit implied";
    EXPECT_EQ(view.GetFitMode(), Free);
    view.ScaleByDelta(0.25F);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 1.875F);
    view.ScaleByDelta(-0.25F);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 1.5F) << "steps in and out cancel";
    view.SetFitMode(Fill);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 0.8F);
    view.SetFitMode(Free);
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "a fitting mode resets the scale";
    view.SetTranslation(3, 4);
    view.TranslateBy(-1, 2);
    EXPECT_EQ(view.GetTranslation(), (std::array<float, 2>{2, 6}));
    view.SetRotation(0.5F);
    EXPECT_EQ(view.GetRotation(), 0.5F);
    EXPECT_EQ(view.resets, 8);
    EXPECT_FALSE(view.transform);

    for (const auto& [source, target] : {std::pair<Size, Size>{{0, 5}, {5, 5}}, {{5, 5}, {5, 0}}}) {
        view.SetTranslation(0, 0);
        view.SetFitMode(Fit);
        view.Draw(source, target);
        EXPECT_EQ(view.transform.value(), AffineTransform()) << "nothing to fit";
        EXPECT_EQ(view.GetEffectiveScale(), 1.0F);
    }
}

// The words of the parameters, the whole buffer being 64 of them.
template <class T>
std::vector<T> WordsOf(const std::vector<std::uint8_t>& bytes) {
    std::vector<T> words(bytes.size() / sizeof(T));
    std::memcpy(words.data(), bytes.data(), words.size() * sizeof(T));
    return words;
}

TEST(D3ImageRendererTest, ParamsBufferHasItsLayout) {
    AffineTransform transform;
    for (std::size_t i = 0; i < 16; ++i) {
        transform.rows[i % 4][i / 4] = static_cast<float>(i + 1); // columns first
    }
    Proc::ColorAlphaConversionInfo info;
    info.source = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    info.target = {Conf::ColorPrimaries::BT709, Conf::TransferCharacteristics::sRGB};
    info.sourceAlpha = Proc::AlphaType::Premultiplied;
    info.targetAlpha = Proc::AlphaType::AlphaIsOne;
    info.raw = Proc::RawConversionParams{0.5F, 0.25F, 600.0F, 1.5F, 2.0F};
    for (const unsigned mode : {0U, 1U, 2U}) {
        info.mode = static_cast<Proc::LinearizationMode>(mode);
        const std::vector<std::uint32_t> integers[] = {{0x910, 0x10d, 2, 1, mode > 0 ? 1U : 0U},
                                                       {0, 0, 0, 0, 0}};
        std::vector<float> floats[] = {{2.0F, 0.5F, 0.25F, 600.0F, 1.5F},
                                       {1.0F, 0.0F, 0.0F, 1000.0F, 1.0F}};
        for (const std::size_t without : {0U, 1U}) {
            const auto bytes = D3ImageRenderer::MakeParamsBuffer(
                transform, without != 0 ? std::nullopt : std::optional(info));
            ASSERT_EQ(bytes.size(), 256U);
            const auto words = WordsOf<std::uint32_t>(bytes);
            EXPECT_EQ(std::vector(words.begin() + 16, words.begin() + 21), integers[without]);
            auto values = WordsOf<float>(bytes);
            for (std::size_t i = 0; i < 16; ++i) {
                EXPECT_EQ(values[i], static_cast<float>(i + 1));
            }
            values.erase(values.begin(), values.begin() + 21);
            floats[without].resize(43); // the rest is zero
            EXPECT_EQ(values, floats[without]);
        }
    }
}

TEST(D3ImageRendererTest, PixelShaderBeginsWithItsConstants) {
    std::string expected;
    for (const auto& [name, value] : {std::pair("sRGB", "0x10d"),
                                      {"Rec709", "0x101"},
                                      {"Rec709Linear", "0x108"},
                                      {"Rec2020", "0x901"},
                                      {"Rec2020Linear", "0x908"},
                                      {"Rec2020PQ", "0x910"},
                                      {"Rec2020HLG", "0x912"},
                                      {"BT709", "0x1"},
                                      {"BT2020", "0x9"},
                                      {"AlphaTypeNonPremultiplied", "0"},
                                      {"AlphaTypeAlphaIsOne", "0x1"},
                                      {"AlphaTypePremultiplied", "0x2"}}) {
        expected += fmt::format("static const uint {} = {};\n", name, value);
    }
    EXPECT_THAT(D3ImageRenderer::GetPixelShader(), testing::StartsWith(expected));
}

// What the compiler has to say; "failed" when it only fails.
std::string MessagesOf(const std::string& text, const char* entry, const std::string& target) {
    constexpr unsigned kFlags = D3DCOMPILE_ENABLE_STRICTNESS | D3DCOMPILE_OPTIMIZATION_LEVEL3;
    CComPtr<ID3DBlob> code;
    CComPtr<ID3DBlob> errors;
    const HRESULT result = D3DCompile2(text.data(), text.size(), nullptr, nullptr, nullptr, entry,
                                       target.c_str(), kFlags, 0, 0, nullptr, 0, &code, &errors);
    if (errors != nullptr) {
        return static_cast<const char*>(errors->GetBufferPointer());
    }
    return SUCCEEDED(result) ? "" : "failed";
}

TEST(ImageShaderTest, CompilesWithoutAWarning) {
    for (const std::string model : {"4_0", "5_0"}) {
        EXPECT_EQ(MessagesOf(D3ImageRenderer::GetVertexShader(), "VSMain", "vs_" + model), "");
        EXPECT_EQ(MessagesOf(D3ImageRenderer::GetPixelShader(), "PSMain", "ps_" + model), "");
    }
}

} // namespace
