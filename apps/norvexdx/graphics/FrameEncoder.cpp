#include "apps/norvexdx/graphics/FrameEncoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App {

namespace {

// Of frames whose colours stay: any that is the same on both sides.
constexpr Conf::RGBColorSpace kAnySpace = {Conf::ColorPrimaries::BT709,
                                           Conf::TransferCharacteristics::BT709};

using Codes = std::array<double, 3>; // of luma, C'b, C'r, divided by 2^bits

constexpr std::array<std::array<std::uint8_t, 3>, 8> kTestColors = {{{255, 0, 0},
                                                                     {0, 255, 0},
                                                                     {0, 0, 255},
                                                                     {255, 255, 255},
                                                                     {0, 0, 0},
                                                                     {200, 100, 50},
                                                                     {30, 60, 220},
                                                                     {128, 240, 128}}};
constexpr DX::Size2DT<long> kTestSize = {8, 4};
constexpr long kBlock = 2; // pixels of one colour, so that halving chroma changes nothing

std::size_t GetTestColor(long x, long y) {
    const long block = y / kBlock * (kTestSize.width / kBlock) + x / kBlock;
    return static_cast<std::size_t>(block);
}

std::size_t GetTestPixel(long x, long y) {
    const long pixel = y * kTestSize.width + x;
    return static_cast<std::size_t>(pixel);
}

Image MakeTestPicture() {
    Image picture = Image::Make(kTestSize, 8);
    auto* pixel = picture.pixels.data();
    for (long y = 0; y < kTestSize.height; ++y) {
        for (long x = 0; x < kTestSize.width; ++x) {
            const auto& color = kTestColors[GetTestColor(x, y)];
            pixel = std::ranges::copy(color, pixel).out;
            *pixel++ = 0xFF;
        }
    }
    return picture;
}

// Narrow range.
Codes GetCodes(const std::array<std::uint8_t, 3>& color, Conf::YCbCrMatrix matrix) {
    const auto rows = Conf::GetRGBToYpPbPrMatrix(matrix);
    Codes codes = {16.0 / 256.0, 128.0 / 256.0, 128.0 / 256.0};
    for (std::size_t i = 0; i < codes.size(); ++i) {
        const double range = i == 0 ? 219.0 : 224.0;
        for (std::size_t j = 0; j < color.size(); ++j) {
            codes[i] += rows[i][j] * color[j] / 255.0 * range / 256.0;
        }
    }
    return codes;
}

// Sample `index`, divided by the largest.
double GetSample(const std::vector<std::uint8_t>& planes, std::size_t index, bool isDeep) {
    if (!isDeep) {
        return planes[index] / 255.0;
    }
    std::uint16_t sample = 0;
    std::memcpy(&sample, &planes[2 * index], sizeof(sample));
    return sample / 65535.0;
}

long GetLargestSide(D3D_FEATURE_LEVEL level) {
    constexpr long kSideBefore11 = 8192; // D3D10_REQ_TEXTURE2D_U_OR_V_DIMENSION
    return level >= D3D_FEATURE_LEVEL_11_0 ? D3D11_REQ_TEXTURE2D_U_OR_V_DIMENSION : kSideBefore11;
}

// Converts the test picture and compares both planes with the formulas of ITU-R BT.601, BT.709 or
// BT.2020. The encoder has the size kTestSize.
bool HasTruePlanes(FrameEncoder& encoder, const EncoderParams& params) {
    constexpr double kTolerance = 2.5 / 256.0;
    std::vector<std::uint8_t> planes;
    encoder.Submit(MakeTestPicture());
    encoder.Collect(planes);
    const bool isDeep = params.format.bits > 8;
    const auto isNear = [&](std::size_t index, double code) {
        return std::abs(GetSample(planes, index, isDeep) - code) <= kTolerance;
    };
    const std::size_t lumaCount = GetTestPixel(0, kTestSize.height);
    for (long y = 0; y < kTestSize.height; ++y) {
        for (long x = 0; x < kTestSize.width; ++x) {
            const std::size_t pixel = GetTestPixel(x, y);
            const std::size_t pair = lumaCount + 2 * GetTestColor(x, y);
            const Codes codes = GetCodes(kTestColors[GetTestColor(x, y)], params.matrix);
            if (!isNear(pixel, codes[0]) || !isNear(pair, codes[1]) ||
                !isNear(pair + 1, codes[2])) {
                return false;
            }
        }
    }
    return true;
}

bool PassesPlanarTest(const Graphics& graphics, const EncoderParams& params) {
    try {
        const EncoderParams test = {.format = params.format,
                                    .matrix = params.matrix,
                                    .size = kTestSize,
                                    .conversion = {},
                                    .alpha = params.alpha};
        return HasTruePlanes(*graphics.MakeEncoder(test, {.isPlanar = true}), test);
    } catch (const DX::DirectXException&) {
        return false;
    }
}

std::string GetUpperName(const VideoFormat& format) {
    std::string name = format.name;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return name;
}

bool IsEven(const DX::Size2DT<long>& size) {
    return size.width % 2 == 0 && size.height % 2 == 0;
}

void CheckSize(const DX::Size2DT<long>& size, long largestSide) {
    if (size.width > largestSide || size.height > largestSide) {
        throw Failure(fmt::format("frames of {} x {} pixels are larger than the adapter takes "
                                  "({} x {})",
                                  size.width, size.height, largestSide, largestSide));
    }
}

DXGI_FORMAT ChooseCanvasFormat(const std::function<FormatUses(DXGI_FORMAT)>& usesOf) {
    for (const DXGI_FORMAT format :
         {DXGI_FORMAT_R16G16B16A16_UNORM, DXGI_FORMAT_R16G16B16A16_FLOAT}) {
        const FormatUses uses = usesOf(format);
        if (uses.drawTo && uses.drawFrom) {
            return format;
        }
    }
    throw Failure("the adapter cannot draw pictures of 16 bits a channel");
}

// A texture a plane, and intermediate pictures that lose nothing where the adapter has such.
EncoderTextures ChooseOnePass(const Graphics& graphics, const EncoderParams& params) {
    CheckSize(params.size, GetLargestSide(graphics.GetDevice().GetFeatureLevel()));
    const DX::D3FrameDesc& target = params.onePass->target;
    for (unsigned plane = 0; plane < target.GetPlaneCount(); ++plane) {
        if (!graphics.GetUses(target.GetPlane(plane).format).drawTo) {
            throw Failure(
                fmt::format("the adapter cannot draw the planes of {}", params.format.name));
        }
    }
    const FormatUses floats = graphics.GetUses(DXGI_FORMAT_R32G32B32A32_FLOAT);
    return {.isPlanar = false,
            .canvasFormat = floats.drawTo && floats.drawFrom ? DXGI_FORMAT_R32G32B32A32_FLOAT
                                                             : DXGI_FORMAT_R16G16B16A16_FLOAT};
}

} // namespace

std::unique_ptr<FrameEncoder> FrameEncoder::Open(const Graphics& graphics,
                                                 const EncoderParams& params) {
    if (params.onePass) {
        return graphics.MakeEncoder(params, ChooseOnePass(graphics, params));
    }
    const TextureChoice choice =
        ChooseTextures(params, GetLargestSide(graphics.GetDevice().GetFeatureLevel()),
                       [&graphics](DXGI_FORMAT format) { return graphics.GetUses(format); });
    const bool isPlanar = choice.mayBePlanar && PassesPlanarTest(graphics, params);
    if (!isPlanar && !choice.hasPair) {
        throw Failure(fmt::format("the adapter's {} textures come out wrong, and it cannot draw on "
                                  "{} instead",
                                  GetUpperName(params.format), params.format.planesName));
    }
    return graphics.MakeEncoder(params, {isPlanar, choice.canvasFormat});
}

std::size_t FrameEncoder::Submit(const ClipFrame& frame) {
    if (m_count == kSlots) {
        throw std::logic_error("all slots are in flight");
    }
    const std::size_t slot = (m_oldest + m_count) % kSlots;
    Begin(slot, frame);
    ++m_count;
    const std::size_t canvas = IsDrawn(frame) ? static_cast<std::size_t>(m_params.size.width) *
                                                    static_cast<std::size_t>(m_params.size.height) *
                                                    App::GetPixelSize(m_textures.canvasFormat)
                                              : 0;
    // Each in a texture and in memory for its transfer.
    m_bytes[slot] =
        2 * frame.pixels.size() + canvas + 2 * m_params.format.GetFrameBytes(m_params.size);
    return m_bytes[slot];
}

FrameEncoder::Collected FrameEncoder::Collect(std::vector<std::uint8_t>& planes) {
    if (m_count == 0) {
        throw std::logic_error("nothing is in flight");
    }
    planes.resize(m_params.format.GetFrameBytes(m_params.size));
    const std::size_t slot = m_oldest;
    const auto gpuMs = End(slot, planes.data());
    m_oldest = (m_oldest + 1) % kSlots;
    --m_count;
    return {gpuMs, m_bytes[slot]};
}

bool FrameEncoder::IsDrawn(const ClipFrame& frame) const {
    return (m_params.conversion && !m_params.onePass) || frame.GetSize() != m_params.size;
}

DX::D3FrameDesc FrameEncoder::DescribeSource(const ClipFrame& frame) const {
    DX::D3FrameDesc desc =
        frame.desc.value_or(DX::D3FrameDesc::MakeRGB(frame.GetSize(), m_params.alpha));
    desc.bitDepth = frame.desc ? desc.bitDepth : frame.bitsPerChannel;
    desc.colorSpace = m_params.conversion ? m_params.conversion->source : kAnySpace;
    return desc;
}

DX::D3FrameDesc FrameEncoder::DescribeTarget() const {
    DX::D3FrameDesc desc = m_params.onePass->target;
    desc.colorSpace = m_params.conversion ? m_params.conversion->target : kAnySpace;
    return desc;
}

DX::D3FrameDesc FrameEncoder::DescribeScaled(const ClipFrame& frame) const {
    const DX::D3FrameDesc source = DescribeSource(frame);
    DX::D3FrameDesc desc = DX::D3FrameDesc::MakeRGB(m_params.size, source.alpha);
    desc.bitDepth = 16;
    desc.colorSpace = source.colorSpace;
    return desc;
}

DX::ScaleParams FrameEncoder::GetScaling(const ClipFrame& frame) const {
    const DX::Size2DT<long> source = frame.GetSize();
    const auto& [width, height] = m_params.size;
    const double scale = std::min(static_cast<double>(width) / static_cast<double>(source.width),
                                  static_cast<double>(height) / static_cast<double>(source.height));
    const auto fitted = [scale](long side, long room) {
        return std::clamp(std::lround(static_cast<double>(side) * scale), 1L, room);
    };
    const DX::Size2DT<long> size = {fitted(source.width, width), fitted(source.height, height)};
    const long left = (width - size.width) / 2;
    const long top = (height - size.height) / 2;
    return {.kernel = m_params.onePass->kernel,
            .rect = DX::Rect2DT<long>{left, top, left + size.width, top + size.height}};
}

DX::FrameConvertParams FrameEncoder::GetConversion() const {
    DX::FrameConvertParams params;
    if (m_params.conversion) {
        const Proc::ColorConversionInfo& colors = *m_params.conversion; // alpha is the frames'
        params.conversion = colors;
    }
    params.dither = m_params.onePass->dither;
    params.toneMapping = m_params.onePass->stages.tones;
    return params;
}

TextureChoice ChooseTextures(const EncoderParams& params, long largestSide,
                             const std::function<FormatUses(DXGI_FORMAT)>& usesOf) {
    CheckSize(params.size, largestSide);
    const VideoFormat& format = params.format;
    const auto isTarget = [&](DXGI_FORMAT plane) {
        const FormatUses uses = usesOf(plane);
        return uses.drawTo && uses.drawFrom; // chroma is drawn twice
    };
    TextureChoice choice;
    choice.mayBePlanar = IsEven(params.size) && usesOf(format.planar).drawTo;
    choice.hasPair = isTarget(format.luma) && isTarget(format.chroma);
    if (!choice.mayBePlanar && !choice.hasPair) {
        throw Failure(fmt::format(
            "the adapter cannot draw {}: neither on such textures{} nor on {}",
            GetUpperName(format), IsEven(params.size) ? "" : " of odd size", format.planesName));
    }
    choice.canvasFormat = ChooseCanvasFormat(usesOf);
    return choice;
}

} // namespace Norvex::App
