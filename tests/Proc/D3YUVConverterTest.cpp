// The converters of both generations against the formulas in double precision. No driver here has
// planar textures, so the planes are separate textures; where one planar texture is the point,
// methods of a real texture and of its device are interposed, so that it answers as one.

#include <algorithm>
#include <map>
#include <random>
#include <span>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "apps/norvexdx/reference/YCbCrReference.h"
#include "tests/support/Canvas11.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::YCbCrMatrix;
using Proc::AlphaType;
using Size = DX::Size2DT<unsigned>;

constexpr auto kSourceFormat = DXGI_FORMAT_R32G32B32A32_FLOAT;

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

// During the call the texture, whose own memory is the luma plane, answers as planar.
void AsPlanar(const Canvas11& canvas, ID3D11Texture2D* planar, ID3D11Texture2D* chroma,
              const Format& format, const std::function<void()>& call) {
    const MethodPatch<&ID3D11Texture2D::GetDesc> describe(
        planar, [&](auto original, auto* self, auto* desc) {
            original(self, desc);
            desc->Format = self == planar ? format.planar : desc->Format;
        });
    const MethodPatch<&ID3D11Device::CreateRenderTargetView> makeView(
        canvas.GetDevice()->Get(),
        [&](auto original, auto* self, auto* resource, const auto* view, auto** out) {
            const bool isChroma = resource == planar && view->Format == format.chroma;
            return original(self, isChroma ? chroma : resource, view, out);
        });
    call();
}
void AsPlanar(const Canvas& canvas, ID3D12Resource* planar, ID3D12Resource* chroma,
              const Format& format, const std::function<void()>& call) {
    const MethodPatch<&ID3D12Resource::GetDesc> describe(
        planar, [&](auto original, auto* self, auto* desc) {
            original(self, desc);
            desc->Format = self == planar ? format.planar : desc->Format;
            return desc;
        });
    const MethodPatch<&ID3D12Device::CreateRenderTargetView> makeView(
        canvas.GetDevice()->Get(),
        [&](auto original, auto* self, auto* resource, const auto* view, auto handle) {
            auto plane = view != nullptr ? *view : D3D12_RENDER_TARGET_VIEW_DESC{};
            const bool isChroma = std::exchange(plane.Texture2D.PlaneSlice, 0U) == 1;
            original(self, isChroma ? chroma : resource, view != nullptr ? &plane : nullptr,
                     handle);
        });
    call();
}

// Colours within the range and, as filters and scRGB leave them in floating point, beyond it.
Pixels MakeNoise(const Size& size) {
    std::mt19937 random(size.width * 1000 + size.height);
    std::uniform_real_distribution<float> color(-0.5F, 1.5F);
    std::uniform_real_distribution<float> alpha(0.0F, 1.0F);
    return MakePixels(size.width, size.height, [&](unsigned, unsigned) {
        return Color{color(random), color(random), color(random), alpha(random)};
    });
}

template <class AnyCanvas>
class D3YUVConverterTest : public testing::Test {
protected:
    using Texture = typename AnyCanvas::Texture;

    Texture MakeSource(const Size& size) {
        return m_canvas.TextureOf(m_canvas.MakeSource(MakeNoise(size), kSourceFormat));
    }
    auto MakeTarget(const Size& size, DXGI_FORMAT format) {
        return m_canvas.MakeTarget(size.width, size.height, format);
    }
    template <class... Arguments>
    void Encode(const Arguments&... arguments) {
        m_canvas.Record(
            [&](const auto& on) { AnyCanvas::Convert(*m_converter, on, arguments...); });
    }

    // The frame in each format, against the reference.
    void ExpectReference(const Size& size, const Size& half, YCbCrMatrix matrix, AlphaType alpha,
                         bool isPlanar) {
        const auto expected =
            Reference::ReferenceFrame(MakeNoise(size).colors, size, matrix, alpha, half);
        const auto source = MakeSource(size);
        for (const Format& format : kFormats) {
            const auto lumaTarget = MakeTarget(size, format.luma);
            const auto chromaTarget = MakeTarget(half, format.chroma);
            const Texture luma = m_canvas.TextureOf(lumaTarget);
            const Texture chroma = m_canvas.TextureOf(chromaTarget);
            if (isPlanar) {
                AsPlanar(m_canvas, luma, chroma, format, [&] { Encode(source, luma, matrix); });
            } else {
                Encode(source, luma, chroma, format.planar, matrix);
            }
            auto frame = EncodePixels(m_canvas.Read(lumaTarget), format.luma);
            std::ranges::copy(EncodePixels(m_canvas.Read(chromaTarget), format.chroma),
                              std::back_inserter(frame));
            EXPECT_EQ(Reference::DescribeDifference(frame, format.bits, expected), "")
                << size.width << " x " << size.height << ", " << format.bits << " bits, matrix "
                << static_cast<int>(matrix) << ", alpha " << static_cast<int>(alpha);
        }
    }

    AnyCanvas m_canvas;
    boost::intrusive_ptr<typename AnyCanvas::Converter> m_converter{
        new typename AnyCanvas::Converter(m_canvas.GetDevice(), {})};
};

TYPED_TEST_SUITE(D3YUVConverterTest, BothCanvases, CanvasName);

TYPED_TEST(D3YUVConverterTest, EveryFormatMatrixAndAlphaTypeAgreesWithTheReference) {
    for (const auto alpha :
         {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne, AlphaType::Premultiplied}) {
        this->m_converter = new typename TypeParam::Converter(this->m_canvas.GetDevice(), alpha);
        for (const auto matrix :
             {YCbCrMatrix::BT601, YCbCrMatrix::BT709, YCbCrMatrix::BT2020NonConstant}) {
            for (const auto& [w, h] : {Size{2, 2}, Size{6, 4}, Size{257, 129}}) {
                for (const unsigned up : {0U, 1U}) { // both ways of halving an odd size
                    this->ExpectReference({w, h}, {(w + up) / 2, (h + up) / 2}, matrix, alpha,
                                          false);
                }
            }
        }
        this->ExpectReference({64, 36}, {32, 18}, YCbCrMatrix::BT709, alpha, true);
    }
}

TYPED_TEST(D3YUVConverterTest, WrongTexturesAreRefused) {
    using Texture = typename TypeParam::Texture;
    const auto make = [&](const Size& size, DXGI_FORMAT format) {
        return this->m_canvas.TextureOf(this->MakeTarget(size, format));
    };
    const Texture none;
    const Texture source = this->MakeSource({8, 8});
    const Texture luma = make({8, 8}, DXGI_FORMAT_R8_UNORM);
    const Texture chroma = make({4, 4}, DXGI_FORMAT_R8G8_UNORM);
    constexpr auto kFormat = "Unsupported pixel format";
    constexpr auto kHalf = "The chroma plane is expected to have half the size of the luma plane";
    const auto refuses = [&](const char* sentence, const auto&... arguments) {
        ExpectFailure([&] { this->Encode(arguments..., YCbCrMatrix::BT709); }, sentence, "Encode",
                      E_FAIL, TypeParam::kKind);
    };
    refuses(kFormat, source, luma);
    refuses(kFormat, source, none);
    refuses(kFormat, source, chroma, chroma, DXGI_FORMAT_NV12);
    refuses(kFormat, source, luma, none, DXGI_FORMAT_NV12);
    refuses(kFormat, source, luma, chroma, DXGI_FORMAT_P010);
    refuses(kFormat, source, luma, chroma, DXGI_FORMAT_R8_UNORM);
    refuses(kHalf, source, luma, make({8, 8}, DXGI_FORMAT_R8G8_UNORM), DXGI_FORMAT_NV12);
    refuses(kHalf, source, luma, make({4, 3}, DXGI_FORMAT_R8G8_UNORM), DXGI_FORMAT_NV12);
    refuses("There is no source texture", none, luma, chroma, DXGI_FORMAT_NV12);
}

// What is made is kept for the next frame, and every resource goes from its state before to its
// state after, the intermediate texture by two more.
TEST(D12YUVConverterTest, RecordsOnlyWhatIsDue) {
    Canvas canvas;
    const boost::intrusive_ptr converter(new DX::D12YUVConverter(canvas.GetDevice(), {}));
    const auto source = canvas.MakeTexture(MakeNoise({16, 8}), kSourceFormat);
    const auto luma = canvas.TextureOf(canvas.MakeTarget(16, 8, DXGI_FORMAT_R8_UNORM));
    const auto chroma = canvas.TextureOf(canvas.MakeTarget(8, 4, DXGI_FORMAT_R8G8_UNORM));
    const auto list = canvas.GetQueue()->CreateCommandAllocator()->CreateCommandList(nullptr);
    list->Close();
    int made = 0;
    const MethodPatch<&ID3D12Device::CreateCommittedResource> count(
        canvas.GetDevice()->Get(), [&](auto original, auto... arguments) {
            ++made;
            return original(arguments...);
        });
    std::map<void*, std::string> names = {{source, "source"}, {luma, "luma"}, {chroma, "chroma"}};
    std::vector<std::string> transitions;
    const MethodPatch<&ID3D12GraphicsCommandList::ResourceBarrier> record(
        list->GetGraphics(), [&](auto original, auto* self, UINT number, const auto* barriers) {
            for (const auto& barrier : std::span(barriers, number)) {
                const auto& [resource, subresource, before, after] = barrier.Transition;
                transitions.push_back(fmt::format("{} {} to {}", names[resource],
                                                  static_cast<int>(before),
                                                  static_cast<int>(after)));
            }
            original(self, number, barriers);
        });
    const auto expect = [&](bool makes, std::vector<std::string> due, const auto&... arguments) {
        transitions.clear();
        made = 0;
        canvas.Record([&](const auto& on) { converter->Encode(on, source, luma, arguments...); });
        due.insert(due.end(), {" 0 to 4", " 4 to 128", " 128 to 0"});
        EXPECT_EQ(made > 0, makes);
        EXPECT_THAT(transitions, testing::UnorderedElementsAreArray(due));
    };
    constexpr auto kCommon = D3D12_RESOURCE_STATE_COMMON;
    constexpr auto kRead = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    constexpr auto kDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;
    constexpr auto kCopied = D3D12_RESOURCE_STATE_COPY_SOURCE;
    using States = DX::D12ResourceStates;
    AsPlanar(canvas, luma, chroma, kFormats[0], [&] {
        expect(true, {"source 128 to 0", "luma 4 to 2048"}, YCbCrMatrix::BT709,
               std::array{States{kRead, kCommon}, States{kDrawn, kCopied}});
    });
    expect(false, {"source 0 to 128", "luma 2048 to 4", "chroma 4 to 0"}, chroma,
           kFormats[0].planar, YCbCrMatrix::BT709,
           std::array{States{kCommon, kRead}, States{kCopied, kDrawn}, States{kDrawn, kCommon}});
}

} // namespace

} // namespace Norvex::Test
