// The converters of both generations against the formulas in double precision. No driver here has
// planar textures, so the planes are separate textures; where one planar texture is the point,
// methods of a real texture and of its device are interposed, so that it answers as one.

#include <algorithm>
#include <cmath>
#include <iterator>
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
#include "tests/support/YCbCrReference.h"

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
};

constexpr Format kFormats[] = {
    {DXGI_FORMAT_NV12, 8, DXGI_FORMAT_R8_UNORM, DXGI_FORMAT_R8G8_UNORM},
    {DXGI_FORMAT_P010, 10, DXGI_FORMAT_R16_UNORM, DXGI_FORMAT_R16G16_UNORM},
    {DXGI_FORMAT_P016, 16, DXGI_FORMAT_R16_UNORM, DXGI_FORMAT_R16G16_UNORM},
};

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

// The frame in each format, against the reference.
template <class Bench>
void ExpectReference(Bench& bench, const Pixels& pixels, const Size& half, YCbCrMatrix matrix,
                     bool isPlanar = false, DXGI_FORMAT sourceFormat = kSourceFormat) {
    const auto expected = ReferenceFrame(pixels, matrix, bench.alpha, half);
    for (const Format& format : kFormats) {
        const auto source = bench.MakeSource(pixels, sourceFormat);
        const auto luma = bench.MakeTarget({pixels.width, pixels.height}, format.luma);
        const auto chroma = bench.MakeTarget(half, format.chroma);
        if (isPlanar) {
            bench.AsPlanar(luma, chroma, format, [&] { bench.Encode(source, luma, matrix); });
        } else {
            bench.Encode(source, luma, chroma, format.planar, matrix);
        }
        auto frame = EncodePixels(bench.Read(luma), format.luma);
        std::ranges::copy(EncodePixels(bench.Read(chroma), format.chroma),
                          std::back_inserter(frame));
        EXPECT_EQ(DescribeDifference(frame, format.bits, expected), "")
            << pixels.width << " x " << pixels.height << ", " << format.bits << " bits, matrix "
            << static_cast<int>(matrix) << ", alpha " << static_cast<int>(bench.alpha);
    }
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
        for (const auto matrix :
             {YCbCrMatrix::BT601, YCbCrMatrix::BT709, YCbCrMatrix::BT2020NonConstant}) {
            for (const Size& size : {Size{2, 2}, Size{6, 4}, Size{257, 129}}) {
                for (const unsigned up : {0U, 1U}) { // both ways of halving an odd size
                    ExpectReference(bench, MakeNoise(size),
                                    {(size.width + up) / 2, (size.height + up) / 2}, matrix);
                }
            }
        }
        ExpectReference(bench, MakeNoise({64, 36}), {32, 18}, YCbCrMatrix::BT709, true);
    }
}

// Waves instead of noise: at this width single-precision texture coordinates give a neighbour up to
// 1/5000 of a sample, which 16 bits show where neighbours are as far apart as can be.
TYPED_TEST(D3YUVConverterTest, AFullHDFrameAgreesWithTheReference) {
    TypeParam bench;
    const auto wave = [](double phase) { return 0.5 + 0.5 * std::sin(phase); };
    const Pixels waves = MakePixels(1920, 1080, [&](unsigned x, unsigned y) {
        return Color{wave(x / 11.0), wave(y / 13.0), wave((x + y) / 17.0),
                     wave((x + 2.0 * y) / 19.0)};
    });
    ExpectReference(bench, Quantize(waves, kSourceFormat), {960, 540}, YCbCrMatrix::BT709);
}

// What filters and scRGB leave in 16-bit floats is cut to the narrow range.
TYPED_TEST(D3YUVConverterTest, ColorsBeyondTheRangeAreClamped) {
    TypeParam bench;
    constexpr Color kColors[] = {{2, 2, 2, 1},   {-1, -1, -1, 1}, {4, -1, -1, 1}, {-1, 4, -1, 1},
                                 {-1, -1, 4, 1}, {4, 4, -1, 1},   {-1, 4, 4, 1},  {1.5, 0, 1.5, 1}};
    ExpectReference(bench, MakePixels(16, 2, [&](unsigned x, unsigned) { return kColors[x / 2]; }),
                    {8, 1}, YCbCrMatrix::BT709, false, DXGI_FORMAT_R16G16B16A16_FLOAT);
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
    constexpr auto kNV12 = DXGI_FORMAT_NV12;
    const auto refuses = [&](const char* sentence, const auto&... arguments) {
        ExpectFailureOf(
            TypeParam::kKind, [&] { bench.Encode(arguments...); }, sentence, "Encode", E_FAIL);
    };
    refuses(kFormat, source, rgba, kMatrix);
    refuses(kFormat, source, none, kMatrix);
    refuses("There is no source texture", none, luma, chroma, kNV12, kMatrix);
    for (const auto& [first, second] : {std::pair(rgba, chroma),
                                        {luma, rgba},
                                        {chroma, luma},
                                        {luma16, chroma},
                                        {none, chroma},
                                        {luma, none}}) {
        refuses(kFormat, source, first, second, kNV12, kMatrix);
    }
    refuses(kFormat, source, luma, chroma, DXGI_FORMAT_P010, kMatrix);
    refuses(kFormat, source, luma, chroma, DXGI_FORMAT_R8_UNORM, kMatrix);
    refuses(kHalf, source, luma, full, kNV12, kMatrix);
    refuses(kHalf, source, luma, low, kNV12, kMatrix);
}

TEST(D11YUVConverterTest, LeavesNothingBoundThatItDrawsTo) {
    Bench11 bench;
    ExpectReference(bench, MakeNoise({16, 8}), {8, 4}, YCbCrMatrix::BT709);
    CComPtr<ID3D11ShaderResourceView> bound;
    GetImmediateContext(bench.canvas.GetDevice()->Get())->PSGetShaderResources(0, 1, &bound);
    EXPECT_EQ(bound.p, nullptr);
}

class D12YUVConverterTest : public testing::Test {
protected:
    using States = DX::D12ResourceStates;

    Bench12 m_bench;
    CComPtr<ID3D12Resource> m_source = m_bench.MakeSource(MakeNoise({16, 8}), kSourceFormat);
    CComPtr<ID3D12Resource> m_luma = m_bench.MakeTarget({16, 8}, DXGI_FORMAT_R8_UNORM);
    CComPtr<ID3D12Resource> m_chroma = m_bench.MakeTarget({8, 4}, DXGI_FORMAT_R8G8_UNORM);
};

TEST_F(D12YUVConverterTest, KeepsItsSetUp) {
    int resources = 0;
    const MethodPatch<&ID3D12Device::CreateCommittedResource> count(
        m_bench.canvas.GetDevice()->Get(), [&](auto original, auto... arguments) {
            ++resources;
            return original(arguments...);
        });
    const auto encode = [&](YCbCrMatrix matrix) {
        resources = 0;
        m_bench.Encode(m_source, m_luma, m_chroma, DXGI_FORMAT_NV12, matrix);
        return resources;
    };
    EXPECT_GE(encode(YCbCrMatrix::BT709), 2) << "parameters and the intermediate texture";
    EXPECT_EQ(encode(YCbCrMatrix::BT709), 0);
    EXPECT_GE(encode(YCbCrMatrix::BT601), 2) << "another matrix";
}

TEST_F(D12YUVConverterTest, RecordsOnlyTheTransitionsThatAreDue) {
    const auto probe = m_bench.canvas.GetQueue()->CreateCommandAllocator();
    const auto probeList = probe->CreateCommandList(nullptr);
    std::vector<std::string> transitions;
    const MethodPatch<&ID3D12GraphicsCommandList::ResourceBarrier> record(
        probeList->GetGraphics(),
        [&](auto original, auto* self, UINT number, const D3D12_RESOURCE_BARRIER* barriers) {
            for (UINT i = 0; i < number; ++i) {
                const auto& [resource, subresource, before, after] = barriers[i].Transition;
                const char* name = resource == m_source.p   ? "source"
                                   : resource == m_luma.p   ? "luma"
                                   : resource == m_chroma.p ? "chroma"
                                                            : "own";
                transitions.push_back(fmt::format("{} {} to {}", name, static_cast<int>(before),
                                                  static_cast<int>(after)));
            }
            original(self, number, barriers);
        });
    // The transitions of the intermediate texture, and more.
    const auto expect = [&](std::vector<std::string> expected) {
        expected.insert(expected.end(), {"own 0 to 4", "own 4 to 128", "own 128 to 0"});
        EXPECT_THAT(transitions, testing::UnorderedElementsAreArray(expected));
        transitions.clear();
    };
    const auto submit = [&](const auto&... states) {
        m_bench.Submit(m_source, m_luma, m_chroma, DXGI_FORMAT_NV12, YCbCrMatrix::BT709,
                       std::array{states...});
    };
    const auto submitPlanar = [&](const States& source, const States& planar) {
        m_bench.AsPlanar(m_luma, m_chroma, kFormats[0], [&] {
            m_bench.Submit(m_source, m_luma, YCbCrMatrix::BT709, std::array{source, planar});
        });
    };
    submit(Bench12::kStaysReadable, Bench12::kStaysTarget, Bench12::kStaysTarget);
    EXPECT_EQ(transitions.back(), "own 128 to 0");
    expect({});
    submit(States{kReadable, kCommon}, States{kTarget, kCopied}, States{kTarget, kCommon});
    expect({"source 128 to 0", "luma 4 to 2048", "chroma 4 to 0"});
    submit(States{kCommon, kReadable}, States{kCopied, kTarget}, States{kCommon, kTarget});
    expect({"source 0 to 128", "luma 2048 to 4", "chroma 0 to 4"});
    submitPlanar({kReadable, kCommon}, {kTarget, kCopied});
    expect({"source 128 to 0", "luma 4 to 2048"});
    submitPlanar({kCommon, kReadable}, {kCopied, kTarget});
    expect({"source 0 to 128", "luma 2048 to 4"});
    probeList->Close();
}

} // namespace

} // namespace Norvex::Test
