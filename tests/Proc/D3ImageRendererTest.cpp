// The part of image rendering that needs no device: where the picture lies on the target, the
// parameter bytes, the shader texts, and the affine transform beneath. What the shaders compute is
// DrawTest's.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <iterator>
#include <numbers>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

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

TEST(D3ImageRendererTest, PlacesThePictureAtEveryAngle) {
    const auto expect = [](RenderFitMode mode, int degrees, const Size& picture,
                           const Size& target) {
        SCOPED_TRACE(fmt::format("mode {}, {} degrees, {} x {} on {} x {}", static_cast<int>(mode),
                                 degrees, picture.width, picture.height, target.width,
                                 target.height));
        const double cosine = std::cos(degrees * std::numbers::pi / 180);
        const double sine = std::sin(degrees * std::numbers::pi / 180);
        const double c = std::fabs(cosine);
        const double s = std::fabs(sine);
        const auto w = static_cast<double>(picture.width);
        const auto h = static_cast<double>(picture.height);
        const auto width = static_cast<double>(target.width);
        const auto height = static_cast<double>(target.height);
        // The picture's bounds inside the target, the target's inside the picture.
        const double scale =
            mode == Fit    ? std::min(width / (w * c + h * s), height / (w * s + h * c))
            : mode == Fill ? std::max((width * c + height * s) / w, (width * s + height * c) / h)
                           : 1.5;
        View view;
        view.SetFitMode(mode);
        if (mode == Free) {
            view.SetScale(1.5F);
        }
        view.SetRotation(static_cast<float>(degrees) * kPi / 180);
        view.SetTranslation(7, 5);
        const auto corners = view.Draw(picture, target);
        EXPECT_NEAR(view.GetEffectiveScale(), scale, 1e-5 * scale);
        const double singlePrecision = 1e-3 + 5e-7 * (w + h) * scale;
        for (std::size_t i = 0; i < 4; ++i) { // turned counter-clockwise, moved right and down
            const double x = (i == 1 || i == 2 ? w : -w) / 2 * scale;
            const double y = (i >= 2 ? h : -h) / 2 * scale;
            EXPECT_THAT(corners[i], IsNear({width / 2 + x * cosine + y * sine + 7,
                                            height / 2 - x * sine + y * cosine + 5},
                                           singlePrecision))
                << "corner " << i;
        }
    };
    const Size sizes[] = {{640, 480}, {100, 700}, {333, 333}, {1920, 1080}};
    for (const auto mode : {Free, Fit, Fill}) {
        for (const Size& picture : sizes) {
            for (const Size& target : sizes) {
                for (int degrees = -360; degrees <= 360; degrees += 15) {
                    expect(mode, degrees, picture, target);
                }
            }
        }
    }
    for (long size = 1; size < 4000; size += 7) {
        View view;
        view.Draw({size, size + 3}, {size, size + 3});
        EXPECT_EQ(view.transform, AffineTransform()) << "exactly, at the same size";
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

TEST(D3ImageRendererTest, ParamsBufferHasItsLayout) {
    AffineTransform transform;
    for (std::size_t i = 0; i < 16; ++i) {
        transform.rows[i % 4][i / 4] = static_cast<float>(i + 1); // columns first
    }
    // 64 words: the transform, the integers, the other numbers, zeros.
    const auto expect = [&](const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                            const std::vector<std::uint32_t>& integers,
                            const std::vector<float>& floats) {
        const auto bytes = D3ImageRenderer::MakeParamsBuffer(transform, conversion);
        std::vector<std::uint32_t> expected;
        for (int i = 1; i <= 16; ++i) {
            expected.push_back(std::bit_cast<std::uint32_t>(static_cast<float>(i)));
        }
        std::ranges::copy(integers, std::back_inserter(expected));
        for (const float value : floats) {
            expected.push_back(std::bit_cast<std::uint32_t>(value));
        }
        expected.resize(64);
        ASSERT_EQ(bytes.size(), 256U);
        std::vector<std::uint32_t> words(64);
        std::memcpy(words.data(), bytes.data(), bytes.size());
        EXPECT_EQ(words, expected);
    };
    expect({}, {0, 0, 0, 0, 0}, {1.0F, 0.0F, 0.0F, 1000.0F, 1.0F});
    Proc::ColorAlphaConversionInfo info;
    info.source = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    info.target = {Conf::ColorPrimaries::BT709, Conf::TransferCharacteristics::sRGB};
    info.sourceAlpha = Proc::AlphaType::Premultiplied;
    info.targetAlpha = Proc::AlphaType::AlphaIsOne;
    info.raw = Proc::RawConversionParams{0.5F, 0.25F, 600.0F, 1.5F, 2.0F};
    for (const unsigned mode : {0U, 1U, 2U}) {
        info.mode = static_cast<Proc::LinearizationMode>(mode);
        expect(info, {0x910, 0x10d, 2, 1, std::min(mode, 1U)}, {2.0F, 0.5F, 0.25F, 600.0F, 1.5F});
    }
}

TEST(D3ImageRendererTest, PixelShaderBeginsWithItsConstants) {
    EXPECT_THAT(D3ImageRenderer::GetPixelShader(),
                testing::StartsWith("static const uint sRGB = 0x10d;\n"
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
                                    "static const uint AlphaTypePremultiplied = 0x2;\n"));
}

// What the compiler has to say; "failed" when it only fails.
std::string MessagesOf(const std::string& text, const char* entry, const std::string& target) {
    constexpr unsigned kFlags = D3DCOMPILE_ENABLE_STRICTNESS | D3DCOMPILE_OPTIMIZATION_LEVEL3;
    // Not imported, since this program also runs where there is no compiler.
    const auto compile = reinterpret_cast<decltype(&D3DCompile2)>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"d3dcompiler_47.dll"), "D3DCompile2")));
    CComPtr<ID3DBlob> code;
    CComPtr<ID3DBlob> errors;
    const HRESULT result = compile(text.data(), text.size(), nullptr, nullptr, nullptr, entry,
                                   target.c_str(), kFlags, 0, 0, nullptr, 0, &code, &errors);
    if (errors != nullptr) {
        return static_cast<const char*>(errors->GetBufferPointer());
    }
    return SUCCEEDED(result) ? "" : "failed";
}

TEST(ImageShaderTest, CompilesWithoutAWarning) {
    ASSERT_TRUE(DX::D3ShaderBytecode::IsCompilerLoaded());
    for (const std::string model : {"4_0", "5_0"}) {
        EXPECT_EQ(MessagesOf(D3ImageRenderer::GetVertexShader(), "VSMain", "vs_" + model), "");
        EXPECT_EQ(MessagesOf(D3ImageRenderer::GetPixelShader(), "PSMain", "ps_" + model), "");
    }
}

} // namespace
