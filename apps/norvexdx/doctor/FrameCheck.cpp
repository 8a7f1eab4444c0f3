#include "apps/norvexdx/doctor/FrameCheck.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include <fmt/format.h>

#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/graphics/FrameEncoder.h"
#include "apps/norvexdx/reference/FrameReference.h"
#include "apps/norvexdx/reference/ScaleReference.h"

namespace Norvex::App {

namespace {

using Conf::YCbCrMatrix;
using DX::ChromaLocation;
using DX::D3FrameDesc;
using DX::FrameRange;

constexpr DX::Size2DT<long> kFrameSize = {35, 18};
constexpr double kOfPictures = 65535.0; // samples
// Rounding, and what docs/colour.md tells of single precision: at 16 bits with other colours, and
// where they are mixed with grey so that a channel is next to nothing.
constexpr double kAllowedCodes = 0.52;
constexpr double kAllowedDeepCodes = 0.7;
constexpr double kAllowedMappedCodes = 2.0;
constexpr double kAllowedScaled = 1.0;
constexpr double kAllowedScaledHalf = 48.0; // in pictures of 16-bit floats

constexpr YCbCrMatrix kMatrices[] = {YCbCrMatrix::BT601, YCbCrMatrix::BT709,
                                     YCbCrMatrix::BT2020NonConstant};

Reference::Frame MakeNoise(const D3FrameDesc& desc) {
    std::mt19937 random(709);
    return Reference::MakeFrame(desc, [&](unsigned channel, long, long) {
        return channel == 3 ? 1.0 : static_cast<double>(random() % (1U << desc.bitDepth));
    });
}

ClipFrame MakeClipFrame(const Reference::Frame& frame) {
    const D3FrameDesc& desc = frame.desc;
    ClipFrame result(desc.IsRGB() ? Image::Make(desc.size, desc.bitDepth) : Image());
    if (!desc.IsRGB()) {
        result.SetPlanes(desc);
        result.pixels = Reference::PackFrame(frame);
        return result;
    }
    for (std::size_t i = 0; i < result.pixels.size() / 2; ++i) {
        const double value = frame.channels.at(i % 4)[i / 4];
        const auto sample = static_cast<std::uint16_t>(i % 4 == 3 ? value * kOfPictures : value);
        std::memcpy(result.pixels.data() + 2 * i, &sample, sizeof(sample));
    }
    return result;
}

struct FrameCase {
    D3FrameDesc source;
    D3FrameDesc target;
    VideoFormat format; // the target's
    double allowed = kAllowedCodes;
    DX::D3ToneMapping tones = {};
};

FrameError CheckFrame(const Graphics& graphics, const FrameCase& wanted) {
    const auto& [source, target, format, allowed, tones] = wanted;
    Proc::ColorAlphaConversionInfo info;
    info.source = source.colorSpace;
    info.target = target.colorSpace;
    info.sourceAlpha = Proc::AlphaType::AlphaIsOne;
    info.targetAlpha = Proc::AlphaType::AlphaIsOne;
    OnePassParams onePass;
    onePass.target = target;
    onePass.stages.tones = tones;
    const auto encoder = FrameEncoder::Open(graphics, {.format = format,
                                                       .matrix = target.matrix,
                                                       .size = target.size,
                                                       .conversion = info,
                                                       .alpha = info.sourceAlpha,
                                                       .onePass = onePass});
    const Reference::Frame frame = MakeNoise(source);
    encoder->Submit(MakeClipFrame(frame));
    std::vector<std::uint8_t> planes;
    encoder->Collect(planes);
    const auto [largest, psnr] =
        Reference::CompareFrame(planes, Reference::ConvertFrame(frame, target, info, false, tones));
    return {{}, {}, largest, allowed, psnr};
}

std::string NameFrame(const VideoFormat& format, const D3FrameDesc& desc) {
    constexpr const char* kPlaces[] = {"left", "centre", "top-left"};
    return fmt::format(
        "{} {} {} {}", format.name, desc.range == FrameRange::Full ? "full" : "narrow",
        GetMatrixName(desc.matrix), kPlaces[static_cast<std::size_t>(desc.chromaLocation)]);
}

D3FrameDesc MakeRGB() {
    D3FrameDesc desc = D3FrameDesc::MakeRGB(kFrameSize);
    desc.bitDepth = 16;
    return desc;
}

void CheckLayouts(const Graphics& graphics, std::vector<FrameError>& errors) {
    const VideoFormat deep = ParseVideoFormat("yuv444p16").value();
    unsigned turn = 0;
    for (const VideoFormat& format : GetVideoFormats()) {
        for (unsigned i = 0; i < 3; ++i, ++turn) {
            D3FrameDesc desc = format.Describe(kFrameSize);
            desc.range = i == 1 ? FrameRange::Full : FrameRange::Narrow;
            desc.matrix = kMatrices[turn % std::size(kMatrices)];
            desc.chromaLocation = static_cast<ChromaLocation>((i + turn / 3) % 3);
            const bool isSource = i == 2;
            FrameCase wanted = {MakeRGB(), desc, format};
            if (isSource) {
                wanted = {desc, deep.Describe(kFrameSize), deep};
            }
            wanted.source.colorSpace = wanted.target.colorSpace;
            FrameError error = CheckFrame(graphics, wanted);
            error.from = isSource ? NameFrame(format, desc) : "rgb";
            error.to = isSource ? deep.name : NameFrame(format, desc);
            errors.push_back(error);
        }
    }
}

void CheckColors(const Graphics& graphics, std::vector<FrameError>& errors) {
    const VideoFormat format = ParseVideoFormat("yuv444p10").value();
    const VideoFormat deep = ParseVideoFormat("yuv444p16").value();
    const DX::D3ToneMapping kMapped = {.curve = DX::ToneCurve::BT2390,
                                       .gamut = DX::GamutReduction::Soft};
    const std::tuple<const char*, const char*, DX::D3ToneMapping> kPairs[] = {
        {"rec709", "rec2020-pq", {}},
        {"rec2020-pq", "rec709", {}},
        {"rec2020-pq", "rec709", kMapped},
        {"rec2020-pq", "rec2020-hlg", {}},
        {"rec2020-hlg", "rec709", {}},
        {"srgb", "rec2020-hlg", {}},
        {"rec2020", "srgb", {}}};
    for (const auto& [from, to, tones] : kPairs) {
        for (const VideoFormat& to16 : {format, deep}) {
            FrameCase wanted = {format.Describe(kFrameSize), to16.Describe(kFrameSize), to16};
            wanted.source.colorSpace = ParseColorSpace(from).value();
            wanted.target.colorSpace = ParseColorSpace(to).value();
            const bool isMapped = tones != DX::D3ToneMapping{};
            wanted.allowed = to16.bits != 16 ? kAllowedCodes
                             : isMapped      ? kAllowedMappedCodes
                                             : kAllowedDeepCodes;
            wanted.tones = tones;
            FrameError error = CheckFrame(graphics, wanted);
            error.from = fmt::format("{} {}", format.name, from);
            error.to = fmt::format("{} {}{}", to16.name, to, isMapped ? " mapped" : "");
            errors.push_back(error);
        }
    }
}

constexpr unsigned kPlate = 48; // pixels of a side

struct ZonePlate {
    Reference::Picture picture;
    Image image = Image::Make({kPlate, kPlate}, 16);
};

// The same samples in both.
ZonePlate MakeZonePlate() {
    ZonePlate plate{Reference::MakeZonePlate(kPlate)};
    auto* to = plate.image.pixels.data();
    for (Reference::Pixel& pixel : plate.picture.pixels) {
        for (double& value : pixel) {
            const auto sample = static_cast<std::uint16_t>(std::lround(value * kOfPictures));
            value = sample / kOfPictures;
            std::memcpy(to, &sample, sizeof(sample));
            to += sizeof(sample);
        }
    }
    return plate;
}

struct KernelCase {
    const char* name;
    DX::ScaleKernel kernel;
    Reference::Kernel reference;
};

FrameError CheckKernel(Graphics& graphics, const Picture& picture, const Reference::Picture& plate,
                       const KernelCase& wanted, long side) {
    const DX::Size2DT<long> size = {side, side};
    const auto scaled = graphics.Scale(picture, size, wanted.kernel, Proc::AlphaType::AlphaIsOne);
    const auto canvas = graphics.MakeCanvas(size, 16);
    graphics.Draw(*scaled, *canvas, {.view = {}, .conversion = {}, .rect = {}, .background = {}});
    const Image drawn = canvas->Download();
    const auto expected = Reference::ReferenceScale(plate, {.kernel = wanted.reference,
                                                            .right = double{kPlate},
                                                            .bottom = double{kPlate},
                                                            .width = static_cast<unsigned>(side),
                                                            .height = static_cast<unsigned>(side),
                                                            .alpha = Proc::AlphaType::AlphaIsOne});
    FrameError error = {wanted.name, fmt::format("{} to {}", kPlate, side), 0.0,
                        canvas->GetFormat() == DXGI_FORMAT_R16G16B16A16_FLOAT ? kAllowedScaledHalf
                                                                              : kAllowedScaled};
    double squares = 0.0;
    const auto* sampleOf = drawn.pixels.data();
    for (const Reference::Pixel& pixel : expected.pixels) {
        std::uint16_t sample = 0;
        std::memcpy(&sample, sampleOf, sizeof(sample));
        sampleOf += Image::kChannels * sizeof(sample);
        const double difference = sample - std::clamp(pixel[0], 0.0, 1.0) * kOfPictures;
        error.largest = std::max(error.largest, std::fabs(difference));
        squares += difference * difference;
    }
    const auto count = static_cast<double>(expected.pixels.size());
    error.psnr = 10.0 * std::log10(kOfPictures * kOfPictures * count / std::max(squares, 1e-9));
    return error;
}

} // namespace

std::vector<FrameError> CheckFrames(const Graphics& graphics) {
    std::vector<FrameError> errors;
    CheckLayouts(graphics, errors);
    CheckColors(graphics, errors);
    return errors;
}

std::vector<FrameError> CheckScaler(Graphics& graphics) {
    constexpr KernelCase kKernels[] = {
        {"bilinear", DX::ScaleKernel::Bilinear, Reference::Kernel::Bilinear},
        {"catmull-rom", DX::ScaleKernel::CatmullRom, Reference::Kernel::CatmullRom},
        {"mitchell", DX::ScaleKernel::Mitchell, Reference::Kernel::Mitchell},
        {"lanczos", DX::ScaleKernel::Lanczos3, Reference::Kernel::Lanczos3},
        {"area", DX::ScaleKernel::Area, Reference::Kernel::Area}};
    const ZonePlate plate = MakeZonePlate();
    const auto picture = graphics.Upload(plate.image);
    std::vector<FrameError> errors;
    for (const KernelCase& kernel : kKernels) {
        for (const long side : {19L, 67L}) {
            errors.push_back(CheckKernel(graphics, *picture, plate.picture, kernel, side));
        }
    }
    return errors;
}

} // namespace Norvex::App
