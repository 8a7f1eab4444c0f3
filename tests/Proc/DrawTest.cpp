// Drawing on a real device, pixels read back and compared with the double-precision reference.

#include <cmath>
#include <random>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/ColorReference.h"
#include "tests/support/Device11.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Painter.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using DX::AffineTransform;
using DX::RenderFitMode;
using Proc::AlphaType;
using Proc::ColorAlphaConversionInfo;
using Proc::LinearizationMode;
using Rect = DX::Rect2DT<long>;

constexpr RGBColorSpace kSRGB = {ColorPrimaries::BT709, TransferCharacteristics::sRGB};
constexpr RGBColorSpace kRec709 = {ColorPrimaries::BT709, TransferCharacteristics::BT709};
constexpr RGBColorSpace kRec709Linear = {ColorPrimaries::BT709, TransferCharacteristics::Linear};
constexpr RGBColorSpace kRec2020 = {ColorPrimaries::BT2020, TransferCharacteristics::BT709};
constexpr RGBColorSpace kPQ = {ColorPrimaries::BT2020, TransferCharacteristics::PQ};
constexpr RGBColorSpace kHLG = {ColorPrimaries::BT2020, TransferCharacteristics::HLG};
constexpr RGBColorSpace kSources[] = {kSRGB, kRec709, kRec2020, kPQ, kHLG};
constexpr RGBColorSpace kTargets[] = {kSRGB, kRec709, kRec2020, kPQ, kHLG, kRec709Linear};
constexpr LinearizationMode kModes[] = {LinearizationMode::SceneReferred,
                                        LinearizationMode::DisplayReferredHDR,
                                        LinearizationMode::DisplayReferred};
constexpr AlphaType kAlphas[] = {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne,
                                 AlphaType::Premultiplied};
constexpr auto kRGBA8 = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr auto kRGBA16 = DXGI_FORMAT_R16G16B16A16_UNORM;

template <class Call>
void ForEachConversion(const Call& call) {
    ColorAlphaConversionInfo info;
    for (const auto& from : kSources) {
        for (const auto& to : kTargets) {
            for (const auto mode : kModes) {
                info.source = from;
                info.target = to;
                info.mode = mode;
                call(info);
            }
        }
    }
}

std::string Describe(const ColorAlphaConversionInfo& info) {
    const auto number = [](auto value) { return static_cast<int>(value); };
    return fmt::format("from {}/{} alpha {} to {}/{} alpha {}, mode {}",
                       number(info.source.primaries), number(info.source.transfer),
                       number(info.sourceAlpha), number(info.target.primaries),
                       number(info.target.transfer), number(info.targetAlpha), number(info.mode));
}

// A grey ramp, ramps of the primaries, and random colours with random alpha.
Pixels MakeTestCard() {
    std::mt19937 random(20201);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    return MakePixels(64, 32, [&](unsigned x, unsigned y) -> Color {
        const double ramp = x / 63.0;
        if (y < 4) {
            return {y == 0 || y == 1 ? ramp : 0, y == 0 || y == 2 ? ramp : 0,
                    y == 0 || y == 3 ? ramp : 0, 1};
        }
        if (y == 4) {
            return {1.0, ramp, 0.5, ramp};
        }
        return {uniform(random), uniform(random), uniform(random), uniform(random)};
    });
}

// The largest difference of a channel, and where.
struct Worst {
    double error = 0.0;
    std::string where;
};

Worst Compare(const Pixels& drawn, const std::function<Color(std::size_t)>& expectedAt) {
    Worst worst;
    for (std::size_t i = 0; i < drawn.colors.size(); ++i) {
        const Color expected = expectedAt(i);
        for (std::size_t channel = 0; channel < expected.size(); ++channel) {
            const double reference = std::clamp(expected[channel], 0.0, 1.0);
            const double error = std::fabs(drawn.colors[i][channel] - reference);
            if (!(error <= worst.error)) {
                worst = {error, fmt::format("pixel {} channel {}: {} instead of {}", i, channel,
                                            drawn.colors[i][channel], reference)};
            }
        }
    }
    return worst;
}

// The same drawing on each generation.
class DrawTest : public testing::TestWithParam<std::unique_ptr<Painter> (*)()> {
protected:
    static void TearDownTestSuite() { s_painter.reset(); }

    void SetUp() override {
        if (s_painter == nullptr) {
            s_painter = GetParam()();
        }
    }

    static Pixels Draw(const Drawing& drawing) { return s_painter->Draw(drawing); }
    // One to one, with the conversion, from a texture of that format to another.
    static Pixels Convert(const Pixels& source, const std::optional<ColorAlphaConversionInfo>& info,
                          DXGI_FORMAT format) {
        return Draw(
            {.source = source, .sourceFormat = format, .targetFormat = format, .conversion = info});
    }
    static void ExpectReference(const Pixels& source, const ColorAlphaConversionInfo& info,
                                DXGI_FORMAT format) {
        // One quantum at 8 bits, eight at 16. Light decoded from PQ reaches 100, so where a channel
        // of BT.709 is the small difference of great channels of BT.2020, single precision leaves
        // an error that 16 bits show: measured 15 quanta, and 75 where the target is linear and
        // nothing compresses it.
        const bool cancels = info.source == kPQ && info.target.primaries == ColorPrimaries::BT709;
        const double quanta = !cancels ? 8.0 : info.target == kRec709Linear ? 100.0 : 20.0;
        const Pixels stored = Quantize(source, format);
        const Worst worst = Compare(Convert(source, info, format), [&](std::size_t i) {
            return ReferenceConvert(stored.colors[i], info);
        });
        EXPECT_LE(worst.error, format == kRGBA8 ? 1.0 / 255.0 : quanta / 65535.0)
            << Describe(info) << ", " << worst.where;
    }

    static inline std::unique_ptr<Painter> s_painter;
};

INSTANTIATE_TEST_SUITE_P(D3D11, DrawTest, testing::Values(&MakePainter11));
INSTANTIATE_TEST_SUITE_P(D3D12, DrawTest, testing::Values(&MakePainter12));

TEST_P(DrawTest, EveryConversionAgreesWithTheReference) {
    const Pixels card = MakeTestCard();
    ForEachConversion([&](const auto& info) {
        ExpectReference(card, info, kRGBA8);
        ExpectReference(card, info, kRGBA16);
    });
}

TEST_P(DrawTest, EveryAlphaPairAgreesWithTheReference) {
    const Pixels card = MakeTestCard();
    // A premultiplied picture holds no colour above its alpha.
    Pixels premultiplied = card;
    for (auto& [r, g, b, alpha] : premultiplied.colors) {
        r *= alpha;
        g *= alpha;
        b *= alpha;
    }
    ColorAlphaConversionInfo info;
    for (const auto& to : {kSRGB, kPQ}) {
        info.target = to;
        for (const auto sourceAlpha : kAlphas) {
            for (const auto targetAlpha : kAlphas) {
                info.sourceAlpha = sourceAlpha;
                info.targetAlpha = targetAlpha;
                ExpectReference(sourceAlpha == AlphaType::Premultiplied ? premultiplied : card,
                                info, kRGBA16);
            }
        }
    }
}

TEST_P(DrawTest, ToneMappingAndScaleAgreeWithTheReference) {
    const Pixels card = MakeTestCard();
    ColorAlphaConversionInfo info;
    const auto set = [&info](const RGBColorSpace& from, const RGBColorSpace& to, float sourcePeak,
                             float targetPeak, float scale) {
        info.source = from;
        info.target = to;
        info.sourcePeakLuminance = sourcePeak;
        info.targetPeakLuminance = targetPeak;
        info.linearScale = scale;
    };
    const auto expect = [&](const auto&... numbers) {
        set(numbers...);
        ExpectReference(card, info, kRGBA16);
    };
    expect(kPQ, kSRGB, 4000.0F, 203.0F, 1.0F);
    expect(kPQ, kHLG, 10000.0F, 600.0F, 1.0F);
    expect(kPQ, kPQ, 10000.0F, 600.0F, 0.5F);
    expect(kHLG, kPQ, 1000.0F, 600.0F, 1.0F);
    expect(kSRGB, kHLG, 1000.0F, 2000.0F, 1.0F);
    expect(kSRGB, kRec709Linear, 1000.0F, 1000.0F, 0.25F);
    set(kPQ, kPQ, 10000, 600, 1);
    EXPECT_EQ(Convert(card, info, kRGBA16).colors, Quantize(card, kRGBA16).colors)
        << "equal spaces are not tone-mapped";
}

// Negative and above-one values, as scRGB and filters leave them in FP16 textures.
TEST_P(DrawTest, NoConversionMakesNaNOrInfinity) {
    constexpr double kLevels[] = {-60000.0, -2.0, -0.5, -1e-7, 0.0,   1e-7,
                                  0.02,     0.5,  1.0,  1.5,   100.0, 60000.0};
    constexpr double kAlphaLevels[] = {0.0, 1.0, 0.5, -0.5, 1e-7};
    const Pixels cube = MakePixels(144, 60, [&](unsigned x, unsigned y) {
        return Color{kLevels[x % 12], kLevels[x / 12], kLevels[y % 12], kAlphaLevels[y / 12]};
    });
    ForEachConversion([&](ColorAlphaConversionInfo info) {
        if (info.mode == LinearizationMode::DisplayReferredHDR) {
            return; // the same to the shader as DisplayReferred
        }
        info.sourcePeakLuminance = 10000.0F;
        for (const auto alpha : kAlphas) {
            info.sourceAlpha = alpha;
            const Pixels drawn = Draw({.source = cube,
                                       .sourceFormat = DXGI_FORMAT_R16G16B16A16_FLOAT,
                                       .targetFormat = DXGI_FORMAT_R32G32B32A32_FLOAT,
                                       .conversion = info});
            for (std::size_t i = 0; i < drawn.colors.size(); ++i) {
                ASSERT_TRUE(std::ranges::all_of(
                    drawn.colors[i], [](double channel) { return std::isfinite(channel); }))
                    << Describe(info) << ": " << testing::PrintToString(cube.colors[i])
                    << " becomes " << testing::PrintToString(drawn.colors[i]);
            }
        }
    });
}

TEST_P(DrawTest, WithoutConversionTheSampleIsCopied) {
    const Pixels card = MakeTestCard();
    EXPECT_EQ(Convert(card, std::nullopt, kRGBA8).colors, Quantize(card, kRGBA8).colors);
}

TEST_P(DrawTest, UnsupportedSpacesShowTheirErrorColor) {
    ColorAlphaConversionInfo info;
    info.source = kRec709Linear;
    info.target = kRec709;
    EXPECT_EQ(Convert(MakeTestCard(), info, kRGBA8).At(30, 0), (Color{1, 0, 0, 1}));
    info.source = kSRGB;
    info.target = {ColorPrimaries::BT2020, TransferCharacteristics::Linear};
    EXPECT_EQ(Convert(MakeTestCard(), info, kRGBA8).At(30, 0), (Color{0, 0, 1, 1}));
}

bool Contains(const Rect& rect, std::size_t x, std::size_t y) {
    const auto column = static_cast<long>(x);
    const auto row = static_cast<long>(y);
    return column >= rect.left && column < rect.right && row >= rect.top && row < rect.bottom;
}

// Any rectangle, with the transform that brings the picture onto the target's pixels: as it is, or
// mirrored.
TEST_P(DrawTest, RectAndTransformPlaceThePicture) {
    const Pixels card = Quantize(MakeTestCard(), kRGBA8);
    constexpr long kFar = 1L << 30;
    for (const Rect& rect : {Rect{0, 0, 64, 32}, Rect{16, 4, 60, 28}, Rect{-20, 10, 60, 90},
                             Rect{-20000, -20000, 20000, 20000}, Rect{-40000, 5, 60, 33001},
                             Rect{-kFar, -kFar, kFar, kFar}, Rect{70, 0, 90, 32},
                             Rect{0, -50, 64, 0}, Rect{30, 20, 30, 25}, Rect{40, 4, 20, 28}}) {
        const float width = static_cast<float>(rect.right) - static_cast<float>(rect.left);
        const float height = static_cast<float>(rect.bottom) - static_cast<float>(rect.top);
        const long right = 32 - (rect.left + rect.right) / 2;
        const long up = (rect.top + rect.bottom) / 2 - 16;
        for (const float side : {1.0F, -1.0F}) {
            const Pixels drawn =
                Draw({.source = card,
                      .rect = rect,
                      .transform = AffineTransform::Scale(side * 64 / width, 32 / height)
                                       .Then(AffineTransform::Translation(
                                           static_cast<float>(right), static_cast<float>(up)))});
            const Worst worst = Compare(drawn, [&](std::size_t i) {
                const auto x = static_cast<unsigned>(i % 64);
                const auto y = static_cast<unsigned>(i / 64);
                return Contains(rect, x, y) ? card.At(side > 0 ? x : 63 - x, y) : Color{};
            });
            EXPECT_LE(worst.error, 1.0 / 255.0 + 1e-6)
                << testing::PrintToString(std::array{rect.left, rect.top, rect.right, rect.bottom})
                << ", side " << side << ", " << worst.where;
        }
    }
}

// The four quadrants of a picture in four colours, to see where they land.
Pixels MakeQuadrants(unsigned width, unsigned height) {
    return MakePixels(width, height, [=](unsigned x, unsigned y) -> Color {
        return {x >= width / 2 ? 1.0 : 0.0, y >= height / 2 ? 1.0 : 0.0, 0.0, 1.0};
    });
}

// Fit modes, turns counter-clockwise, and a shift right and up, in any rectangle: what a pixel
// shows follows from where it lies in the picture. Pixels at the edges of the quadrants are left
// out.
TEST_P(DrawTest, ViewStatePlacesThePictureAsSeenOnScreen) {
    for (const auto mode : {RenderFitMode::Free, RenderFitMode::Fit, RenderFitMode::Fill}) {
        for (const double turn : {0.0, 0.3, 1.57079633, 2.5}) {
            for (const Rect& rect : {Rect{0, 0, 100, 50}, {10, 5, 80, 45}, {-20, 10, 60, 90}}) {
                const auto width = static_cast<double>(rect.right - rect.left);
                const auto height = static_cast<double>(rect.bottom - rect.top);
                const double cosine = std::cos(turn);
                const double sine = std::sin(turn);
                const double c = std::fabs(cosine);
                const double s = std::fabs(sine);
                const double scale =
                    mode == RenderFitMode::Free ? 1.0
                    : mode == RenderFitMode::Fit
                        ? std::min(width / (40 * c + 30 * s), height / (40 * s + 30 * c))
                        : std::max((width * c + height * s) / 40, (width * s + height * c) / 30);
                const Pixels drawn = Draw({.source = MakeQuadrants(40, 30),
                                           .size = {100, 50},
                                           .rect = rect,
                                           .view = [&](DX::D3ImageRenderer& view) {
                                               view.SetFitMode(mode);
                                               view.SetRotation(static_cast<float>(turn));
                                               view.SetTranslation(3.25F, -2.0F);
                                           }});
                const Worst worst = Compare(drawn, [&](std::size_t i) {
                    const auto x = static_cast<double>(i % 100) + 0.5;
                    const std::size_t row = i / 100;
                    const auto y = static_cast<double>(row) + 0.5;
                    const double right = x - static_cast<double>(rect.left + rect.right) / 2 - 3.25;
                    const double down = y - static_cast<double>(rect.top + rect.bottom) / 2 + 2.0;
                    const double across = right * cosine - down * sine;
                    const double along = right * sine + down * cosine;
                    const double fromEdge =
                        std::min(20 * scale - std::fabs(across), 15 * scale - std::fabs(along));
                    if (!Contains(rect, i % 100, i / 100)) {
                        return Color{};
                    }
                    if (std::min({std::fabs(fromEdge), std::fabs(across), std::fabs(along)}) <
                        std::max(1.5, scale)) {
                        return drawn.colors[i];
                    }
                    return fromEdge > 0 ? Color{across > 0 ? 1.0 : 0.0, along > 0 ? 1.0 : 0.0, 0, 1}
                                        : Color{};
                });
                EXPECT_LE(worst.error, 1e-6)
                    << "mode " << static_cast<int>(mode) << ", turned " << turn << " in " << width
                    << " x " << height << ", " << worst.where;
            }
        }
    }
}

constexpr auto kNoSource = "The texture is expected to be the shader resource view";
constexpr auto kNoTarget = "The texture is expected to be the render target view";

class D3D12DrawTest : public testing::Test {
protected:
    using Allocator = boost::intrusive_ptr<DX::D12CommandAllocator>;
    using View = boost::intrusive_ptr<DX::D12Descriptor>;
    using Draw = std::function<void(const Allocator&)>;

    const boost::intrusive_ptr<DX::D12Device>& Device() { return m_canvas.GetDevice(); }
    Allocator MakeAllocator() { return m_canvas.GetQueue()->CreateCommandAllocator(); }

    // Fill, image draw, conversion, each by a new drawer.
    std::vector<Draw> MakeDraws();
    // Has each call of the method fail once in a draw, the drawer's first or second.
    template <auto method>
    void FailEachCall(IUnknown* object, bool isFirst);

    Canvas m_canvas;
    View m_source = m_canvas.MakeSource(MakeQuadrants(8, 8), kRGBA8);
    View m_target = m_canvas.MakeTarget(8, 8, kRGBA8);
    View m_chroma = m_canvas.MakeTarget(4, 4, DXGI_FORMAT_R8G8_UNORM);
    View m_luma = m_canvas.MakeTarget(8, 8, DXGI_FORMAT_R8_UNORM);
};

TEST_F(D3D12DrawTest, WrongArgumentsAreRefusedBeforeRecording) {
    const boost::intrusive_ptr draw(new DX::D12ImageDraw(Device()));
    const boost::intrusive_ptr fill(new DX::D12FillDraw(Device()));
    const auto allocator = MakeAllocator();
    const auto refuses = [&](const Allocator& on, const View& source, const View& target,
                             const char* sentence) {
        ExpectFailure12([&] { draw->Encode(on, source, target, {}, {}); }, sentence, "Encode");
        ExpectFailure12([&] { draw->Encode(on, source, target, AffineTransform(), {}, {}); },
                        sentence, "Encode");
        if (sentence != kNoSource) {
            ExpectFailure12([&] { fill->Encode(on, {}, target, {0, 0, 8, 8}); }, sentence,
                            "Encode");
        }
    };
    refuses(allocator, m_target, m_target, kNoSource);
    refuses(allocator, nullptr, m_target, kNoSource);
    refuses(allocator, m_source, m_source, kNoTarget);
    refuses(allocator, m_source, nullptr, kNoTarget);
    refuses(nullptr, m_source, m_target, "There is no command allocator");
    ExpectFailure12([&] { allocator->Execute(); }, "There are no command lists to execute",
                    "Execute");
    ExpectFailure12([] { DX::D12ImageRenderer(nullptr); }, "There is no device", "D12ImageDraw");
    ExpectFailure12([] { DX::D12FillDraw(nullptr); }, "There is no device", "D12FillDraw");
    ExpectFailure12([] { DX::D12YUVConverter(nullptr, {}); }, "There is no device",
                    "D12YUVConverter");
}

std::vector<D3D12DrawTest::Draw> D3D12DrawTest::MakeDraws() {
    const boost::intrusive_ptr fill(new DX::D12FillDraw(Device()));
    const boost::intrusive_ptr image(new DX::D12ImageDraw(Device()));
    const boost::intrusive_ptr converter(new DX::D12YUVConverter(Device(), AlphaType::AlphaIsOne));
    constexpr DX::D12ResourceStates kRead = {D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE,
                                             D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE};
    constexpr DX::D12ResourceStates kDrawn = {D3D12_RESOURCE_STATE_RENDER_TARGET,
                                              D3D12_RESOURCE_STATE_RENDER_TARGET};
    return {[=, this](const Allocator& on) { fill->Encode(on, {}, m_target, {0, 0, 8, 8}); },
            [=, this](const Allocator& on) { image->Encode(on, m_source, m_target, {}, {}); },
            [=, this](const Allocator& on) {
                converter->Encode(on, m_source->GetFirstResource(), m_luma->GetFirstResource(),
                                  m_chroma->GetFirstResource(), DXGI_FORMAT_NV12,
                                  Conf::YCbCrMatrix::BT709, std::array{kRead, kDrawn, kDrawn});
            }};
}

template <auto method>
void D3D12DrawTest::FailEachCall(IUnknown* object, bool isFirst) {
    for (std::size_t kind = 0; kind < 3; ++kind) {
        bool failed = true;
        for (int failing = 1; failed; ++failing) {
            SCOPED_TRACE(
                fmt::format("method {}, drawer {}, call {}", SlotOf(method), kind, failing));
            const Draw draw = MakeDraws()[kind];
            auto allocator = MakeAllocator();
            if (!isFirst) {
                draw(allocator);
                allocator->Execute();
            }
            allocator->ClearRenderTargetView(m_target, {0, 1, 0, 1}, {});
            int calls = 0;
            Thrown thrown;
            {
                const MethodPatch<method> patch(object, [&](auto original, auto&&... arguments) {
                    return ++calls == failing ? E_ABORT : original(arguments...);
                });
                thrown = ThrownBy([&] { draw(allocator); });
            }
            failed = calls >= failing;
            EXPECT_EQ(thrown.result, failed ? E_ABORT : 0) << thrown.sentence;
            EXPECT_TRUE(failed || failing > 1) << "it is never called";
            EXPECT_NO_THROW(draw(allocator)) << "the drawer is usable";
            allocator->ClearRenderTargetView(m_target, {0, 0, 1, 1}, {});
            allocator->Execute();
            EXPECT_EQ(m_canvas.Read(m_target).At(4, 4), (Color{0, 0, 1, 1}));
            allocator.reset();
            EXPECT_NO_THROW(MakeAllocator()->CreateCommandList(nullptr)->Close());
        }
    }
}

TEST_F(D3D12DrawTest, AFailureLeavesTheAllocatorAsItWas) {
    const auto probe = MakeAllocator();
    const auto list = probe->CreateCommandList(nullptr);
    list->Close();
    FailEachCall<&ID3D12Device::CreateCommittedResource>(Device()->Get(), true);
    FailEachCall<&ID3D12Resource::Map>(m_target->GetFirstResource(), true);
    // Not the first draw: a texture whose first list is dropped stays without a layout on vkd3d.
    FailEachCall<&ID3D12GraphicsCommandList::Close>(list->GetGraphics(), false);
}

TEST_F(D3D12DrawTest, OneDrawServesSeveralThreads) {
    const boost::intrusive_ptr draw(new DX::D12ImageDraw(Device()));
    const auto work = [&](double level) {
        const Color color = {level, 1.0 - level, level, 1.0};
        const auto source =
            m_canvas.MakeSource(MakePixels(4, 4, [&](auto...) { return color; }), kRGBA8);
        for (int round = 0; round < 20; ++round) {
            const auto target = m_canvas.MakeTarget(8, 8, kRGBA8);
            const auto allocator = MakeAllocator();
            draw->SetBlendState(draw->GetBlendState());
            for (int i = 0; i < 10; ++i) { // long enough for the threads to meet
                draw->Encode(allocator, source, target, {}, {});
            }
            allocator->Execute();
            ASSERT_THAT(m_canvas.Read(target).colors,
                        testing::Each(testing::Pointwise(testing::DoubleNear(0.01), color)));
        }
    };
    std::vector<std::jthread> threads;
    for (const double level : {0.0, 0.25, 0.5, 1.0}) {
        threads.emplace_back(work, level);
    }
}

TEST_F(D3D12DrawTest, FillCoversTheRectInTheTargetsEncoding) {
    const auto target = m_canvas.MakeTarget(32, 32, kRGBA8, {0, 0, 1, 1});
    const boost::intrusive_ptr fill(new DX::D12FillDraw(Device()));
    const auto allocator = MakeAllocator();
    fill->Encode(allocator, {1.0F, 0.2F, 0.0F, 0.6F}, target, {8, 4, 40, 12});
    fill->Encode(allocator, {1.0F, 1.0F, 1.0F, 1.0F}, target, {32, 0, 40, 12});
    DX::D12BlendState over = fill->GetBlendState();
    over.targets[0].destBlend = D3D12_BLEND_ONE;
    fill->SetBlendState(over);
    fill->Encode(allocator, {0.0F, 0.2F, 0.0F, 0.0F}, target, {-40000, -1, 40000, 40000});
    allocator->Execute();
    const Pixels drawn = m_canvas.Read(target);
    const auto isColor = [](const Color& color) {
        return testing::Pointwise(testing::DoubleNear(1e-6), color);
    };
    EXPECT_THAT(drawn.At(8, 4), isColor({1.0, 0.4, 0.0, 0.0}));
    EXPECT_THAT(drawn.At(31, 11), isColor({1.0, 0.4, 0.0, 0.0}));
    EXPECT_THAT(drawn.At(7, 4), isColor({0.0, 0.2, 1.0, 0.0}));
}

class D3D11DrawTest : public testing::Test {
protected:
    void Encode(const boost::intrusive_ptr<DX::D11ShaderTexture2D>& source,
                const boost::intrusive_ptr<DX::D11RenderTexture2D>& target) {
        m_canvas.GetDevice()->Encode([&](const auto& context) {
            m_renderer->Encode(context, source, target, std::nullopt, std::nullopt);
        });
    }

    Canvas11 m_canvas;
    boost::intrusive_ptr<DX::D11ImageRenderer> m_renderer{
        new DX::D11ImageRenderer(m_canvas.GetDevice())};
};

TEST_F(D3D11DrawTest, NullArgumentsAreRefused) {
    const auto source = m_canvas.MakeSource(MakeQuadrants(8, 8), kRGBA8);
    const auto target = m_canvas.MakeTarget(8, 8, kRGBA8);
    ExpectFailure11([&] { Encode(nullptr, target); }, kNoSource, "Encode");
    ExpectFailure11([&] { Encode(source, nullptr); }, kNoTarget, "Encode");
    ExpectFailure11([&] { m_renderer->Encode(nullptr, source, target, AffineTransform(), {}, {}); },
                    "There is no device context", "Encode");
    ExpectFailure11([] { DX::D11ImageRenderer(nullptr); }, "There is no device", "D11ImageDraw");
    ExpectFailure11([] { DX::D11YUVConverter(nullptr, {}); }, "There is no device",
                    "D11YUVConverter");
}

TEST_F(D3D11DrawTest, BlendsAndLeavesTheTargetFree) {
    const auto source = m_canvas.MakeSource(MakeQuadrants(8, 8), kRGBA8);
    const auto target = m_canvas.MakeTarget(8, 8, kRGBA8, {0.2F, 0, 0, 0});
    m_renderer->SetBlendState(m_canvas.GetDevice()->CreateBlendState(
        {TRUE, D3D11_BLEND_ONE, D3D11_BLEND_ONE, D3D11_BLEND_OP_ADD, D3D11_BLEND_ONE,
         D3D11_BLEND_ONE, D3D11_BLEND_OP_ADD, D3D11_COLOR_WRITE_ENABLE_RED}));
    Encode(source, target);
    const auto context = GetImmediateContext(m_canvas.GetDevice()->Get());
    CComPtr<ID3D11RenderTargetView> view;
    CComPtr<ID3D11BlendState> blend;
    CComPtr<ID3D11DepthStencilState> depth;
    CComPtr<ID3D11RasterizerState> rasterizer;
    CComPtr<ID3D11ShaderResourceView> resource;
    CComPtr<ID3D11Buffer> constants;
    context->OMGetRenderTargets(1, &view, nullptr);
    context->OMGetBlendState(&blend, nullptr, nullptr);
    context->OMGetDepthStencilState(&depth, nullptr);
    context->RSGetState(&rasterizer);
    context->PSGetShaderResources(0, 1, &resource);
    context->PSGetConstantBuffers(0, 1, &constants);
    EXPECT_THAT((std::array<void*, 4>{view.p, blend.p, depth.p, rasterizer.p}),
                testing::Each(nullptr));
    EXPECT_EQ(resource.p, source->GetView().p);
    EXPECT_NE(constants.p, nullptr);

    const Pixels drawn = m_canvas.Read(target->GetTexture());
    EXPECT_THAT(drawn.At(0, 7), testing::Pointwise(testing::DoubleNear(1e-6), Color{0.2, 0, 0, 0}))
        << "red is added, the rest is masked";
    EXPECT_EQ(drawn.At(7, 0)[0], 1.0);
}

TEST_F(D3D11DrawTest, TheTransformFollowsTheSizesAndTheView) {
    const auto square = m_canvas.MakeSource(MakeQuadrants(40, 40), kRGBA8);
    const auto narrow = m_canvas.MakeSource(MakeQuadrants(20, 40), kRGBA8);
    const auto target = m_canvas.MakeTarget(100, 50, kRGBA8);
    const auto wide = m_canvas.MakeTarget(200, 50, kRGBA8);
    const auto widthOf = [this](const auto& source, const auto& on) {
        Encode(source, on);
        return m_renderer->GetTransform().rows[0][0];
    };
    EXPECT_THROW(m_renderer->GetTransform(), std::bad_optional_access);
    EXPECT_FLOAT_EQ(widthOf(square, target), 0.5F);
    EXPECT_FLOAT_EQ(widthOf(narrow, target), 0.25F);
    EXPECT_FLOAT_EQ(widthOf(narrow, wide), 0.125F);

    const auto mine = AffineTransform::Scale(0.75F, 1.0F);
    m_renderer->SetTransform(mine);
    Encode(narrow, wide);
    EXPECT_EQ(m_renderer->GetTransform(), mine) << "nothing changed: it is kept";
    m_renderer->SetFitMode(RenderFitMode::Fill);
    EXPECT_THROW(m_renderer->GetTransform(), std::bad_optional_access);
    EXPECT_FLOAT_EQ(widthOf(narrow, wide), 1.0F);
}

} // namespace

} // namespace Norvex::Test
