// Frames of video: descriptions, and drawers and converters of both generations against the
// reference in double precision. No driver here has planar textures, so the planes are separate
// textures; where one planar texture is the point, methods of a real texture and of its device are
// interposed, so that it answers as one.

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <span>
#include <tuple>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/FrameTest.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using Conf::YCbCrMatrix;
using DX::ChromaFilter;
using DX::ChromaLocation;
using DX::D3FrameDesc;
using DX::FrameConvertParams;
using DX::FrameLayout;
using DX::FrameRange;
using Size = DX::Size2DT<long>;

constexpr auto kFloat = DXGI_FORMAT_R32G32B32A32_FLOAT;

struct Layout {
    const char* name;
    FrameLayout layout;
    unsigned bits;
};
constexpr Layout kLayouts[] = {
    {"NV12", FrameLayout::NV12, 8},
    {"P010", FrameLayout::P010, 10},
    {"P016", FrameLayout::P016, 16},
    {"4:2:0 of 8", FrameLayout::Planar420, 8},
    {"4:2:0 of 10", FrameLayout::Planar420, 10},
    {"4:2:0 of 12", FrameLayout::Planar420, 12},
    {"4:2:0 of 16", FrameLayout::Planar420, 16},
    {"4:2:2 of 8", FrameLayout::Planar422, 8},
    {"4:2:2 of 10", FrameLayout::Planar422, 10},
    {"4:2:2 of 12", FrameLayout::Planar422, 12},
    {"4:2:2 of 16", FrameLayout::Planar422, 16},
    {"4:4:4 of 8", FrameLayout::Planar444, 8},
    {"4:4:4 of 10", FrameLayout::Planar444, 10},
    {"4:4:4 of 12", FrameLayout::Planar444, 12},
    {"4:4:4 of 16", FrameLayout::Planar444, 16},
};
constexpr Size kSizes[] = {{2, 2}, {3, 3}, {7, 4}, {4, 5}, {35, 18}};
constexpr YCbCrMatrix kMatrices[] = {YCbCrMatrix::BT601, YCbCrMatrix::BT709,
                                     YCbCrMatrix::BT2020NonConstant};

D3FrameDesc Describe(const Layout& layout, const Size& size) {
    D3FrameDesc desc;
    desc.layout = layout.layout;
    desc.bitDepth = layout.bits;
    desc.size = size;
    return desc;
}

// Every layout with each range and chroma location; matrices and sizes take turns.
template <class Call>
void ForEachDescription(const Call& call) {
    unsigned turn = 0;
    for (unsigned i = 0; i < std::size(kLayouts); ++i) {
        for (const auto range : {FrameRange::Narrow, FrameRange::Full}) {
            for (const auto location :
                 {ChromaLocation::Left, ChromaLocation::Centre, ChromaLocation::TopLeft}) {
                D3FrameDesc desc = Describe(kLayouts[i], kSizes[turn % std::size(kSizes)]);
                desc.range = range;
                desc.chromaLocation = location;
                desc.matrix = kMatrices[(turn / 2 + i) % std::size(kMatrices)];
                ++turn;
                call(desc, std::string(kLayouts[i].name));
            }
        }
    }
}

// Colours from 0 to 1 of single precision, or whole codes.
Reference::Frame MakeNoise(const D3FrameDesc& desc) {
    std::mt19937 random(709);
    std::uniform_real_distribution<float> any;
    const double largest = std::pow(2.0, desc.bitDepth) - 1.0;
    return Reference::MakeFrame(desc, [&](unsigned channel, long, long) {
        const double value = any(random);
        return channel == 3 ? value : desc.IsRGB() ? value * largest : std::round(value * largest);
    });
}

// Three slices, of which nothing is known.
CComPtr<ID3D12Resource> MakeArray(const Canvas& canvas, const DX::Size2DT<long>& size) {
    DX::D12Texture2DDesc desc;
    desc.width = static_cast<std::uint64_t>(size.width);
    desc.height = static_cast<std::uint32_t>(size.height);
    desc.arraySize = 3;
    desc.format = DXGI_FORMAT_R8_UNORM;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    return canvas.GetDevice()->CreateTexture2D(desc);
}
CComPtr<ID3D11Texture2D> MakeArray(const Canvas11& canvas, const DX::Size2DT<long>& size) {
    auto desc = MakeTextureDesc11(static_cast<unsigned>(size.width),
                                  static_cast<unsigned>(size.height), DXGI_FORMAT_R8_UNORM);
    desc.ArraySize = 3;
    desc.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
    return canvas.GetDevice()->CreateTexture2D(desc, nullptr);
}

template <class AnyCanvas>
class D3FrameTest : public FrameTest<AnyCanvas> {};

TYPED_TEST_SUITE(D3FrameTest, BothCanvases, CanvasName);

TYPED_TEST(D3FrameTest, EveryLayoutRangeLocationMatrixAndSizeIsMadeExactly) {
    ForEachDescription([&](D3FrameDesc desc, const std::string& name) {
        desc.colorSpace = kSRGB;
        const auto source = MakeNoise(D3FrameDesc::MakeRGB(desc.size));
        this->Note(name, this->ConvertAndCompare(source, desc), 0.52, desc);
    });
    EXPECT_EQ(this->m_converter->GetShaderCount(), 10U); // neither of sizes nor of depths
}

TYPED_TEST(D3FrameTest, EveryLayoutIsDrawnExactlyAtItsSize) {
    unsigned turn = 0;
    ForEachDescription([&](const D3FrameDesc& desc, const std::string& name) {
        const auto source = MakeNoise(desc);
        const bool isCubic = turn++ % 2 == 1;
        this->m_draw->SetChromaFilter(isCubic ? ChromaFilter::CatmullRom : ChromaFilter::Bilinear);
        const auto target =
            this->m_canvas.MakeTarget(static_cast<unsigned>(desc.size.width),
                                      static_cast<unsigned>(desc.size.height), kFloat);
        this->Show(this->Upload(source), target);
        const Pixels drawn = this->m_canvas.Read(target);
        double error = 0.0;
        for (std::size_t i = 0; i < drawn.colors.size(); ++i) {
            const auto x = static_cast<long>(i) % desc.size.width;
            const auto y = static_cast<long>(i) / desc.size.width;
            const auto expected = Reference::ColorOf(source, x, y, isCubic);
            for (std::size_t k = 0; k < expected.size(); ++k) {
                error = std::max(error, std::fabs(drawn.colors[i].at(k) - expected.at(k)));
            }
        }
        this->Note(name + ", of 65535", error * 65535.0, 0.1, desc);
    });
}

// Where a channel is the small difference of great lights, single precision ends at 16 bits.
TYPED_TEST(D3FrameTest, FramesBecomeOtherFramesThroughEveryConversionOfColors) {
    // Each conversion is a shader, in all depths; where chroma is a mean there are two.
    unsigned turn = 0;
    const auto compare = [&](unsigned layout, unsigned other, const auto& from, const auto& to) {
        auto source = Describe(kLayouts[layout], {35, 18});
        source.colorSpace = from;
        auto target = Describe(kLayouts[other], {35, 18});
        target.colorSpace = to;
        target.chromaLocation = ChromaLocation::TopLeft;
        const bool isToBT709 = to.primaries == ColorPrimaries::BT709;
        const auto* const name = from == kPQ && to != kPQ
                                     ? (isToBT709 ? "PQ to BT.709" : "PQ to BT.2020")
                                 : to == kPQ ? "others to PQ"
                                             : "others";
        const auto filter = static_cast<ChromaFilter>(layout == 5 ? 1 : 0);
        const auto error =
            this->ConvertAndCompare(MakeNoise(source), target, {.chromaFilter = filter});
        this->Note(fmt::format("{} of {}", name, target.bitDepth), error,
                   target.bitDepth == 16 ? 0.7 : 0.52, target);
    };
    for (const auto& from : {kSRGB, kRec709, kRec2020, kPQ, kHLG}) {
        for (const auto& to : {kSRGB, kRec709, kRec2020, kPQ, kHLG}) {
            for (unsigned other = 11; other < 15; ++other) { // 4:4:4
                compare(other % 2, other, from, to);
            }
            if (turn++ % 6 == 3) {
                compare(5, 9, from, to);
                compare(13, 2, from, to);
            }
        }
    }
    EXPECT_EQ(this->m_converter->GetShaderCount(), 32U); // more were needed
}

TYPED_TEST(D3FrameTest, TonesAreMappedOnTheWay) {
    auto source = Describe(kLayouts[1], {35, 18});
    source.colorSpace = kPQ;
    auto target = Describe(kLayouts[12], {35, 18});
    FrameConvertParams params{
        .toneMapping = {.curve = DX::ToneCurve::BT2390, .gamut = DX::GamutReduction::Soft}};
    params.conversion.sourcePeakLuminance = 4000.0F;
    this->Note("PQ to BT.709, tones mapped, of 10",
               this->ConvertAndCompare(MakeNoise(source), target, params), 0.52, target);
    const auto dim = Reference::MakeFrame(source, [](unsigned channel, long x, long y) {
        return channel == 0 ? 64.0 + static_cast<double>((x * 13 + y * 7) % 400)
                            : 482.0 + static_cast<double>((x * 5 + y * 3) % 60);
    });
    double brightest = 0.0;
    for (long i = 0; i < 35L * 18; ++i) {
        const auto color = Reference::ColorOf(dim, i % 35, i / 35, false);
        brightest = std::max({brightest, color[0], color[1], color[2]});
    }
    const boost::intrusive_ptr peak(new typename TypeParam::FramePeak(this->m_canvas.GetDevice()));
    EXPECT_NEAR(Reference::PQFromLight(this->m_canvas.Measure(*peak, this->Upload(dim)) / 100.0),
                brightest, 1e-5);
    params.toneMapping.channels = DX::ToneChannels::PerChannel;
    params.toneMapping.targetBlack = 0.1F;
    target.colorSpace = kPQ; // which would be left alone
    this->Note("PQ to PQ, tones mapped, of 10",
               this->ConvertAndCompare(MakeNoise(source), target, params), 0.52, target);
}

// Flat fields of codes between two, each as large as the pattern; black and white stay.
TYPED_TEST(D3FrameTest, DitheredCodesMeanWhatTheyStandFor) {
    struct Pattern {
        DX::FrameDither dither;
        long size;
        long fields;
        const char* name;
    };
    constexpr Pattern kPatterns[] = {{DX::FrameDither::Ordered, 8, 40, "when dithered"},
                                     {DX::FrameDither::BlueNoise, 64, 6, "by blue noise"}};
    for (const auto& [dither, kPattern, kFields, patternName] : kPatterns) {
        for (const Layout& layout : {kLayouts[1], kLayouts[11]}) {
            D3FrameDesc desc = Describe(layout, {2 * kPattern * kFields, 2 * kPattern});
            desc.chromaLocation = ChromaLocation::Centre; // of one field alone
            auto rgb = D3FrameDesc::MakeRGB(desc.size);
            rgb.colorSpace = desc.colorSpace;
            const auto source =
                Reference::MakeFrame(rgb, [size = kPattern](unsigned channel, long x, long) {
                    const long field = x / (2 * size);
                    return field < 2 ? 255.0 * static_cast<double>(field)
                                     : static_cast<double>(static_cast<unsigned>(field) *
                                                           (37 + 11 * channel) % 256) +
                                           0.37;
                });
            std::vector<typename TestFixture::View> views;
            const auto to = this->MakeTarget(desc, views);
            this->Convert(this->Upload(source), to, {.dither = dither});
            const auto expected = Reference::ConvertFrame(source, desc, {}, false);
            std::map<std::pair<unsigned, long>, std::pair<double, int>> differences; // sum, number
            this->ForEachCode(
                desc, views,
                [&, size = kPattern, fields = kFields](double code, unsigned channel,
                                                       std::size_t at) {
                    const long width = Reference::SizeOfChannel(desc, channel).width;
                    const long x = static_cast<long>(at) % width;
                    const double difference = code - expected.channels.at(channel)[at];
                    EXPECT_LT(std::fabs(difference), x < 2 * width / fields ? 0.01 : 1.0);
                    auto& [sum, number] = differences[{channel, x / size}];
                    sum += difference;
                    ++number;
                });
            for (const auto& [place, difference] : differences) {
                this->Note(fmt::format("{}, mean {}", layout.name, patternName),
                           std::fabs(difference.first) / difference.second, 0.02, desc);
            }
        }
    }
}

// A ramp so flat that a code is 64 pixels wide, as the mean of 9 x 9 pixels shows it from afar.
TYPED_TEST(D3FrameTest, DitherTakesTheBandsFromARampOfPQ) {
    constexpr long kWidth = 512, kHeight = 64, kReach = 4;
    const auto codeAt = [](long x) { return 60.0 + static_cast<double>(x) / 64.0; };
    auto rgb = D3FrameDesc::MakeRGB({kWidth, kHeight});
    rgb.colorSpace = kPQ;
    const auto source = this->Upload(Reference::MakeFrame(
        rgb, [&](unsigned, long x, long) { return (codeAt(x) - 16.0) / 219.0 * 255.0; }));
    D3FrameDesc desc = Describe(kLayouts[0], rgb.size);
    desc.colorSpace = kPQ;
    for (const auto& [dither, name, least, most] :
         {std::tuple(DX::FrameDither::None, "none", 0.2, 0.3),
          {DX::FrameDither::Ordered, "ordered", 0.0, 0.05},
          {DX::FrameDither::BlueNoise, "blue noise", 0.0, 0.05}}) {
        std::vector<typename TestFixture::View> views;
        this->Convert(source, this->MakeTarget(desc, views), {.dither = dither});
        std::vector<double> errors;
        this->ForEachCode(desc, views, [&](double code, unsigned channel, std::size_t at) {
            if (channel == 0) {
                errors.push_back(code - codeAt(static_cast<long>(at) % kWidth));
            }
        });
        double squares = 0.0;
        for (long y = kReach; y < kHeight - kReach; ++y) {
            for (long x = kReach; x < kWidth - kReach; ++x) {
                double sum = 0.0;
                for (long i = 0; i < 81; ++i) {
                    sum += errors[static_cast<std::size_t>((y + i / 9 - kReach) * kWidth + x +
                                                           i % 9 - kReach)];
                }
                squares += sum * sum / (81.0 * 81.0);
            }
        }
        const double root = std::sqrt(
            squares / static_cast<double>((kWidth - 2 * kReach) * (kHeight - 2 * kReach)));
        this->Note(fmt::format("bands of a PQ ramp, dither {}", name), root, most, desc);
        EXPECT_GE(root, least);
    }
}

// During the call the texture, whose own memory is the luma plane, answers as planar: pairs are
// asked for by the format of a view on Direct3D 11, by the plane on 12.
void AsNV12(const Canvas11& canvas, ID3D11Texture2D* planar, ID3D11Texture2D* chroma,
            const std::function<void()>& call) {
    const MethodPatch<&ID3D11Texture2D::GetDesc> describe(
        planar, [&](auto original, auto* self, auto* desc) {
            original(self, desc);
            desc->Format = self == planar ? DXGI_FORMAT_NV12 : desc->Format;
        });
    const auto choose = [&](auto original, auto* self, auto* resource, const auto* view,
                            auto** out) {
        const bool isChroma = resource == planar && view->Format == DXGI_FORMAT_R8G8_UNORM;
        return original(self, isChroma ? chroma : resource, view, out);
    };
    const MethodPatch<&ID3D11Device::CreateRenderTargetView> target(canvas.GetDevice()->Get(),
                                                                    choose);
    const MethodPatch<&ID3D11Device::CreateShaderResourceView> source(canvas.GetDevice()->Get(),
                                                                      choose);
    call();
}
void AsNV12(const Canvas& canvas, ID3D12Resource* planar, ID3D12Resource* chroma,
            const std::function<void()>& call) {
    const MethodPatch<&ID3D12Resource::GetDesc> describe(
        planar, [&](auto original, auto* self, auto* desc) {
            original(self, desc);
            desc->Format = self == planar ? DXGI_FORMAT_NV12 : desc->Format;
            return desc;
        });
    const MethodPatch<&ID3D12Device::CreateRenderTargetView> target(
        canvas.GetDevice()->Get(),
        [&](auto original, auto* self, auto* resource, const auto* view, auto handle) {
            auto desc = view != nullptr ? *view : D3D12_RENDER_TARGET_VIEW_DESC{};
            const bool isChroma = std::exchange(desc.Texture2D.PlaneSlice, 0U) == 1;
            original(self, isChroma ? chroma : resource, view != nullptr ? &desc : nullptr, handle);
        });
    const MethodPatch<&ID3D12Device::CreateShaderResourceView> source(
        canvas.GetDevice()->Get(),
        [&](auto original, auto* self, auto* resource, const auto* view, auto handle) {
            auto desc = *view;
            const bool isChroma = std::exchange(desc.Texture2D.PlaneSlice, 0U) == 1;
            original(self, isChroma ? chroma : resource, &desc, handle);
        });
    call();
}

// All planes in one texture, which is larger than the frame, are what separate ones are.
TYPED_TEST(D3FrameTest, OneTextureHoldsAllPlanes) {
    const D3FrameDesc whole = Describe(kLayouts[0], {64, 36});
    const auto asNV12 = [&](auto& frame, const auto& call) {
        frame.desc.size = {63, 35};
        call();
        const auto chroma = std::exchange(frame.textures[1], nullptr);
        AsNV12(this->m_canvas, frame.textures[0], chroma, call);
    };
    const auto source = this->Upload(MakeNoise(D3FrameDesc::MakeRGB({63, 35})));
    std::vector<Pixels> made;
    for (const bool isPlanar : {false, true}) {
        std::vector<typename TestFixture::View> views;
        auto target = this->MakeTarget(whole, views);
        asNV12(target, [&] {
            if (isPlanar == (target.textures[1] == nullptr)) {
                this->Convert(source, target);
            }
        });
        made.push_back(this->m_canvas.Read(views[0]));
        made.push_back(this->m_canvas.Read(views[1]));
    }
    EXPECT_EQ(made[0].colors, made[2].colors);
    EXPECT_EQ(made[1].colors, made[3].colors);
    auto frame = this->Upload(MakeNoise(whole));
    std::vector<Pixels> drawn;
    asNV12(frame, [&] {
        const auto target = this->m_canvas.MakeTarget(63, 35, kFloat);
        this->Show(frame, target);
        drawn.push_back(this->m_canvas.Read(target));
    });
    EXPECT_EQ(drawn[0].colors, drawn[1].colors);
}

// Into a slice of arrays and from it, the codes as they are; other slices are left alone.
TYPED_TEST(D3FrameTest, FramesLieInSlicesOfArrays) {
    const D3FrameDesc desc = Describe(kLayouts[11], {20, 10});
    const auto source = MakeNoise(desc);
    const auto frame = this->Upload(source);
    typename TestFixture::DeviceFrame slice{desc, {}, 2};
    for (auto& texture : slice.textures) {
        texture = MakeArray(this->m_canvas, desc.size);
    }
    this->m_canvas.Record([&](const auto& on) {
        TestFixture::Traits::Encode(*this->m_converter, on, frame, slice, {}, true);
    });
    const auto target = this->m_canvas.MakeTarget(20, 10, kFloat);
    this->Show(slice, target);
    const Pixels drawn = this->m_canvas.Read(target);
    for (std::size_t i = 0; i < drawn.colors.size(); ++i) {
        const auto at = static_cast<long>(i);
        EXPECT_NEAR(drawn.colors[i][1], Reference::ColorOf(source, at % 20, at / 20, false)[1],
                    1e-5);
    }
}

// A part of a frame at its size through a conversion, faded; on Direct3D 12 also into an open list,
// so often that the list needs several heaps.
TYPED_TEST(D3FrameTest, PartsAreConvertedAndFade) {
    D3FrameDesc desc = Describe(kLayouts[1], {35, 18});
    desc.matrix = YCbCrMatrix::BT2020NonConstant;
    desc.colorSpace = kHLG;
    const auto source = MakeNoise(desc);
    const auto frame = this->Upload(source);
    DX::ImageDrawParams params;
    params.conversion.emplace().target = kSRGB; // from the frame's, whatever it says
    params.conversion->targetAlpha = Proc::AlphaType::Premultiplied;
    params.rect = {5, 1, 22, 12};
    params.sourceRect = {3, 2, 20, 13};
    params.opacity = 0.5F;
    Proc::ColorAlphaConversionInfo info = *params.conversion;
    info.source = kHLG;
    info.sourceAlpha = Proc::AlphaType::AlphaIsOne;
    for (const int times : {1, 100}) {
        const auto target = this->m_canvas.MakeTarget(35, 18, kFloat);
        this->m_canvas.Record([&](const auto& on) {
            if constexpr (std::is_same_v<TypeParam, Canvas>) {
                const auto list = times > 1 ? on->CreateCommandList(nullptr) : nullptr;
                for (int i = 1; i < times; ++i) {
                    this->m_draw->Encode(list, frame, target, params);
                }
                if (list != nullptr) {
                    list->Close();
                    return;
                }
            }
            this->m_draw->Encode(on, frame, target, params);
        });
        const Pixels drawn = this->m_canvas.Read(target);
        for (unsigned y = 0; y < 18; ++y) {
            for (unsigned x = 0; x < 35; ++x) {
                const bool isInside = x >= 5 && x < 22 && y >= 1 && y < 12;
                const auto color =
                    Reference::ReferenceConvert(Reference::ColorOf(source, static_cast<long>(x) - 2,
                                                                   static_cast<long>(y) + 1, false),
                                                info);
                for (std::size_t k = 0; k < color.size(); ++k) {
                    EXPECT_NEAR(drawn.At(x, y).at(k), isInside ? color.at(k) / 2.0 : 0.0, 2e-4);
                }
            }
        }
    }
}

TYPED_TEST(D3FrameTest, ContradictionsAreRefusedBeforeAnythingIsRecorded) {
    using Frame = typename TestFixture::DeviceFrame;
    const D3FrameDesc desc = Describe(kLayouts[0], {8, 6});
    std::vector<typename TestFixture::View> views;
    const Frame good = this->MakeTarget(desc, views);
    const auto target = this->m_canvas.MakeTarget(8, 6, kFloat);
    const auto refuses = [&](const std::string& sentence, const auto& change) {
        Frame bad = good;
        change(bad);
        const auto end = SentenceOf([&] {
            this->m_canvas.Record([&](const auto& on) {
                const auto expect = [&](const auto& call) {
                    ExpectFailure(call, sentence, "Encode", E_FAIL, TypeParam::kKind);
                };
                expect([&] { this->m_draw->Encode(on, bad, target); });
                expect([&] { TestFixture::Traits::Encode(*this->m_converter, on, good, bad, {}); });
            });
        });
        EXPECT_TRUE(end == "(nothing)" || end == "There are no command lists to execute") << end;
    };
    refuses("Unknown frame layout", [](Frame& f) { f.desc.layout = FrameLayout{7}; });
    refuses("The frame has no pixels", [](Frame& f) { f.desc.size.height = 0; });
    refuses("Unknown frame range", [](Frame& f) { f.desc.range = FrameRange{2}; });
    refuses("Unknown chroma location", [](Frame& f) { f.desc.chromaLocation = ChromaLocation{3}; });
    refuses("Unknown YCbCr matrix", [](Frame& f) { f.desc.matrix = YCbCrMatrix{10}; });
    refuses("Unknown color space of a frame",
            [](Frame& f) { f.desc.colorSpace.primaries = ColorPrimaries{5}; });
    refuses("Unknown alpha type of a frame", [](Frame& f) { f.desc.alpha = Proc::AlphaType{3}; });
    refuses("The bit depth is not one of the frame's layout",
            [](Frame& f) { f.desc.bitDepth = 10; });
    refuses("A frame in YCbCr has no alpha",
            [](Frame& f) { f.desc.alpha = Proc::AlphaType::Premultiplied; });
    refuses("A frame in YCbCr has no linear colors",
            [](Frame& f) { f.desc.colorSpace.transfer = TransferCharacteristics::Linear; });
    refuses("A texture of the frame is missing", [](Frame& f) { f.textures[1] = nullptr; });
    refuses("The frame has too many textures", [](Frame& f) { f.textures[2] = f.textures[1]; });
    refuses("A texture is not of the frame's layout",
            [](Frame& f) { std::swap(f.textures[0], f.textures[1]); });
    refuses("A texture is smaller than the frame's plane", [](Frame& f) { ++f.desc.size.width; });
    refuses("A texture of the frame has no such slice", [](Frame& f) { f.slice = 1; });
}

TEST(D3FrameDescTest, SaysWhatDXGIAndY4MSay) {
    for (int type = 0; type <= 24; ++type) {
        const auto space = static_cast<DXGI_COLOR_SPACE_TYPE>(type);
        unsigned taken = 0;
        for (const bool isRGB : {false, true}) {
            D3FrameDesc desc = isRGB ? D3FrameDesc::MakeRGB({2, 2}) : Describe(kLayouts[1], {2, 2});
            if (SentenceOf([&] { desc.SetDXGIColorSpace(space); }) == "(nothing)") {
                ++taken;
                D3FrameDesc again = desc;
                again.SetDXGIColorSpace(desc.GetDXGIColorSpace());
                EXPECT_EQ(again, desc) << type;
                desc.Validate();
            }
        }
        EXPECT_EQ(taken, space == DXGI_COLOR_SPACE_RESERVED ? 0U : 1U) << type;
    }
    for (const char* const tags :
         {"W3 H2 C420jpeg XCOLORRANGE=FULL", "W3 H2 C420mpeg2 XCOLORRANGE=LIMITED",
          "W3 H2 C420paldv XCOLORRANGE=LIMITED", "W3 H2 C422p12 XCOLORRANGE=LIMITED",
          "W3 H2 C444p16 XCOLORRANGE=FULL"}) {
        const auto desc = D3FrameDesc::FromY4MTags("YUV4MPEG2 F25:1 " + std::string(tags) + " Ip");
        EXPECT_EQ(desc.GetY4MTags(), tags);
    }
    const auto refuses = [](const char* sentence, const auto& call) {
        ExpectFailure(call, sentence, ThrownBy(call).function);
    };
    refuses("Unknown Y4M color space: mono", [] { D3FrameDesc::FromY4MTags("W2 H2 Cmono"); });
    refuses("Unknown Y4M color range: ALL", [] { D3FrameDesc::FromY4MTags("XCOLORRANGE=ALL"); });
    refuses("Wrong Y4M size: 2x", [] { D3FrameDesc::FromY4MTags("W2x H2"); });
    refuses("Y4M has no color space for the frame",
            [] { Describe(kLayouts[0], {2, 2}).GetY4MTags(); });
    D3FrameDesc desc = Describe(kLayouts[0], {2, 2});
    desc.colorSpace = kPQ; // with BT.709's matrix
    refuses("DXGI has no color space for the frame", [&] { desc.GetDXGIColorSpace(); });
    refuses("Plane index out of range", [&] { desc.GetPlane(2); });
}

} // namespace

} // namespace Norvex::Test
