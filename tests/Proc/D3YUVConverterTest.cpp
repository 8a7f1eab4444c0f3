// The converters of both generations against the formulas in double precision. No driver here has
// planar textures, so the planes are separate textures; where one planar texture is the point,
// methods of a real texture and of its device are interposed, so that it answers as one.

#include <cmath>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Generation.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using Conf::YCbCrMatrix;
using Proc::AlphaType;

constexpr auto kSourceFormat = DXGI_FORMAT_R16G16B16A16_UNORM;
constexpr auto kReadable = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;

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

using Size = DX::Size2DT<unsigned>;

// The largest code of the depth. The converter divides codes by one more than that.
double MaxCode(unsigned bits) {
    return std::pow(2.0, bits) - 1.0;
}

// One channel of a plane; samples as multiples of the largest code.
struct Plane {
    Size size;
    std::vector<double> codes;

    double At(unsigned x, unsigned y) const { return codes[std::size_t{y} * size.width + x]; }
};

using Planes = std::array<Plane, 3>; // Y', C'b, C'r

// Samples of one or two channels, in the order of memory.
Planes ToPlanes(const Format& format, const Size& size, const std::vector<std::uint8_t>& luma,
                const Size& chromaSize, const std::vector<std::uint8_t>& chroma) {
    const auto load = [&format](const std::vector<std::uint8_t>& bytes, std::size_t index) {
        const double sample = format.bits == 8
                                  ? bytes[index] / 255.0
                                  : (bytes[2 * index] + 256 * bytes[2 * index + 1]) / 65535.0;
        return sample * MaxCode(format.bits);
    };
    Planes planes = {Plane{size, {}}, Plane{chromaSize, {}}, Plane{chromaSize, {}}};
    for (std::size_t i = 0; i < std::size_t{size.width} * size.height; ++i) {
        planes[0].codes.push_back(load(luma, i));
    }
    for (std::size_t i = 0; i < std::size_t{chromaSize.width} * chromaSize.height; ++i) {
        planes[1].codes.push_back(load(chroma, 2 * i));
        planes[2].codes.push_back(load(chroma, 2 * i + 1));
    }
    return planes;
}

// ITU-R BT.601-7, BT.709-6, BT.2020-2: Y' from Kr and Kb, the differences scaled, narrow range.
std::array<double, 3> ReferenceCodes(const Color& color, AlphaType alpha, YCbCrMatrix matrix,
                                     unsigned bits) {
    const double kr = matrix == YCbCrMatrix::BT601   ? 0.299
                      : matrix == YCbCrMatrix::BT709 ? 0.2126
                                                     : 0.2627;
    const double kb = matrix == YCbCrMatrix::BT601   ? 0.114
                      : matrix == YCbCrMatrix::BT709 ? 0.0722
                                                     : 0.0593;
    const double opacity = alpha == AlphaType::NonPremultiplied ? color[3] : 1.0;
    const double r = color[0] * opacity;
    const double g = color[1] * opacity;
    const double b = color[2] * opacity;
    const double y = kr * r + (1.0 - kr - kb) * g + kb * b;
    const double cb = (b - y) / (2.0 * (1.0 - kb));
    const double cr = (r - y) / (2.0 * (1.0 - kr));
    const double unit = MaxCode(bits) / 256.0;
    return {(219.0 * y + 16.0) * unit, (224.0 * cb + 128.0) * unit, (224.0 * cr + 128.0) * unit};
}

Planes Reference(const Pixels& pixels, const Format& format, const Size& chromaSize,
                 AlphaType alpha, YCbCrMatrix matrix) {
    const Size size = {pixels.width, pixels.height};
    Planes planes = {Plane{size, {}}, Plane{chromaSize, {}}, Plane{chromaSize, {}}};
    const auto codesAt = [&](unsigned x, unsigned y) {
        return ReferenceCodes(pixels.At(std::min(x, size.width - 1), std::min(y, size.height - 1)),
                              alpha, matrix, format.bits);
    };
    for (unsigned y = 0; y < size.height; ++y) {
        for (unsigned x = 0; x < size.width; ++x) {
            planes[0].codes.push_back(codesAt(x, y)[0]);
        }
    }
    for (unsigned y = 0; y < chromaSize.height; ++y) {
        for (unsigned x = 0; x < chromaSize.width; ++x) {
            for (const std::size_t channel : {1U, 2U}) {
                const double sum =
                    codesAt(2 * x, 2 * y)[channel] + codesAt(2 * x + 1, 2 * y)[channel] +
                    codesAt(2 * x, 2 * y + 1)[channel] + codesAt(2 * x + 1, 2 * y + 1)[channel];
                planes[channel].codes.push_back(sum / 4.0);
            }
        }
    }
    return planes;
}

// One generation: pixels in, planes out.
class Bench {
public:
    virtual ~Bench() = default;

    virtual Planes Convert(const Pixels& pixels, const Format& format, const Size& chromaSize,
                           YCbCrMatrix matrix) = 0;
    // Into one texture that answers as planar.
    virtual Planes ConvertPlanar(const Pixels& pixels, const Format& format,
                                 YCbCrMatrix matrix) = 0;
    virtual std::string SentenceForWrongFormat() = 0;
};

class Bench11 final : public Bench {
public:
    explicit Bench11(AlphaType alpha) : m_converter(new DX::D11YUVConverter(Device(), alpha)) {}

    Planes Convert(const Pixels& pixels, const Format& format, const Size& chromaSize,
                   YCbCrMatrix matrix) override {
        const Size size = {pixels.width, pixels.height};
        const auto source = m_canvas.MakeSource(pixels, kSourceFormat);
        const auto luma = MakeTarget(size, format.luma);
        const auto chroma = MakeTarget(chromaSize, format.chroma);
        Device()->Encode([&](const auto& context) {
            m_converter->Encode(context, source->GetTexture(), luma, chroma, format.planar, matrix);
        });
        return ToPlanes(format, size, Read(luma), chromaSize, Read(chroma));
    }

    Planes ConvertPlanar(const Pixels& pixels, const Format& format, YCbCrMatrix matrix) override {
        const Size size = {pixels.width, pixels.height};
        const Size chromaSize = {size.width / 2, size.height / 2};
        const auto source = m_canvas.MakeSource(pixels, kSourceFormat);
        const auto planar = MakeTarget(size, format.luma); // its own memory is the luma plane
        const auto chroma = MakeTarget(chromaSize, format.chroma);
        {
            const MethodPatch<10, void(ID3D11Texture2D*, D3D11_TEXTURE2D_DESC*)> describe(
                planar, [&](auto original, ID3D11Texture2D* self, D3D11_TEXTURE2D_DESC* desc) {
                    original(self, desc);
                    desc->Format = self == planar.p ? format.planar : desc->Format;
                });
            using View = D3D11_RENDER_TARGET_VIEW_DESC;
            const MethodPatch<Slot::kDevice11CreateRenderTargetView,
                              HRESULT(ID3D11Device*, ID3D11Resource*, const View*,
                                      ID3D11RenderTargetView**)>
                makeView(Device()->Get(), [&](auto original, ID3D11Device* self,
                                              ID3D11Resource* resource, const View* view,
                                              ID3D11RenderTargetView** out) {
                    const bool isChroma = resource == planar.p && view->Format == format.chroma;
                    return original(self, isChroma ? chroma.p : resource, view, out);
                });
            Device()->Encode([&](const auto& context) {
                m_converter->Encode(context, source->GetTexture(), planar, matrix);
            });
        }
        return ToPlanes(format, size, Read(planar), chromaSize, Read(chroma));
    }

    std::string SentenceForWrongFormat() override {
        const auto texture = MakeTarget({8, 8}, DXGI_FORMAT_B8G8R8A8_UNORM);
        return SentenceOf([&] {
            Device()->Encode([&](const auto& context) {
                m_converter->Encode(context, texture, texture, YCbCrMatrix::BT709);
            });
        });
    }

private:
    const boost::intrusive_ptr<DX::D11Device>& Device() { return m_canvas.GetDevice(); }

    CComPtr<ID3D11Texture2D> MakeTarget(const Size& size, DXGI_FORMAT format) {
        return m_canvas.MakeTarget(size.width, size.height, format)->GetTexture();
    }

    std::vector<std::uint8_t> Read(const CComPtr<ID3D11Texture2D>& texture) {
        D3D11_TEXTURE2D_DESC desc = {};
        texture->GetDesc(&desc);
        desc.Usage = D3D11_USAGE_STAGING;
        desc.BindFlags = 0;
        desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
        const auto staging = Device()->CreateTexture2D(desc, nullptr);
        const std::size_t rowSize = desc.Width * BytesPerSample(desc.Format);
        std::vector<std::uint8_t> bytes;
        Device()->Encode([&](const auto& context) {
            context->CopyResource(staging, texture);
            const auto mapped = context->Map(staging, 0, D3D11_MAP_READ, std::nullopt);
            for (UINT y = 0; y < desc.Height; ++y) {
                const auto* row = static_cast<const std::uint8_t*>(mapped.pData) +
                                  std::size_t{y} * mapped.RowPitch;
                bytes.insert(bytes.end(), row, row + rowSize);
            }
            context->Unmap(staging, 0);
        });
        return bytes;
    }

public:
    static std::size_t BytesPerSample(DXGI_FORMAT format) {
        switch (format) {
        case DXGI_FORMAT_R8_UNORM:
            return 1;
        case DXGI_FORMAT_R16G16_UNORM:
            return 4;
        default:
            return 2;
        }
    }

private:
    Canvas11 m_canvas;
    boost::intrusive_ptr<DX::D11YUVConverter> m_converter;
};

class Bench12 final : public Bench {
public:
    explicit Bench12(AlphaType alpha)
        : m_converter(new DX::D12YUVConverter(m_canvas.GetDevice(), alpha)) {}

    Planes Convert(const Pixels& pixels, const Format& format, const Size& chromaSize,
                   YCbCrMatrix matrix) override {
        const Size size = {pixels.width, pixels.height};
        const auto source = m_canvas.MakeTexture(pixels, kSourceFormat);
        const auto luma = MakeTarget(size, format.luma);
        const auto chroma = MakeTarget(chromaSize, format.chroma);
        const auto allocator = m_canvas.GetQueue()->CreateCommandAllocator();
        m_converter->Encode(allocator, source, luma, chroma, format.planar, matrix,
                            {{{kReadable, kReadable}, {kTarget, kTarget}, {kTarget, kTarget}}});
        allocator->Execute();
        return ToPlanes(format, size, Read(luma, size), chromaSize, Read(chroma, chromaSize));
    }

    Planes ConvertPlanar(const Pixels& pixels, const Format& format, YCbCrMatrix matrix) override {
        const Size size = {pixels.width, pixels.height};
        const Size chromaSize = {size.width / 2, size.height / 2};
        const auto source = m_canvas.MakeTexture(pixels, kSourceFormat);
        const auto planar = MakeTarget(size, format.luma); // its own memory is the luma plane
        const auto chroma = MakeTarget(chromaSize, format.chroma);
        const auto allocator = m_canvas.GetQueue()->CreateCommandAllocator();
        {
            const MethodPatch<Slot::kResourceGetDesc,
                              D3D12_RESOURCE_DESC*(ID3D12Resource*, D3D12_RESOURCE_DESC*)>
                describe(planar,
                         [&](auto original, ID3D12Resource* self, D3D12_RESOURCE_DESC* desc) {
                             original(self, desc);
                             desc->Format = self == planar.p ? format.planar : desc->Format;
                             return desc;
                         });
            using View = D3D12_RENDER_TARGET_VIEW_DESC;
            const MethodPatch<Slot::kDeviceCreateRenderTargetView,
                              void(ID3D12Device*, ID3D12Resource*, const View*,
                                   D3D12_CPU_DESCRIPTOR_HANDLE)>
                makeView(m_canvas.GetDevice()->Get(),
                         [&](auto original, ID3D12Device* self, ID3D12Resource* resource,
                             const View* view, D3D12_CPU_DESCRIPTOR_HANDLE handle) {
                             View plane = view != nullptr ? *view : View{};
                             const bool isChroma =
                                 resource == planar.p && plane.Texture2D.PlaneSlice == 1;
                             plane.Texture2D.PlaneSlice = 0;
                             original(self, isChroma ? chroma.p : resource,
                                      view != nullptr ? &plane : nullptr, handle);
                         });
            m_converter->Encode(allocator, source, planar, matrix,
                                {{{kReadable, kReadable}, {kTarget, kTarget}}});
        }
        allocator->TrackObject(chroma.p);
        allocator->Execute();
        return ToPlanes(format, size, Read(planar, size), chromaSize, Read(chroma, chromaSize));
    }

    std::string SentenceForWrongFormat() override {
        const auto texture = MakeTarget({8, 8}, DXGI_FORMAT_B8G8R8A8_UNORM);
        const auto allocator = m_canvas.GetQueue()->CreateCommandAllocator();
        const std::string sentence = SentenceOf(
            [&] { m_converter->Encode(allocator, texture, texture, YCbCrMatrix::BT709, {}); });
        EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }),
                  "There are no command lists to execute");
        return sentence;
    }

    Canvas& GetCanvas() { return m_canvas; }
    DX::D12YUVConverter& GetConverter() { return *m_converter; }

    CComPtr<ID3D12Resource> MakeTarget(const Size& size, DXGI_FORMAT format) {
        return m_canvas.MakeTarget(size.width, size.height, format)->GetFirstResource();
    }

private:
    std::vector<std::uint8_t> Read(const CComPtr<ID3D12Resource>& texture, const Size& size) {
        const auto format = Platform::GetDesc(texture).Format;
        const std::uint64_t rowSize = size.width * Bench11::BytesPerSample(format);
        std::vector<std::uint8_t> bytes(rowSize * size.height);
        DX::D12DownloadResourceParams params;
        params.source = texture;
        params.stateBefore = params.stateAfter = kTarget;
        params.subresources = {{bytes.data(), rowSize, bytes.size()}};
        m_canvas.GetQueue()->DownloadResource(params);
        return bytes;
    }

    Canvas m_canvas;
    boost::intrusive_ptr<DX::D12YUVConverter> m_converter;
};

std::unique_ptr<Bench> MakeBench(Generation generation, AlphaType alpha) {
    if (generation == Generation::Direct3D11) {
        return std::make_unique<Bench11>(alpha);
    }
    return std::make_unique<Bench12>(alpha);
}

// The greatest difference in codes, and where.
std::string DescribeDifference(const Planes& drawn, const Planes& expected, double bound) {
    for (std::size_t i = 0; i < drawn.size(); ++i) {
        for (unsigned y = 0; y < expected[i].size.height; ++y) {
            for (unsigned x = 0; x < expected[i].size.width; ++x) {
                const double difference = drawn[i].At(x, y) - std::round(expected[i].At(x, y));
                if (!(std::fabs(difference) <= bound)) {
                    return fmt::format("channel {} at ({}, {}): {:.3f} instead of {:.3f}", i, x, y,
                                       drawn[i].At(x, y), expected[i].At(x, y));
                }
            }
        }
    }
    return {};
}

Pixels MakeNoise(const Size& size) {
    std::mt19937 random(size.width * 1000 + size.height);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    return Quantize(MakePixels(size.width, size.height,
                               [&](unsigned, unsigned) {
                                   return Color{uniform(random), uniform(random), uniform(random),
                                                uniform(random)};
                               }),
                    kSourceFormat);
}

class D3YUVConverterTest : public testing::TestWithParam<Generation> {};

INSTANTIATE_TEST_SUITE_P(, D3YUVConverterTest, BothGenerations(), &NameOf);

TEST_P(D3YUVConverterTest, EveryFormatMatrixAndAlphaTypeAgreesWithTheReference) {
    for (const auto alpha :
         {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne, AlphaType::Premultiplied}) {
        const auto bench = MakeBench(GetParam(), alpha);
        for (const Size& size : {Size{2, 2}, Size{6, 4}, Size{257, 129}}) {
            const Pixels noise = MakeNoise(size);
            // Both ways of halving an odd size.
            for (const unsigned up : {0U, 1U}) {
                const Size half = {(size.width + up) / 2, (size.height + up) / 2};
                for (const Format& format : kFormats) {
                    for (const auto matrix :
                         {YCbCrMatrix::BT601, YCbCrMatrix::BT709, YCbCrMatrix::BT2020NonConstant}) {
                        EXPECT_EQ(DescribeDifference(bench->Convert(noise, format, half, matrix),
                                                     Reference(noise, format, half, alpha, matrix),
                                                     format.bound),
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
TEST_P(D3YUVConverterTest, AFullHDFrameAgreesWithTheReference) {
    const auto bench = MakeBench(GetParam(), AlphaType::NonPremultiplied);
    const Pixels waves = Quantize(
        MakePixels(1920, 1080,
                   [](unsigned x, unsigned y) {
                       const auto wave = [](double phase) { return 0.5 + 0.5 * std::sin(phase); };
                       return Color{wave(x / 11.0), wave(y / 13.0), wave((x + y) / 17.0),
                                    wave((x + 2.0 * y) / 19.0)};
                   }),
        kSourceFormat);
    for (const Format& format : kFormats) {
        EXPECT_EQ(DescribeDifference(bench->Convert(waves, format, {960, 540}, YCbCrMatrix::BT709),
                                     Reference(waves, format, {960, 540},
                                               AlphaType::NonPremultiplied, YCbCrMatrix::BT709),
                                     format.bound),
                  "")
            << format.bits;
    }
}

TEST_P(D3YUVConverterTest, ColorsGiveTheirPublishedCodes) {
    struct Case {
        Color color;
        YCbCrMatrix matrix;
        std::array<double, 3> codes; // at 10 bits
    };
    constexpr Case kCases[] = {
        {{0.25, 0.5, 0.75, 1}, YCbCrMatrix::BT601, {461, 662, 382}},
        {{1, 1, 1, 1}, YCbCrMatrix::BT709, {940, 512, 512}},
        {{0, 0, 0, 1}, YCbCrMatrix::BT709, {64, 512, 512}},
        {{1, 0, 0, 1}, YCbCrMatrix::BT709, {250, 409, 960}},
        {{0, 1, 0, 1}, YCbCrMatrix::BT2020NonConstant, {658, 189, 100}},
        {{0, 0, 1, 1}, YCbCrMatrix::BT601, {164, 960, 439}},
    };
    const auto bench = MakeBench(GetParam(), AlphaType::NonPremultiplied);
    for (const Case& c : kCases) {
        const Pixels pixels = MakePixels(2, 2, [&c](unsigned, unsigned) { return c.color; });
        const Planes planes = bench->Convert(pixels, kFormats[1], {1, 1}, c.matrix);
        for (std::size_t i = 0; i < planes.size(); ++i) {
            EXPECT_NEAR(planes[i].codes[0] * 1024.0 / 1023.0, c.codes[i], 0.55)
                << "channel " << i << " of " << testing::PrintToString(c.color);
        }
    }
}

TEST_P(D3YUVConverterTest, PlanarTexturesAreDrawnPlaneByPlane) {
    const auto bench = MakeBench(GetParam(), AlphaType::AlphaIsOne);
    const Pixels noise = MakeNoise({64, 36});
    for (const Format& format : kFormats) {
        EXPECT_EQ(DescribeDifference(
                      bench->ConvertPlanar(noise, format, YCbCrMatrix::BT709),
                      Reference(noise, format, {32, 18}, AlphaType::AlphaIsOne, YCbCrMatrix::BT709),
                      format.bound),
                  "")
            << format.bits;
    }
}

TEST_P(D3YUVConverterTest, OtherFormatsAreRefused) {
    EXPECT_EQ(MakeBench(GetParam(), AlphaType::AlphaIsOne)->SentenceForWrongFormat(),
              "Unsupported pixel format");
}

TEST(D12YUVConverterTest, KeepsItsSetUpAndRecordsOnlyTheBarriersThatAreDue) {
    Bench12 bench(AlphaType::AlphaIsOne);
    auto& canvas = bench.GetCanvas();
    const auto source = canvas.MakeTexture(MakeNoise({16, 8}), kSourceFormat);
    const auto luma = bench.MakeTarget({16, 8}, DXGI_FORMAT_R8_UNORM);
    const auto chroma = bench.MakeTarget({8, 4}, DXGI_FORMAT_R8G8_UNORM);
    int resources = 0;
    const MethodPatch<Slot::kDeviceCreateCommittedResource,
                      HRESULT(ID3D12Device*, const D3D12_HEAP_PROPERTIES*, D3D12_HEAP_FLAGS,
                              const D3D12_RESOURCE_DESC*, D3D12_RESOURCE_STATES,
                              const D3D12_CLEAR_VALUE*, REFIID, void**)>
        count(canvas.GetDevice()->Get(), [&](auto original, auto... arguments) {
            ++resources;
            return original(arguments...);
        });
    const auto probe = canvas.GetQueue()->CreateCommandAllocator();
    const auto probeList = probe->CreateCommandList(nullptr);
    std::vector<ID3D12Resource*> transitions;
    const MethodPatch<Slot::kListResourceBarrier,
                      void(ID3D12GraphicsCommandList*, UINT, const D3D12_RESOURCE_BARRIER*)>
        record(probeList->GetGraphics(),
               [&](auto original, auto* self, UINT number, const D3D12_RESOURCE_BARRIER* barriers) {
                   for (UINT i = 0; i < number; ++i) {
                       transitions.push_back(barriers[i].Transition.pResource);
                   }
                   original(self, number, barriers);
               });
    const auto encode = [&](YCbCrMatrix matrix, D3D12_RESOURCE_STATES sourceState) {
        resources = 0;
        transitions.clear();
        const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
        bench.GetConverter().Encode(
            allocator, source, luma, chroma, DXGI_FORMAT_NV12, matrix,
            {{{sourceState, kReadable}, {kTarget, kTarget}, {kTarget, kTarget}}});
        allocator->Execute();
        allocator->WaitComplete();
    };
    encode(YCbCrMatrix::BT709, kReadable);
    EXPECT_GE(resources, 2) << "parameters and the intermediate texture";
    EXPECT_EQ(transitions.size(), 3U) << "the intermediate texture's own";
    EXPECT_THAT(transitions, testing::Each(transitions[0]));
    encode(YCbCrMatrix::BT709, kReadable);
    EXPECT_EQ(resources, 0);
    encode(YCbCrMatrix::BT601, kReadable);
    EXPECT_GE(resources, 2) << "another matrix";

    canvas.GetQueue()->WaitComplete();
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
    allocator->ResourceBarrier(
        {CD3DX12_RESOURCE_BARRIER::Transition(source, kReadable, D3D12_RESOURCE_STATE_COMMON)});
    allocator->Execute();
    encode(YCbCrMatrix::BT601, D3D12_RESOURCE_STATE_COMMON);
    EXPECT_THAT(transitions, testing::Contains(source.p).Times(1));
    probeList->Close();
}

} // namespace

} // namespace Norvex::Test
