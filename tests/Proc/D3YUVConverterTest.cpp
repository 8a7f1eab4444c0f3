// The converters of both generations against the formulas in double precision. No driver here has
// planar textures, so the planes are separate textures; where one planar texture is the point,
// methods of a real texture and of its device are interposed, so that it answers as one.

#include <cmath>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::YCbCrMatrix;
using Proc::AlphaType;
using Size = DX::Size2DT<unsigned>;

constexpr auto kSourceFormat = DXGI_FORMAT_R16G16B16A16_UNORM;
constexpr auto kReadable = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;
constexpr auto kCommon = D3D12_RESOURCE_STATE_COMMON;
constexpr auto kCopied = D3D12_RESOURCE_STATE_COPY_SOURCE;

struct Format {
    DXGI_FORMAT planar;
    unsigned bits;
    DXGI_FORMAT luma, chroma;
    double bound; // of the codes
};

constexpr Format kFormats[] = {
    {DXGI_FORMAT_NV12, 8, DXGI_FORMAT_R8_UNORM, DXGI_FORMAT_R8G8_UNORM, 1.0},
    {DXGI_FORMAT_P010, 10, DXGI_FORMAT_R16_UNORM, DXGI_FORMAT_R16G16_UNORM, 1.0},
    {DXGI_FORMAT_P016, 16, DXGI_FORMAT_R16_UNORM, DXGI_FORMAT_R16G16_UNORM, 8.0},
};

// Samples from 0 to 1: Y' in the first channel; C'b and C'r in the first two.
struct Planes {
    Pixels luma, chroma;
};

// The largest code of the depth. The converter divides codes by one more than that.
double MaxCode(unsigned bits) {
    return std::pow(2.0, bits) - 1.0;
}

// ITU-R BT.601-7, BT.709-6, BT.2020-2: Y' from Kr and Kb, the differences scaled, narrow range.
Color ReferenceSample(const Color& color, AlphaType alpha, YCbCrMatrix matrix) {
    const auto [kr, kb] = matrix == YCbCrMatrix::BT601   ? std::pair(0.299, 0.114)
                          : matrix == YCbCrMatrix::BT709 ? std::pair(0.2126, 0.0722)
                                                         : std::pair(0.2627, 0.0593);
    const double opacity = alpha == AlphaType::NonPremultiplied ? color[3] : 1.0;
    const double r = color[0] * opacity;
    const double b = color[2] * opacity;
    const double y = kr * r + (1.0 - kr - kb) * color[1] * opacity + kb * b;
    const auto chroma = [](double difference) {
        return std::clamp(224.0 * difference + 128.0, 16.0, 240.0) / 256.0;
    };
    return {std::clamp(219.0 * y + 16.0, 16.0, 235.0) / 256.0, chroma((b - y) / (2.0 * (1.0 - kb))),
            chroma((r - y) / (2.0 * (1.0 - kr)))};
}

Planes Reference(const Pixels& pixels, const Size& chromaSize, AlphaType alpha,
                 YCbCrMatrix matrix) {
    const auto at = [&](unsigned x, unsigned y) {
        return ReferenceSample(
            pixels.At(std::min(x, pixels.width - 1), std::min(y, pixels.height - 1)), alpha,
            matrix);
    };
    const auto mean = [&](unsigned x, unsigned y) {
        Color sum = {};
        for (const auto& c : {at(x, y), at(x + 1, y), at(x, y + 1), at(x + 1, y + 1)}) {
            sum[0] += c[1] / 4.0;
            sum[1] += c[2] / 4.0;
        }
        return sum;
    };
    return {MakePixels(pixels.width, pixels.height, at),
            MakePixels(chromaSize.width, chromaSize.height,
                       [&](unsigned x, unsigned y) { return mean(2 * x, 2 * y); })};
}

// The first sample that is off by more than the format's bound, in codes.
std::string DescribeDifference(const Planes& drawn, const Planes& expected, const Format& format) {
    const double unit = MaxCode(format.bits);
    const auto compare = [&](const Pixels& actual, const Pixels& reference, std::size_t channels) {
        for (std::size_t i = 0; i < reference.colors.size(); ++i) {
            for (std::size_t channel = 0; channel < channels; ++channel) {
                const double is = actual.colors.at(i)[channel] * unit;
                const double should = reference.colors[i][channel] * unit;
                if (!(std::fabs(is - std::round(should)) <= format.bound)) {
                    return fmt::format(
                        "{} channels, channel {} at ({}, {}): {:.3f} instead of {:.3f}", channels,
                        channel, i % reference.width, i / reference.width, is, should);
                }
            }
        }
        return std::string();
    };
    return compare(drawn.luma, expected.luma, 1) + compare(drawn.chroma, expected.chroma, 2);
}

struct Bench11 {
    explicit Bench11(AlphaType type = AlphaType::NonPremultiplied) : alpha(type) {}

    using Texture = CComPtr<ID3D11Texture2D>;

    Texture MakeSource(const Pixels& pixels, DXGI_FORMAT format) {
        return canvas.MakeSource(pixels, format)->GetTexture();
    }
    Texture MakeTarget(const Size& size, DXGI_FORMAT format) {
        return canvas.MakeTarget(size.width, size.height, format)->GetTexture();
    }
    Pixels Read(const Texture& texture) { return canvas.Read(texture); }

    template <class... Arguments>
    void Encode(const Arguments&... arguments) {
        canvas.GetDevice()->Encode(
            [&](const auto& context) { converter->Encode(context, arguments...); });
    }

    // During the call the texture, whose own memory is the luma plane, answers as planar.
    template <class Call>
    void AsPlanar(const Texture& planar, const Texture& chroma, const Format& format,
                  const Call& call) {
        const MethodPatch<10, void(ID3D11Texture2D*, D3D11_TEXTURE2D_DESC*)> describe(
            planar, [&](auto original, ID3D11Texture2D* self, D3D11_TEXTURE2D_DESC* desc) {
                original(self, desc);
                desc->Format = self == planar.p ? format.planar : desc->Format;
            });
        using View = D3D11_RENDER_TARGET_VIEW_DESC;
        const MethodPatch<&ID3D11Device::CreateRenderTargetView> makeView(
            canvas.GetDevice()->Get(),
            [&](auto original, ID3D11Device* self, ID3D11Resource* resource, const View* view,
                ID3D11RenderTargetView** out) {
                const bool isChroma = resource == planar.p && view->Format == format.chroma;
                return original(self, isChroma ? chroma.p : resource, view, out);
            });
        call();
    }

    static constexpr auto kKind = "DirectX 11 exception";

    AlphaType alpha;
    Canvas11 canvas;
    boost::intrusive_ptr<DX::D11YUVConverter> converter{
        new DX::D11YUVConverter(canvas.GetDevice(), alpha)};
};

struct Bench12 {
    explicit Bench12(AlphaType type = AlphaType::NonPremultiplied) : alpha(type) {}

    using Texture = CComPtr<ID3D12Resource>;

    Texture MakeSource(const Pixels& pixels, DXGI_FORMAT format) {
        return canvas.MakeTexture(pixels, format);
    }
    Texture MakeTarget(const Size& size, DXGI_FORMAT format) {
        return canvas.MakeTarget(size.width, size.height, format)->GetFirstResource();
    }
    Pixels Read(const Texture& texture) {
        return canvas.Read(canvas.GetDevice()->CreateRenderTargetView(texture));
    }

    void Encode(const Texture& source, const Texture& planar, YCbCrMatrix matrix) {
        Submit(source, planar, matrix, std::array{kStaysReadable, kStaysTarget});
    }
    void Encode(const Texture& source, const Texture& luma, const Texture& chroma,
                DXGI_FORMAT format, YCbCrMatrix matrix) {
        Submit(source, luma, chroma, format, matrix,
               std::array{kStaysReadable, kStaysTarget, kStaysTarget});
    }
    // A call that throws leaves nothing to execute.
    template <class... Arguments>
    void Submit(const Arguments&... arguments) {
        const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
        try {
            converter->Encode(allocator, arguments...);
        } catch (...) {
            EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }),
                      "There are no command lists to execute");
            throw;
        }
        allocator->Execute();
        allocator->WaitComplete();
    }

    template <class Call>
    void AsPlanar(const Texture& planar, const Texture& chroma, const Format& format,
                  const Call& call) {
        const MethodPatch<&ID3D12Resource::GetDesc> describe(
            planar, [&](auto original, ID3D12Resource* self, D3D12_RESOURCE_DESC* desc) {
                original(self, desc);
                desc->Format = self == planar.p ? format.planar : desc->Format;
                return desc;
            });
        using View = D3D12_RENDER_TARGET_VIEW_DESC;
        const MethodPatch<&ID3D12Device::CreateRenderTargetView> makeView(
            canvas.GetDevice()->Get(),
            [&](auto original, ID3D12Device* self, ID3D12Resource* resource, const View* view,
                D3D12_CPU_DESCRIPTOR_HANDLE handle) {
                View plane = view != nullptr ? *view : View{};
                const bool isChroma = resource == planar.p && plane.Texture2D.PlaneSlice == 1;
                plane.Texture2D.PlaneSlice = 0;
                original(self, isChroma ? chroma.p : resource, view != nullptr ? &plane : nullptr,
                         handle);
            });
        call();
    }

    static constexpr auto kKind = "DirectX 12 exception";
    static constexpr DX::D12ResourceStates kStaysReadable = {kReadable, kReadable};
    static constexpr DX::D12ResourceStates kStaysTarget = {kTarget, kTarget};

    AlphaType alpha;
    Canvas canvas;
    boost::intrusive_ptr<DX::D12YUVConverter> converter{
        new DX::D12YUVConverter(canvas.GetDevice(), alpha)};
};

template <class Bench>
Planes Convert(Bench& bench, const Pixels& pixels, const Format& format, const Size& chromaSize,
               YCbCrMatrix matrix, DXGI_FORMAT sourceFormat = kSourceFormat) {
    const auto luma = bench.MakeTarget({pixels.width, pixels.height}, format.luma);
    const auto chroma = bench.MakeTarget(chromaSize, format.chroma);
    bench.Encode(bench.MakeSource(pixels, sourceFormat), luma, chroma, format.planar, matrix);
    return {bench.Read(luma), bench.Read(chroma)};
}

Pixels MakeNoise(const Size& size) {
    std::mt19937 random(size.width * 1000 + size.height);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    const auto noise = [&](unsigned, unsigned) {
        return Color{uniform(random), uniform(random), uniform(random), uniform(random)};
    };
    return Quantize(MakePixels(size.width, size.height, noise), kSourceFormat);
}

template <class Bench>
class D3YUVConverterTest : public testing::Test {};

struct GenerationName {
    template <class Bench>
    static std::string GetName(int) {
        return std::is_same_v<Bench, Bench11> ? "Direct3D11" : "Direct3D12";
    }
};

using Benches = testing::Types<Bench11, Bench12>;
TYPED_TEST_SUITE(D3YUVConverterTest, Benches, GenerationName);

TYPED_TEST(D3YUVConverterTest, EveryFormatMatrixAndAlphaTypeAgreesWithTheReference) {
    for (const auto alpha :
         {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne, AlphaType::Premultiplied}) {
        TypeParam bench(alpha);
        for (const Size& size : {Size{2, 2}, Size{6, 4}, Size{257, 129}}) {
            const Pixels noise = MakeNoise(size);
            // Both ways of halving an odd size.
            for (const unsigned up : {0U, 1U}) {
                const Size half = {(size.width + up) / 2, (size.height + up) / 2};
                for (const Format& format : kFormats) {
                    for (const auto matrix :
                         {YCbCrMatrix::BT601, YCbCrMatrix::BT709, YCbCrMatrix::BT2020NonConstant}) {
                        EXPECT_EQ(DescribeDifference(Convert(bench, noise, format, half, matrix),
                                                     Reference(noise, half, alpha, matrix), format),
                                  "")
                            << size.width << " x " << size.height << ", " << format.bits
                            << " bits, matrix " << static_cast<int>(matrix) << ", alpha "
                            << static_cast<int>(alpha);
                    }
                }
            }
        }
    }
}

// Waves instead of noise: at this width single-precision texture coordinates give a neighbour up to
// 1/5000 of a sample, which 16 bits show where neighbours are as far apart as can be.
TYPED_TEST(D3YUVConverterTest, AFullHDFrameAgreesWithTheReference) {
    TypeParam bench;
    const auto wave = [](double phase) { return 0.5 + 0.5 * std::sin(phase); };
    const Pixels waves =
        Quantize(MakePixels(1920, 1080,
                            [&](unsigned x, unsigned y) {
                                return Color{wave(x / 11.0), wave(y / 13.0), wave((x + y) / 17.0),
                                             wave((x + 2.0 * y) / 19.0)};
                            }),
                 kSourceFormat);
    const Planes reference = Reference(waves, {960, 540}, bench.alpha, YCbCrMatrix::BT709);
    for (const Format& format : kFormats) {
        EXPECT_EQ(DescribeDifference(Convert(bench, waves, format, {960, 540}, YCbCrMatrix::BT709),
                                     reference, format),
                  "")
            << format.bits;
    }
}

// What filters and scRGB leave in 16-bit floats is cut to the narrow range.
TYPED_TEST(D3YUVConverterTest, ColorsBeyondTheRangeAreClamped) {
    TypeParam bench;
    constexpr Color kColors[] = {{2, 2, 2, 1},   {-1, -1, -1, 1}, {4, -1, -1, 1}, {-1, 4, -1, 1},
                                 {-1, -1, 4, 1}, {4, 4, -1, 1},   {-1, 4, 4, 1},  {1.5, 0, 1.5, 1}};
    const Pixels wide = MakePixels(16, 2, [&](unsigned x, unsigned) { return kColors[x / 2]; });
    for (const Format& format : kFormats) {
        EXPECT_EQ(DescribeDifference(Convert(bench, wide, format, {8, 1}, YCbCrMatrix::BT709,
                                             DXGI_FORMAT_R16G16B16A16_FLOAT),
                                     Reference(wide, {8, 1}, bench.alpha, YCbCrMatrix::BT709),
                                     format),
                  "")
            << format.bits;
    }
}

TYPED_TEST(D3YUVConverterTest, ColorsGiveTheirPublishedCodes) {
    const struct {
        Color color;
        YCbCrMatrix matrix;
        std::array<double, 3> codes; // at 10 bits
    } cases[] = {
        {{0.25, 0.5, 0.75, 1}, YCbCrMatrix::BT601, {461, 662, 382}},
        {{1, 1, 1, 1}, YCbCrMatrix::BT709, {940, 512, 512}},
        {{0, 0, 0, 1}, YCbCrMatrix::BT709, {64, 512, 512}},
        {{1, 0, 0, 1}, YCbCrMatrix::BT709, {250, 409, 960}},
        {{0, 1, 0, 1}, YCbCrMatrix::BT2020NonConstant, {658, 189, 100}},
        {{0, 0, 1, 1}, YCbCrMatrix::BT601, {164, 960, 439}},
    };
    TypeParam bench;
    for (const auto& [color, matrix, codes] : cases) {
        const auto [luma, chroma] =
            Convert(bench, MakePixels(2, 2, [&c = color](unsigned, unsigned) { return c; }),
                    kFormats[1], {1, 1}, matrix);
        EXPECT_THAT((std::array{1024 * luma.At(0, 0)[0], 1024 * chroma.At(0, 0)[0],
                                1024 * chroma.At(0, 0)[1]}),
                    testing::Pointwise(testing::DoubleNear(0.55), codes));
    }
}

TYPED_TEST(D3YUVConverterTest, PlanarTexturesAreDrawnPlaneByPlane) {
    TypeParam bench;
    const Pixels noise = MakeNoise({64, 36});
    const Planes reference = Reference(noise, {32, 18}, bench.alpha, YCbCrMatrix::BT709);
    for (const Format& format : kFormats) {
        const auto source = bench.MakeSource(noise, kSourceFormat);
        const auto planar = bench.MakeTarget({64, 36}, format.luma);
        const auto chroma = bench.MakeTarget({32, 18}, format.chroma);
        bench.AsPlanar(planar, chroma, format,
                       [&] { bench.Encode(source, planar, YCbCrMatrix::BT709); });
        EXPECT_EQ(DescribeDifference({bench.Read(planar), bench.Read(chroma)}, reference, format),
                  "")
            << format.bits;
    }
}

TYPED_TEST(D3YUVConverterTest, WrongTexturesAreRefused) {
    TypeParam bench;
    using Texture = typename TypeParam::Texture;
    const Texture none;
    const Texture source = bench.MakeSource(MakeNoise({8, 8}), kSourceFormat);
    const Texture rgba = bench.MakeTarget({8, 8}, DXGI_FORMAT_R8G8B8A8_UNORM);
    const Texture luma = bench.MakeTarget({8, 8}, DXGI_FORMAT_R8_UNORM);
    const Texture luma16 = bench.MakeTarget({8, 8}, DXGI_FORMAT_R16_UNORM);
    const Texture chroma = bench.MakeTarget({4, 4}, DXGI_FORMAT_R8G8_UNORM);
    const Texture full = bench.MakeTarget({8, 8}, DXGI_FORMAT_R8G8_UNORM);
    const Texture low = bench.MakeTarget({4, 3}, DXGI_FORMAT_R8G8_UNORM);
    constexpr auto kFormat = "Unsupported pixel format";
    constexpr auto kHalf = "The chroma plane is expected to have half the size of the luma plane";
    constexpr auto kMatrix = YCbCrMatrix::BT709;
    const auto expect = [&](const char* sentence, const auto&... arguments) {
        ExpectFailureOf(
            TypeParam::kKind, [&] { bench.Encode(arguments...); }, sentence, "Encode", E_FAIL);
    };
    expect(kFormat, source, rgba, kMatrix);
    expect(kFormat, source, none, kMatrix);
    expect("There is no source texture", none, luma, chroma, DXGI_FORMAT_NV12, kMatrix);
    const struct {
        Texture luma, chroma;
        DXGI_FORMAT format;
        const char* sentence;
    } cases[] = {
        {rgba, chroma, DXGI_FORMAT_NV12, kFormat}, {luma, rgba, DXGI_FORMAT_NV12, kFormat},
        {chroma, luma, DXGI_FORMAT_NV12, kFormat}, {luma16, chroma, DXGI_FORMAT_NV12, kFormat},
        {luma, chroma, DXGI_FORMAT_P010, kFormat}, {luma, chroma, DXGI_FORMAT_R8_UNORM, kFormat},
        {none, chroma, DXGI_FORMAT_NV12, kFormat}, {luma, none, DXGI_FORMAT_NV12, kFormat},
        {luma, full, DXGI_FORMAT_NV12, kHalf},     {luma, low, DXGI_FORMAT_NV12, kHalf},
    };
    for (const auto& c : cases) {
        expect(c.sentence, source, c.luma, c.chroma, c.format, kMatrix);
    }
}

TEST(D11YUVConverterTest, LeavesNothingBoundThatItDrawsTo) {
    Bench11 bench;
    Convert(bench, MakeNoise({16, 8}), kFormats[0], {8, 4}, YCbCrMatrix::BT709);
    CComPtr<ID3D11ShaderResourceView> bound;
    GetImmediateContext(bench.canvas.GetDevice()->Get())->PSGetShaderResources(0, 1, &bound);
    EXPECT_EQ(bound.p, nullptr);
}

TEST(D12YUVConverterTest, KeepsItsSetUp) {
    Bench12 bench;
    int resources = 0;
    const Pixels noise = MakeNoise({16, 8});
    const auto source = bench.MakeSource(noise, kSourceFormat);
    const auto luma = bench.MakeTarget({16, 8}, DXGI_FORMAT_R8_UNORM);
    const auto chroma = bench.MakeTarget({8, 4}, DXGI_FORMAT_R8G8_UNORM);
    const MethodPatch<&ID3D12Device::CreateCommittedResource> count(
        bench.canvas.GetDevice()->Get(), [&](auto original, auto... arguments) {
            ++resources;
            return original(arguments...);
        });
    const auto encode = [&](YCbCrMatrix matrix) {
        resources = 0;
        bench.Encode(source, luma, chroma, DXGI_FORMAT_NV12, matrix);
        return resources;
    };
    EXPECT_GE(encode(YCbCrMatrix::BT709), 2) << "parameters and the intermediate texture";
    EXPECT_EQ(encode(YCbCrMatrix::BT709), 0);
    EXPECT_GE(encode(YCbCrMatrix::BT601), 2) << "another matrix";
}

// Each as text.
using Transitions = std::vector<std::string>;

TEST(D12YUVConverterTest, RecordsOnlyTheTransitionsThatAreDue) {
    Bench12 bench;
    const auto source = bench.MakeSource(MakeNoise({16, 8}), kSourceFormat);
    const auto luma = bench.MakeTarget({16, 8}, DXGI_FORMAT_R8_UNORM);
    const auto chroma = bench.MakeTarget({8, 4}, DXGI_FORMAT_R8G8_UNORM);
    const auto probe = bench.canvas.GetQueue()->CreateCommandAllocator();
    const auto probeList = probe->CreateCommandList(nullptr);
    Transitions transitions;
    const MethodPatch<&ID3D12GraphicsCommandList::ResourceBarrier> record(
        probeList->GetGraphics(),
        [&](auto original, auto* self, UINT number, const D3D12_RESOURCE_BARRIER* barriers) {
            for (UINT i = 0; i < number; ++i) {
                const auto& [resource, subresource, before, after] = barriers[i].Transition;
                const char* name = resource == source.p   ? "source"
                                   : resource == luma.p   ? "luma"
                                   : resource == chroma.p ? "chroma"
                                                          : "";
                transitions.push_back(fmt::format("{} {} to {}", name, static_cast<int>(before),
                                                  static_cast<int>(after)));
            }
            original(self, number, barriers);
        });
    const Transitions own = {" 0 to 4", " 4 to 128", " 128 to 0"}; // the intermediate texture
    const auto with = [&own](Transitions more) {
        more.insert(more.end(), own.begin(), own.end());
        return testing::UnorderedElementsAreArray(more);
    };
    const auto matrix = YCbCrMatrix::BT709;
    bench.Encode(source, luma, chroma, DXGI_FORMAT_NV12, matrix);
    EXPECT_THAT(transitions, testing::ElementsAreArray(own));

    using States = DX::D12ResourceStates;
    transitions.clear();
    bench.Submit(
        source, luma, chroma, DXGI_FORMAT_NV12, matrix,
        std::array{States{kReadable, kCommon}, States{kTarget, kCopied}, States{kTarget, kCommon}});
    EXPECT_THAT(transitions, with({"source 128 to 0", "luma 4 to 2048", "chroma 4 to 0"}));

    transitions.clear();
    bench.Submit(
        source, luma, chroma, DXGI_FORMAT_NV12, matrix,
        std::array{States{kCommon, kReadable}, States{kCopied, kTarget}, States{kCommon, kTarget}});
    EXPECT_THAT(transitions, with({"source 0 to 128", "luma 2048 to 4", "chroma 0 to 4"}));

    transitions.clear();
    bench.AsPlanar(luma, chroma, kFormats[0], [&] {
        bench.Submit(source, luma, matrix,
                     std::array{States{kReadable, kCommon}, States{kTarget, kCopied}});
        bench.Submit(source, luma, matrix,
                     std::array{States{kCommon, kReadable}, States{kCopied, kTarget}});
    });
    EXPECT_THAT(transitions, testing::IsSupersetOf({"source 128 to 0", "luma 4 to 2048",
                                                    "source 0 to 128", "luma 2048 to 4"}));
    EXPECT_EQ(transitions.size(), 2 * own.size() + 4);
    probeList->Close();
}

} // namespace

} // namespace Norvex::Test
