// The converters of both generations against the formulas in double precision. No driver here has
// planar textures, so the planes are separate textures; where one planar texture is the point,
// methods of a real texture and of its device are interposed, so that it answers as one.

#include <algorithm>
#include <iterator>
#include <random>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"
#include "tests/support/YCbCrReference.h"

namespace Norvex::Test {

namespace {

using Conf::YCbCrMatrix;
using Proc::AlphaType;
using Size = DX::Size2DT<unsigned>;
using States = DX::D12ResourceStates;

constexpr auto kSourceFormat = DXGI_FORMAT_R32G32B32A32_FLOAT;
constexpr auto kReadable = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;

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

// What a generation has of its own.
struct Generation11 {
    using Canvas = Canvas11;
    using Converter = DX::D11YUVConverter;
    using Texture = CComPtr<ID3D11Texture2D>;

    template <class View>
    static Texture TextureOf(const View& view) {
        return view->GetTexture();
    }
    template <class... Arguments>
    static void Encode(Converter& converter, const Arguments&... arguments) {
        converter.Encode(arguments...);
    }

    // During the call the texture, whose own memory is the luma plane, answers as planar.
    template <class Call>
    static void AsPlanar(const Canvas& canvas, const Texture& planar, const Texture& chroma,
                         const Format& format, const Call& call) {
        const MethodPatch<10, void(ID3D11Texture2D*, D3D11_TEXTURE2D_DESC*)> describe(
            planar, [&](auto original, auto* self, auto* desc) {
                original(self, desc);
                desc->Format = self == planar.p ? format.planar : desc->Format;
            });
        const MethodPatch<&ID3D11Device::CreateRenderTargetView> makeView(
            canvas.GetDevice()->Get(),
            [&](auto original, auto* self, auto* resource, const auto* view, auto** out) {
                const bool isChroma = resource == planar.p && view->Format == format.chroma;
                return original(self, isChroma ? chroma.p : resource, view, out);
            });
        call();
    }

    static constexpr auto kKind = "DirectX 11 exception";
};

struct Generation12 {
    using Canvas = Test::Canvas;
    using Converter = DX::D12YUVConverter;
    using Texture = CComPtr<ID3D12Resource>;

    template <class View>
    static Texture TextureOf(const View& view) {
        return view->GetFirstResource();
    }
    // A source and one or two planes, which stay in the states that they are used in.
    template <class... Arguments>
    static void Encode(Converter& converter, const Arguments&... arguments) {
        std::array<States, sizeof...(arguments) / 2> states;
        states.fill({kTarget, kTarget});
        states[0] = {kReadable, kReadable};
        converter.Encode(arguments..., states);
    }

    template <class Call>
    static void AsPlanar(const Canvas& canvas, const Texture& planar, const Texture& chroma,
                         const Format& format, const Call& call) {
        const MethodPatch<&ID3D12Resource::GetDesc> describe(
            planar, [&](auto original, auto* self, auto* desc) {
                original(self, desc);
                desc->Format = self == planar.p ? format.planar : desc->Format;
                return desc;
            });
        const MethodPatch<&ID3D12Device::CreateRenderTargetView> makeView(
            canvas.GetDevice()->Get(),
            [&](auto original, auto* self, auto* resource, const auto* view, auto handle) {
                D3D12_RENDER_TARGET_VIEW_DESC plane = {};
                plane = view != nullptr ? *view : plane;
                const bool isChroma = std::exchange(plane.Texture2D.PlaneSlice, 0U) == 1;
                original(self, isChroma ? chroma.p : resource, view != nullptr ? &plane : nullptr,
                         handle);
            });
        call();
    }

    static constexpr auto kKind = "DirectX 12 exception";
};

// Colours within the range and, as filters and scRGB leave them in floating point, beyond it.
Pixels MakeNoise(const Size& size) {
    std::mt19937 random(size.width * 1000 + size.height);
    std::uniform_real_distribution<float> color(-0.5F, 1.5F);
    std::uniform_real_distribution<float> alpha(0.0F, 1.0F);
    return MakePixels(size.width, size.height, [&](unsigned, unsigned) {
        return Color{color(random), color(random), color(random), alpha(random)};
    });
}

template <class Generation>
class D3YUVConverterTest : public testing::Test {
protected:
    using Texture = typename Generation::Texture;

    Texture MakeSource(const Pixels& pixels) {
        return Generation::TextureOf(m_canvas.MakeSource(pixels, kSourceFormat));
    }
    Texture MakeTarget(const Size& size, DXGI_FORMAT format) {
        return Generation::TextureOf(m_canvas.MakeTarget(size.width, size.height, format));
    }
    void SetAlpha(AlphaType alpha) {
        m_alpha = alpha;
        m_converter = new typename Generation::Converter(m_canvas.GetDevice(), alpha);
    }
    template <class... Arguments>
    void Encode(const Arguments&... arguments) {
        m_canvas.Record([&](const auto& recorder) {
            Generation::Encode(*m_converter, recorder, arguments...);
        });
    }

    // The frame in each format, against the reference.
    void ExpectReference(const Size& size, const Size& half, YCbCrMatrix matrix, bool isPlanar) {
        const Pixels pixels = MakeNoise(size);
        const auto expected = ReferenceFrame(pixels, matrix, m_alpha, half);
        const auto source = MakeSource(pixels);
        for (const Format& format : kFormats) {
            const auto luma = MakeTarget(size, format.luma);
            const auto chroma = MakeTarget(half, format.chroma);
            if (isPlanar) {
                Generation::AsPlanar(m_canvas, luma, chroma, format,
                                     [&] { Encode(source, luma, matrix); });
            } else {
                Encode(source, luma, chroma, format.planar, matrix);
            }
            auto frame = EncodePixels(m_canvas.Read(luma), format.luma);
            std::ranges::copy(EncodePixels(m_canvas.Read(chroma), format.chroma),
                              std::back_inserter(frame));
            EXPECT_EQ(DescribeDifference(frame, format.bits, expected), "")
                << size.width << " x " << size.height << ", " << format.bits << " bits, matrix "
                << static_cast<int>(matrix) << ", alpha " << static_cast<int>(m_alpha);
        }
    }

    typename Generation::Canvas m_canvas;
    AlphaType m_alpha = {};
    boost::intrusive_ptr<typename Generation::Converter> m_converter;
};

struct GenerationName {
    template <class Generation>
    static std::string GetName(int) {
        return std::is_same_v<Generation, Generation11> ? "Direct3D11" : "Direct3D12";
    }
};

using Generations = testing::Types<Generation11, Generation12>;
TYPED_TEST_SUITE(D3YUVConverterTest, Generations, GenerationName);

TYPED_TEST(D3YUVConverterTest, EveryFormatMatrixAndAlphaTypeAgreesWithTheReference) {
    for (const auto alpha :
         {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne, AlphaType::Premultiplied}) {
        this->SetAlpha(alpha);
        for (const auto matrix :
             {YCbCrMatrix::BT601, YCbCrMatrix::BT709, YCbCrMatrix::BT2020NonConstant}) {
            for (const auto& [w, h] : {Size{2, 2}, Size{6, 4}, Size{257, 129}}) {
                for (const unsigned up : {0U, 1U}) { // both ways of halving an odd size
                    this->ExpectReference({w, h}, {(w + up) / 2, (h + up) / 2}, matrix, false);
                }
            }
        }
        this->ExpectReference({64, 36}, {32, 18}, YCbCrMatrix::BT709, true);
    }
}

TYPED_TEST(D3YUVConverterTest, WrongTexturesAreRefused) {
    using Texture = typename TypeParam::Texture;
    this->SetAlpha({});
    const Texture none;
    const Texture source = this->MakeSource(MakeNoise({8, 8}));
    const Texture rgba = this->MakeTarget({8, 8}, DXGI_FORMAT_R8G8B8A8_UNORM);
    const Texture luma = this->MakeTarget({8, 8}, DXGI_FORMAT_R8_UNORM);
    const Texture chroma = this->MakeTarget({4, 4}, DXGI_FORMAT_R8G8_UNORM);
    constexpr auto kFormat = "Unsupported pixel format";
    constexpr auto kHalf = "The chroma plane is expected to have half the size of the luma plane";
    constexpr auto kMatrix = YCbCrMatrix::BT709;
    constexpr auto kNV12 = DXGI_FORMAT_NV12;
    const auto refuses = [&](const char* sentence, const auto&... arguments) {
        ExpectFailureOf(
            TypeParam::kKind, [&] { this->Encode(arguments...); }, sentence, "Encode", E_FAIL);
    };
    refuses(kFormat, source, rgba, kMatrix);
    refuses(kFormat, source, none, kMatrix);
    refuses("There is no source texture", none, luma, chroma, kNV12, kMatrix);
    refuses(kFormat, source, rgba, chroma, kNV12, kMatrix);
    refuses(kFormat, source, luma, rgba, kNV12, kMatrix);
    refuses(kFormat, source, none, none, kNV12, kMatrix);
    refuses(kFormat, source, luma, chroma, DXGI_FORMAT_P010, kMatrix);
    refuses(kFormat, source, luma, chroma, DXGI_FORMAT_R8_UNORM, kMatrix);
    for (const Size& size : {Size{8, 8}, Size{4, 3}}) {
        refuses(kHalf, source, luma, this->MakeTarget(size, DXGI_FORMAT_R8G8_UNORM), kNV12,
                kMatrix);
    }
}

// What is made is kept for the next frame, and every resource goes from its state before to its
// state after, the intermediate texture by two more.
TEST(D12YUVConverterTest, RecordsOnlyWhatIsDue) {
    Canvas canvas;
    const boost::intrusive_ptr converter(new DX::D12YUVConverter(canvas.GetDevice(), {}));
    const auto source = canvas.MakeTexture(MakeNoise({16, 8}), kSourceFormat);
    const auto luma = canvas.MakeTarget(16, 8, DXGI_FORMAT_R8_UNORM)->GetFirstResource();
    const auto chroma = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8G8_UNORM)->GetFirstResource();
    const auto probe = canvas.GetQueue()->CreateCommandAllocator();
    const auto list = probe->CreateCommandList(nullptr);
    list->Close();
    int made = 0;
    const MethodPatch<&ID3D12Device::CreateCommittedResource> count(
        canvas.GetDevice()->Get(), [&](auto original, auto... arguments) {
            ++made;
            return original(arguments...);
        });
    std::vector<std::string> transitions;
    const MethodPatch<&ID3D12GraphicsCommandList::ResourceBarrier> record(
        list->GetGraphics(), [&](auto original, auto* self, UINT number, const auto* barriers) {
            for (UINT i = 0; i < number; ++i) {
                const auto& [resource, subresource, before, after] = barriers[i].Transition;
                const char* name = resource == source.p   ? "source"
                                   : resource == luma.p   ? "luma"
                                   : resource == chroma.p ? "chroma"
                                                          : "own";
                transitions.push_back(fmt::format("{} {} to {}", name, static_cast<int>(before),
                                                  static_cast<int>(after)));
            }
            original(self, number, barriers);
        });
    const auto expect = [&](std::vector<std::string> due, const auto&... arguments) {
        transitions.clear();
        made = 0;
        canvas.Record([&](const auto& on) { converter->Encode(on, source, luma, arguments...); });
        due.insert(due.end(), {"own 0 to 4", "own 4 to 128", "own 128 to 0"});
        EXPECT_THAT(transitions, testing::UnorderedElementsAreArray(due));
    };
    constexpr auto kCommon = D3D12_RESOURCE_STATE_COMMON;
    constexpr auto kCopied = D3D12_RESOURCE_STATE_COPY_SOURCE;
    constexpr auto kMatrix = YCbCrMatrix::BT709;
    Generation12::AsPlanar(canvas, luma, chroma, kFormats[0], [&] {
        expect({"source 128 to 0", "luma 4 to 2048"}, kMatrix,
               std::array{States{kReadable, kCommon}, States{kTarget, kCopied}});
    });
    EXPECT_GE(made, 2) << "parameters and the intermediate texture";
    expect(
        {"source 0 to 128", "luma 2048 to 4", "chroma 4 to 0"}, chroma, kFormats[0].planar, kMatrix,
        std::array{States{kCommon, kReadable}, States{kCopied, kTarget}, States{kTarget, kCommon}});
    EXPECT_EQ(made, 0) << "kept for the same format, sizes and matrix";
}

} // namespace

} // namespace Norvex::Test
