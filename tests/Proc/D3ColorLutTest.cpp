// Look-up tables of colours: what a .cube file may say, and what drawers make of a table, against a
// reference in double precision that walks from corner to corner.

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <random>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using DX::D3ColorLut;

constexpr auto kFloats = DXGI_FORMAT_R32G32B32A32_FLOAT;

// A file whose rows are noise.
std::string WriteNoise(unsigned dimensions, unsigned size, const std::string& domain) {
    std::mt19937 random(size);
    std::uniform_real_distribution<double> any(-0.5, 1.5);
    std::string text = fmt::format("TITLE \"noise\"\r\n\n # a comment\nLUT_{}D_SIZE {}\n{}",
                                   dimensions, size, domain);
    for (double i = 0; i < std::pow(size, dimensions); ++i) {
        text += fmt::format("{:.6f}\t{:e}  {}\n", any(random), any(random), any(random));
    }
    return text;
}

double EntryOf(const D3ColorLut& lut, const std::array<unsigned, 3>& at, unsigned channel) {
    const unsigned index =
        lut.dimensions == 1 ? at.at(channel) : (at[2] * lut.size + at[1]) * lut.size + at[0];
    return double{lut.entries.at(index).at(channel)};
}

Color LookUp(const D3ColorLut& lut, const Color& color) {
    std::array<unsigned, 3> at = {};
    std::array<double, 3> way = {};
    for (unsigned i = 0; i < 3; ++i) {
        const double least = lut.domainMin.at(i);
        const double inside = (color.at(i) - least) / (lut.domainMax.at(i) - least);
        const double place = std::clamp(inside, 0.0, 1.0) * (lut.size - 1);
        at.at(i) = std::min(static_cast<unsigned>(place), lut.size - 2);
        way.at(i) = place - at.at(i);
    }
    std::array<unsigned, 3> axes = {0, 1, 2};
    std::ranges::stable_sort(axes, std::greater(), [&](unsigned axis) { return way.at(axis); });
    Color result = {0, 0, 0, color[3]};
    for (unsigned channel = 0; channel < 3; ++channel) {
        auto corner = at;
        result.at(channel) = EntryOf(lut, at, channel);
        for (const unsigned axis : axes) {
            const double before = EntryOf(lut, corner, channel);
            ++corner.at(axis);
            result.at(channel) += (EntryOf(lut, corner, channel) - before) * way.at(axis);
        }
    }
    return result;
}

TEST(D3ColorLutTest, FilesAreReadOrRefusedWithTheLine) {
    const auto lut = D3ColorLut::FromCube(
        "\xEF\xBB\xBFLUT_1D_SIZE 2 # two\r\nDOMAIN_MAX 2 1 4\rDOMAIN_MIN -1 0 0\n"
        "  0 1e-1 .25 # black\n\n# end\n1\t1 1");
    EXPECT_EQ(lut.dimensions, 1U);
    EXPECT_EQ(lut.domainMin, (D3ColorLut::Color{-1, 0, 0}));
    EXPECT_EQ(lut.domainMax, (D3ColorLut::Color{2, 1, 4}));
    EXPECT_EQ(lut.entries, (std::vector<D3ColorLut::Color>{{0, 0.1F, 0.25F}, {1, 1, 1}}));
    EXPECT_EQ(D3ColorLut::FromCube(WriteNoise(3, 33, "")).title, "noise");

    const std::pair<const char*, const char*> wrong[] = {
        {"", ": there is no size"},
        {"LUT_3D_SIZE 2\n0 0 0\n", ": 8 rows are expected, 1 are there"},
        {"0 0 0\n", ", line 1: a row without a size"},
        {"LUT_3D_SIZE 130\n", ", line 1: the size is not 2 to 129"},
        {"LUT_1D_SIZE 1\n", ", line 1: the size is not 2 to 65536"},
        {"LUT_3D_SIZE 2.5\n", ", line 1: the size is not 2 to 129"},
        {"\n\nLUT_3D_SIZE\n", ", line 3: the size is not 2 to 129"},
        {"LUT_1D_SIZE 2\nLUT_3D_SIZE 2\n", ", line 2: the size is given twice"},
        {"LUT_1D_SIZE 2\n1 2\n", ", line 2: three numbers are expected"},
        {"LUT_1D_SIZE 2\n1 2 3 4\n", ", line 2: three numbers are expected"},
        {"LUT_1D_SIZE 2\n1 2,5 3\n", ", line 2: three numbers are expected"},
        {"LUT_1D_SIZE 2\n1 nan 3\n", ", line 2: three numbers are expected"},
        {"LUT_1D_SIZE 2\n1 1e39 3\n", ", line 2: three numbers are expected"},
        {"LUT_1D_SIZE 2\n0 0 0\n1 1 1\n2 2 2\n", ", line 4: more rows than the size says"},
        {"DOMAIN_MIN 2 2 2\nLUT_1D_SIZE 2\n0 0 0\n", ", line 3: the domain is empty"},
        {"LUT_1D_SIZE 2\nDOMAIN_MAX 1 1e-40 1\n0 0 0\n", ", line 3: the domain is empty"},
        {"LUT_3D_INPUT_RANGE 1 0\nLUT_3D_SIZE 2\n0 0 0\n", ", line 3: the domain is empty"},
        {"LUT_3D_INPUT_RANGE 1\n", ", line 1: two numbers are expected"},
        {"TITLE noise\n", ", line 1: a title in quotes is expected"},
        {"LUT_4D_SIZE 2\n", ", line 1: unknown keyword LUT_4D_SIZE"},
        {"\x89PNG\r\n", ", line 1: three numbers are expected"}};
    for (const auto& [text, words] : wrong) {
        ExpectFailure([&] { D3ColorLut::FromCube(text); }, std::string("Wrong color LUT") + words,
                      "FromCube");
    }
    const std::pair<D3ColorLut, const char*> contradictions[] = {
        {{.dimensions = 2}, "A color LUT has one dimension or three"},
        {{.size = 1}, "The size of the color LUT is out of range"},
        {{.dimensions = 1, .size = 65537}, "The size of the color LUT is out of range"},
        {{.size = 2, .entries = {{}, {}}}, "The color LUT has too few or too many entries"},
        {{.dimensions = 1, .size = 2, .domainMax = {0, 1, 1}, .entries = {{}, {}}},
         "The domain of the color LUT is empty"},
        {{.dimensions = 1, .size = 2, .entries = {{}, {0, NAN, 0}}},
         "The color LUT has an entry that is not finite"}};
    for (const auto& [table, words] : contradictions) {
        EXPECT_EQ(SentenceOf([&] { table.Validate(); }), words);
    }
}

template <class AnyCanvas>
struct LutsOf;
template <>
struct LutsOf<Canvas> {
    using Lut = DX::D12ColorLut;
    static boost::intrusive_ptr<Lut> Make(const Canvas& canvas, const D3ColorLut& lut) {
        return boost::intrusive_ptr(new Lut(canvas.GetQueue(), lut));
    }
};
template <>
struct LutsOf<Canvas11> {
    using Lut = DX::D11ColorLut;
    static boost::intrusive_ptr<Lut> Make(const Canvas11& canvas, const D3ColorLut& lut) {
        return boost::intrusive_ptr(new Lut(canvas.GetDevice(), lut));
    }
};

template <class AnyCanvas>
class D3ColorLutDrawTest : public testing::Test {};
TYPED_TEST_SUITE(D3ColorLutDrawTest, BothCanvases, CanvasName);

TYPED_TEST(D3ColorLutDrawTest, ColorsGoThroughTables) {
    using Luts = LutsOf<TypeParam>;
    TypeParam canvas;
    std::mt19937 random(3);
    std::uniform_real_distribution<float> any(-0.25F, 1.25F);
    const Pixels noise = MakePixels(32, 16, [&](unsigned x, unsigned) {
        // With two channels alike, and on entries.
        const double first = x % 3 == 0 ? std::round(any(random) * 4.0F) / 4.0F : any(random);
        return Color{first, x % 4 == 0 ? first : double{any(random)}, any(random), 0.5};
    });
    typename TypeParam::Frame frame;
    frame.desc = DX::D3FrameDesc::MakeRGB({32, 16}, Proc::AlphaType::NonPremultiplied);
    const auto source = canvas.MakeSource(noise, kFloats);
    frame.textures[0] = canvas.TextureOf(source);
    const auto target = canvas.MakeTarget(32, 16, kFloats);
    const boost::intrusive_ptr draw(new typename TypeParam::FrameDraw(canvas.GetDevice()));
    const auto expect = [&](const auto& expected, double bound, const std::string& what) {
        canvas.Record([&](const auto& on) { draw->Encode(on, frame, target); });
        const Pixels drawn = canvas.Read(target);
        double largest = 0.0;
        for (std::size_t i = 0; i < drawn.colors.size(); ++i) {
            const Color wanted = expected(noise.colors[i]);
            for (std::size_t k = 0; k < wanted.size(); ++k) {
                largest = std::max(largest, std::fabs(drawn.colors[i].at(k) - wanted.at(k)));
            }
        }
        EXPECT_LE(largest, bound) << what;
        std::printf("  %s %-32s %.1e\n", TypeParam::kName, what.c_str(), largest);
    };
    const std::string domain = "DOMAIN_MIN -0.25 0 0.125\nDOMAIN_MAX 1.25 1 0.75\n";
    for (const auto& [dimensions, size] :
         {std::pair(1U, 2U), {1U, 9U}, {3U, 2U}, {3U, 5U}, {3U, 33U}}) {
        for (const auto& given : {std::string(), domain}) {
            const auto lut = D3ColorLut::FromCube(WriteNoise(dimensions, size, given));
            draw->SetColorLut(Luts::Make(canvas, lut));
            expect([&](const Color& color) { return LookUp(lut, color); }, 5e-6,
                   fmt::format("{}D, {} entries{}", dimensions, size,
                               given.empty() ? "" : ", own domain"));
        }
    }
    draw->SetColorLut(nullptr);
    expect([](const Color& color) { return color; }, 1e-6, "none");
    EXPECT_EQ(SentenceOf([&] { Luts::Make(canvas, {}); }),
              "The size of the color LUT is out of range");
}

} // namespace

} // namespace Norvex::Test
