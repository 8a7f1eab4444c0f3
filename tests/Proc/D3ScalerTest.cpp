// The scalers of both generations against the formulas in double precision: every kernel, up and
// down, of parts of pictures, as encoded and in light, with every type of alpha; and of frames.

#include <cmath>
#include <optional>
#include <random>
#include <tuple>

#include <fmt/format.h>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "apps/norvexdx/reference/FrameReference.h"
#include "apps/norvexdx/reference/ScaleReference.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/OutOfMemory.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::TransferCharacteristics;
using DX::ScaleKernel;
using DX::ScaleParams;
using Proc::AlphaType;
using Part = DX::Rect2DT<double>;
using Rect = DX::Rect2DT<long>;

constexpr auto kFloats = DXGI_FORMAT_R32G32B32A32_FLOAT;
constexpr auto kBytes = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr ScaleKernel kKernels[] = {ScaleKernel::Bilinear, ScaleKernel::CatmullRom,
                                    ScaleKernel::Mitchell, ScaleKernel::Lanczos3,
                                    ScaleKernel::Area};

// Where light is filtered the colours stay near each other: next to black an encoding is so steep
// that what single precision leaves of light would show.
Pixels MakeNoise(unsigned width, unsigned height, const ScaleParams& params) {
    std::mt19937 random(width * 1000 + height);
    std::uniform_real_distribution<float> color(params.transfer ? 0.5F : 0.0F,
                                                params.transfer ? 0.6F : 1.0F);
    std::uniform_real_distribution<float> alpha(0.6F, 1.0F);
    const bool isPremultiplied = params.alphaType == AlphaType::Premultiplied;
    return MakePixels(width, height, [&](unsigned, unsigned) {
        const double a = alpha(random);
        const double factor = isPremultiplied ? a : 1.0;
        return Color{color(random) * factor, color(random) * factor, color(random) * factor, a};
    });
}

Reference::Picture Expect(const Pixels& source, const ScaleParams& params, const Rect& rect) {
    const Part part = params.sourceRect.value_or(
        Part{0, 0, static_cast<double>(source.width), static_cast<double>(source.height)});
    return Reference::ReferenceScale({source.width, source.height, source.colors},
                                     {.kernel = static_cast<Reference::Kernel>(params.kernel),
                                      .left = part.left,
                                      .top = part.top,
                                      .right = part.right,
                                      .bottom = part.bottom,
                                      .width = static_cast<unsigned>(rect.right - rect.left),
                                      .height = static_cast<unsigned>(rect.bottom - rect.top),
                                      .transfer = params.transfer,
                                      .alpha = params.alphaType,
                                      .antiRinging = params.antiRinging});
}

// Infinite where it is no number; of what lies outside the rectangle, from transparent black.
double LargestDifference(const Pixels& drawn, const Reference::Picture& expected,
                         const Rect& rect) {
    double largest = 0.0;
    for (unsigned y = 0; y < drawn.height; ++y) {
        for (unsigned x = 0; x < drawn.width; ++x) {
            const long column = static_cast<long>(x) - rect.left;
            const long row = static_cast<long>(y) - rect.top;
            const bool isInside = column >= 0 && column < static_cast<long>(expected.width) &&
                                  row >= 0 && row < static_cast<long>(expected.height);
            const Color wanted =
                isInside ? expected.pixels[static_cast<std::size_t>(row) * expected.width +
                                           static_cast<std::size_t>(column)]
                         : Color{};
            for (std::size_t k = 0; k < 4; ++k) {
                const double difference = std::fabs(drawn.At(x, y)[k] - wanted[k]);
                largest = std::isfinite(difference) ? std::max(largest, difference) : INFINITY;
            }
        }
    }
    return largest;
}

template <class AnyCanvas>
class D3ScalerTest : public testing::Test {
protected:
    static constexpr bool kIs12 = std::is_same_v<AnyCanvas, Canvas>;
    using Scaler = std::conditional_t<kIs12, DX::D12Scaler, DX::D11Scaler>;

    Pixels Scale(const Pixels& pixels, DXGI_FORMAT format, const DX::Size2DT<unsigned>& size,
                 const ScaleParams& params) {
        const auto source = m_canvas.MakeSource(pixels, format);
        const auto target = m_canvas.MakeTarget(size.width, size.height, format);
        m_canvas.Record([&](const auto& on) { m_scaler->Encode(on, source, target, params); });
        return m_canvas.Read(target);
    }

    AnyCanvas m_canvas;
    boost::intrusive_ptr<Scaler> m_scaler{new Scaler(m_canvas.GetDevice())};
};

TYPED_TEST_SUITE(D3ScalerTest, BothCanvases, CanvasName);

TYPED_TEST(D3ScalerTest, EveryKernelAgreesWithTheReference) {
    using enum TransferCharacteristics;
    struct Row {
        DX::Size2DT<unsigned> source, target;
        ScaleParams params = {};
    };
    const Row rows[] = {
        {{1, 1}, {1, 1}},
        {{1, 1}, {7, 5}},
        {{9, 7}, {1, 1}},
        {{16, 16}, {16, 16}},
        {{33, 17}, {50, 61}},
        {{65, 48}, {21, 13}},
        {{31, 23}, {31, 5}},
        {{5, 4}, {64, 64}, {.antiRinging = 1}},
        {{65, 48}, {21, 60}, {.antiRinging = 0.5F}},
        {{33, 17},
         {30, 30},
         {.sourceRect = Part{2.25, 1.5, 20.75, 11.125}, .rect = Rect{-5, 3, 40, 33}}},
        {{33, 17}, {9, 9}, {.sourceRect = Part{7.125, 3.5, 7.25, 3.75}, .rect = Rect{2, 2, 5, 7}}},
        {{33, 17}, {20, 24}, {.transfer = sRGB}},
        {{33, 17}, {20, 24}, {.transfer = BT709, .alphaType = AlphaType::AlphaIsOne}},
        {{33, 17}, {20, 24}, {.transfer = PQ, .alphaType = AlphaType::Premultiplied}},
        {{33, 17}, {20, 24}, {.transfer = HLG, .antiRinging = 1}},
        {{33, 17}, {20, 24}, {.transfer = Linear, .alphaType = AlphaType::Premultiplied}},
        {{33, 17}, {40, 9}, {.alphaType = AlphaType::AlphaIsOne}},
        {{33, 17}, {40, 9}, {.alphaType = AlphaType::Premultiplied}},
    };
    double largestBytes = 0.0;
    double largestFloats = 0.0;
    for (const auto& [from, to, given] : rows) {
        for (const auto kernel : kKernels) {
            // Light and alpha are the same thing to all of them.
            if ((given.transfer || given.alphaType != ScaleParams{}.alphaType) &&
                kernel != ScaleKernel::Lanczos3) {
                continue;
            }
            ScaleParams params = given;
            params.kernel = kernel;
            const Rect rect = params.rect.value_or(
                Rect{0, 0, static_cast<long>(to.width), static_cast<long>(to.height)});
            const auto expect = [&](DXGI_FORMAT format, double bound, double& largest) {
                Pixels source = MakeNoise(from.width, from.height, params);
                const auto bytes = EncodePixels(source, format);
                source = DecodePixels(bytes.data(), bytes.size() / from.height, from.width,
                                      from.height, format);
                auto expected = Expect(source, params, rect);
                if (format == kBytes) {
                    for (auto& pixel : expected.pixels) {
                        std::ranges::transform(pixel, pixel.begin(),
                                               [](double c) { return std::clamp(c, 0.0, 1.0); });
                    }
                }
                const double difference =
                    LargestDifference(this->Scale(source, format, to, params), expected, rect);
                largest = std::max(largest, difference);
                EXPECT_LE(difference, bound) << fmt::format(
                    "kernel {}, {} x {} to {} x {}, transfer {}, alpha {}, format {}",
                    static_cast<int>(kernel), from.width, from.height, to.width, to.height,
                    static_cast<int>(params.transfer.value_or(Linear)),
                    static_cast<int>(params.alphaType), static_cast<int>(format));
            };
            expect(kFloats, 1e-5, largestFloats);
            if (kernel == ScaleKernel::Lanczos3 || kernel == ScaleKernel::Area) {
                expect(kBytes, 0.75 / 255.0, largestBytes);
            }
        }
    }
    this->RecordProperty("codes of 8 bits", fmt::format("{:.3f}", largestBytes * 255.0));
    this->RecordProperty("floats", fmt::format("{:.2g}", largestFloats));
}

// What a target a quarter as large cannot show is grey: how far from it, by the root of the mean
// square, beyond twice the radius of what it can.
template <class Draw>
double MeasureAliasing(const Draw& draw) {
    const auto plate = Reference::MakeZonePlate(256);
    const Pixels drawn = draw(Pixels{256, 256, plate.pixels});
    double sum = 0.0;
    int count = 0;
    for (unsigned y = 0; y < drawn.height; ++y) {
        for (unsigned x = 0; x < drawn.width; ++x) {
            const double radius = std::hypot(x + 0.5 - 32.0, y + 0.5 - 32.0);
            if (radius > 16.0 && radius < 30.0) {
                sum += std::pow(drawn.At(x, y)[0] - 0.5, 2.0);
                ++count;
            }
        }
    }
    return std::sqrt(sum / count);
}

TYPED_TEST(D3ScalerTest, AZonePlateShrunkToAQuarterDoesNotAlias) {
    for (const auto& [kernel, bound] :
         {std::pair(ScaleKernel::Lanczos3, 0.01), std::pair(ScaleKernel::Mitchell, 0.01),
          std::pair(ScaleKernel::Area, 0.1)}) {
        const double aliasing = MeasureAliasing([&, which = kernel](const Pixels& plate) {
            return this->Scale(plate, kFloats, {64, 64}, {.kernel = which});
        });
        EXPECT_LT(aliasing, bound) << "kernel " << static_cast<int>(kernel);
        this->RecordProperty(fmt::format("kernel {}", static_cast<int>(kernel)),
                             fmt::format("{:.5f}", aliasing));
    }
    const boost::intrusive_ptr draw(new typename TypeParam::ImageDraw(this->m_canvas.GetDevice()));
    EXPECT_GT(MeasureAliasing([&](const Pixels& plate) {
                  const auto source = this->m_canvas.MakeSource(plate, kFloats);
                  const auto target = this->m_canvas.MakeTarget(64, 64, kFloats);
                  this->m_canvas.Record(
                      [&](const auto& on) { draw->Encode(on, source, target, {}, {}); });
                  return this->m_canvas.Read(target);
              }),
              0.1)
        << "a bilinear draw does";
}

TYPED_TEST(D3ScalerTest, WrongArgumentsAreRefused) {
    const auto source = this->m_canvas.MakeSource(MakeNoise(8, 8, {}), kBytes);
    const auto target = this->m_canvas.MakeTarget(8, 8, kBytes);
    this->m_canvas.Record([&](const auto& on) {
        const auto refuses = [&](const char* words, const auto& from, const auto& to,
                                 const ScaleParams& params) {
            ExpectFailure([&] { this->m_scaler->Encode(on, from, to, params); }, words, "Encode",
                          E_FAIL, TypeParam::kKind);
        };
        refuses("The texture is expected to be the shader resource view", decltype(source)(),
                target, {});
        refuses("The texture is expected to be the render target view", source, decltype(target)(),
                {});
        for (const Part& part : {Part{}, Part{-0.1, 0, 8, 8}, Part{0, 0, 8, 8.1}, Part{5, 0, 5, 8},
                                 Part{NAN, 0, 8, 8}}) {
            refuses("The source rectangle does not lie in the texture", source, target,
                    {.sourceRect = part});
        }
        refuses("The target rectangle is empty", source, target, {.rect = Rect{3, 3, 3, 4}});
        refuses("Unknown kernel", source, target, {.kernel = static_cast<ScaleKernel>(5)});
        refuses("Unsupported transfer function", source, target,
                {.transfer = static_cast<TransferCharacteristics>(4)});
        typename TypeParam::Frame frame;
        frame.desc = DX::D3FrameDesc::MakeRGB({8, 8});
        refuses("A texture of the frame is missing", frame, target, {});
        frame.textures[0] = TypeParam::TextureOf(target);
        refuses("The source and the target are the same texture", frame, target, {});
        frame.textures[0] = TypeParam::TextureOf(source);
        refuses("The texture is expected to be the render target view", frame, decltype(target)(),
                {});
        refuses("The source rectangle does not lie in the texture", frame, target,
                {.sourceRect = Part{0, 0, 8, 8.1}});
        if constexpr (TestFixture::kIs12) {
            refuses("The texture is expected to be the shader resource view", target, target, {});
            const auto own =
                on->GetDevice()->CreateTextureShaderResourceView(target->GetFirstResource());
            refuses("The source and the target are the same texture", own, target, {});
            refuses("The source is expected to be a 2-D texture of one sample",
                    on->GetDevice()->CreateShaderViewHeap(1)->CreateBufferShaderResourceView(
                        on->GetDevice()->CreateUploadBuffer(256)->GetResource(), 16),
                    target, {});
        }
        this->m_scaler->Encode(on, source, target, {.rect = Rect{9, 9, 12, 12}}); // nothing to see
        this->m_scaler->Encode(on, source, target, {});
    });
    EXPECT_EQ(SentenceOf([&] { typename TestFixture::Scaler scaler(nullptr); }),
              "There is no device");
}

template <class AnyCanvas>
auto UploadFrame(AnyCanvas& canvas, const Reference::Frame& frame) {
    typename AnyCanvas::Frame result;
    result.desc = frame.desc;
    const unsigned planes = frame.desc.GetPlaneCount();
    for (unsigned plane = 0; plane < planes; ++plane) {
        const auto [format, size] = frame.desc.GetPlane(plane);
        const unsigned channels = planes == 1 ? 4 : planes == 2 ? plane + 1 : 1;
        const auto width = static_cast<unsigned>(size.width);
        const auto colorAt = [&, first = plane](unsigned x, unsigned y) {
            Color color = {};
            for (unsigned i = first; i < first + channels; ++i) {
                const double unit = i == 3 ? 1.0 : frame.desc.GetCodes().unit;
                color.at(i - first) = frame.channels.at(i)[std::size_t{y} * width + x] * unit;
            }
            return color;
        };
        result.textures.at(plane) = canvas.TextureOf(
            canvas.MakeSource(MakePixels(width, static_cast<unsigned>(size.height), colorAt),
                              planes == 1 ? kFloats : format));
    }
    return result;
}

TYPED_TEST(D3ScalerTest, FramesAreScaledAsTheirColors) {
    using enum DX::FrameLayout;
    struct Row {
        DX::D3FrameDesc frame;
        ScaleParams params;
    };
    Row rows[] = {
        {{.layout = NV12, .bitDepth = 8, .size = {23, 13}}, {}},
        {{.layout = Planar420, .bitDepth = 10, .size = {23, 13}, .range = DX::FrameRange::Full},
         {.sourceRect = Part{2.25, 1.5, 20.75, 11.125}}},
        {{.layout = Planar444, .bitDepth = 16, .size = {23, 13}}, {.kernel = ScaleKernel::Area}},
        {{.layout = P010, .bitDepth = 10, .size = {23, 13}},
         {.antiRinging = 1, .chromaFilter = DX::ChromaFilter::CatmullRom}},
        {{.layout = RGB, .bitDepth = 8, .size = {23, 13}, .alpha = AlphaType::NonPremultiplied},
         {.alphaType = AlphaType::AlphaIsOne}}, // which does not count
    };
    rows[1].frame.chromaLocation = DX::ChromaLocation::Centre;
    std::mt19937 random(420);
    std::uniform_real_distribution<float> any;
    double largest = 0.0;
    for (const auto& [desc, params] : rows) {
        const double white = std::pow(2.0, desc.bitDepth) - 1.0;
        const auto frame = Reference::MakeFrame(desc, [&](unsigned channel, long, long) {
            const double value = any(random);
            return channel == 3 ? 0.75 + value / 4.0 : std::round(value * white);
        });
        const Pixels colors = MakePixels(23, 13, [&, filter = params.chromaFilter](auto x, auto y) {
            return Reference::ColorOf(frame, static_cast<long>(x), static_cast<long>(y),
                                      filter == DX::ChromaFilter::CatmullRom);
        });
        ScaleParams ofColors = params;
        ofColors.alphaType = desc.alpha;
        const auto source = UploadFrame(this->m_canvas, frame);
        for (const unsigned width : {9U, 40U}) {
            const Rect rect = {0, 0, static_cast<long>(width), 21};
            const auto target = this->m_canvas.MakeTarget(width, 21, kFloats);
            this->m_canvas.Record([&, &scaling = params](const auto& on) {
                const auto encode = [&](const auto& to) {
                    this->m_scaler->Encode(to, source, target, scaling);
                };
                if constexpr (TestFixture::kIs12) { // and into an open list
                    width == 40 ? on->RecordList(nullptr, encode) : encode(on);
                } else {
                    encode(on);
                }
            });
            const double difference = LargestDifference(this->m_canvas.Read(target),
                                                        Expect(colors, ofColors, rect), rect);
            largest = std::max(largest, difference);
            EXPECT_LE(difference, 2e-5) << "layout " << static_cast<int>(desc.layout);
        }
    }
    this->RecordProperty("frames", fmt::format("{:.2g}", largest));
}

// Drawn again, whatever a list holds before, a picture is the same and nothing is made for it.
TEST(D12ScalerTest, DrawsShareAListAndMakeNothing) {
    Canvas canvas;
    const boost::intrusive_ptr scaler(new DX::D12Scaler(canvas.GetDevice()));
    const boost::intrusive_ptr draw(new DX::D12ImageDraw(canvas.GetDevice()));
    const Pixels noise = MakeNoise(24, 16, {});
    const auto source = canvas.MakeSource(noise, kFloats);
    const auto target = canvas.MakeTarget(9, 30, kFloats);
    const DX::D12Frame whole = {DX::D3FrameDesc::MakeRGB({24, 16}), {Canvas::TextureOf(source)}};
    constexpr int kEnough = 1 << 20;
    int made = 0;
    int textures = 0;
    int others = 0;
    int allocations = 0;
    const auto countIn = [](int& counter) {
        return [&counter](auto original, auto... all) {
            ++counter;
            return original(all...);
        };
    };
    ID3D12Device* const device = canvas.GetDevice()->Get();
    std::optional<LifeProbe> probe;
    const auto watch = [&](auto original, auto... all) {
        const HRESULT result = original(all...);
        void** const out = std::get<sizeof...(all) - 1>(std::tuple(all...));
        auto* const resource = static_cast<ID3D12Resource*>(*out);
        if (Platform::GetDesc(resource).Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE2D) {
            probe.emplace(resource);
            ++textures;
        }
        ++made;
        return result;
    };
    const MethodPatch<&ID3D12Device::CreateCommittedResource> resources(device, watch);
    const MethodPatch<&ID3D12Device::CreateDescriptorHeap> heaps(device, countIn(others));
    const MethodPatch<&ID3D12Device::CreateGraphicsPipelineState> states(device, countIn(others));
    const MethodPatch<&ID3D12Device::CreateRootSignature> signatures(device, countIn(others));
    for (int frame = 0; frame < 6; ++frame) {
        const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
        allocator->RecordList(nullptr, [&](const auto& list) {
            draw->Encode(list, source, target, {}, {});
            scaler->Encode(list, whole, target, {});
            const OutOfMemory counted(kEnough);
            for (int i = 0; i < 70; ++i) { // more views than a heap holds
                scaler->Encode(list, source, target, {});
            }
            allocations = OutOfMemory::CountAllocations();
        });
        allocator->Execute();
        allocator->WaitComplete();
        EXPECT_EQ(made > 0, frame == 0) << made;
        // The second frame's slots begin in the heap that the first has left half full.
        EXPECT_TRUE(others == 0 || frame < 2) << others << " in frame " << frame;
        // No draw's own: what the list keeps grows.
        EXPECT_TRUE(allocations < 30 || frame < 2) << allocations << " in frame " << frame;
        made = 0;
        others = 0;
    }
    EXPECT_LE(
        LargestDifference(canvas.Read(target), Expect(noise, {}, {0, 0, 9, 30}), {0, 0, 9, 30}),
        1e-5);
    // Lists may run side by side: what one draws to that is not done is not another's.
    const boost::intrusive_ptr fresh(new DX::D12Scaler(canvas.GetDevice()));
    textures = 0;
    for (const auto& allocator : {canvas.GetQueue()->CreateCommandAllocator(),
                                  canvas.GetQueue()->CreateCommandAllocator()}) {
        allocator->RecordList(nullptr,
                              [&](const auto& list) { fresh->Encode(list, source, target, {}); });
    }
    EXPECT_EQ(textures, 2);
    for (int i = 0; i < 100 && probe->IsAlive(); ++i) {
        Sleep(100);
    }
    EXPECT_FALSE(probe->IsAlive()) << "intermediate textures are given back, unused";
}

TEST(D11ScalerTest, DrawnAgainItTakesNoMemoryAndMakesNothing) {
    Canvas11 canvas;
    const boost::intrusive_ptr scaler(new DX::D11Scaler(canvas.GetDevice()));
    const Pixels noise = MakeNoise(24, 16, {});
    const auto source = canvas.MakeSource(noise, kFloats);
    const auto target = canvas.MakeTarget(9, 30, kFloats);
    const auto other = canvas.MakeTarget(9, 30, kFloats);
    canvas.Record([&](const auto& context) {
        scaler->Encode(context, source, other, {});
        const FailingMethod<&ID3D11Device::CreateBuffer, &ID3D11Device::CreateTexture2D,
                            &ID3D11Device::CreateShaderResourceView,
                            &ID3D11Device::CreateRenderTargetView, &ID3D11Device::CreatePixelShader>
            noObject(canvas.GetDevice()->Get(), E_FAIL);
        const OutOfMemory noMemory;
        scaler->Encode(context, source, target, {});
    });
    EXPECT_LE(
        LargestDifference(canvas.Read(target), Expect(noise, {}, {0, 0, 9, 30}), {0, 0, 9, 30}),
        1e-5);
}

} // namespace

} // namespace Norvex::Test
