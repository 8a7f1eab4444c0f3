#include "apps/norvexdx/doctor/ConversionCheck.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "apps/norvexdx/graphics/FrameEncoder.h"
#include "apps/norvexdx/reference/ColorReference.h"
#include "apps/norvexdx/reference/YCbCrReference.h"

namespace Norvex::App {

namespace {

using enum Conf::ColorPrimaries;
using Conf::TransferCharacteristics;
using Proc::AlphaType;
using Proc::LinearizationMode;

constexpr double kMaxSample = 65535.0;
constexpr DX::Size2DT<long> kCardSize = {64, 12};
constexpr AlphaType kAlphas[] = {AlphaType::NonPremultiplied, AlphaType::AlphaIsOne,
                                 AlphaType::Premultiplied};

constexpr Conf::RGBColorSpace kSpaces[] = {
    {BT709, TransferCharacteristics::sRGB},   {BT709, TransferCharacteristics::BT709},
    {BT2020, TransferCharacteristics::BT709}, {BT2020, TransferCharacteristics::PQ},
    {BT2020, TransferCharacteristics::HLG},   {BT709, TransferCharacteristics::Linear}, // target
};

using Samples = std::array<std::uint16_t, Image::kChannels>;

Samples SamplesAt(const Image& image, std::size_t pixel) {
    Samples samples{};
    std::memcpy(samples.data(), image.pixels.data() + pixel * sizeof(samples), sizeof(samples));
    return samples;
}

// A ramp of grey, then colours and alphas at random. Premultiplied: no colour above its alpha.
Image MakeCard(bool isPremultiplied) {
    Image card = Image::Make(kCardSize, 16);
    std::mt19937 random(2020);
    const std::size_t count = std::size_t{card.width} * card.height;
    for (std::size_t i = 0; i < count; ++i) {
        Samples samples{};
        for (std::uint16_t& sample : samples) {
            sample = static_cast<std::uint16_t>(random());
        }
        if (i < card.width) {
            const auto level = static_cast<std::uint16_t>(i * 0xFFFF / (card.width - 1));
            samples = {level, level, level, 0xFFFF};
        }
        if (isPremultiplied) {
            for (std::size_t channel = 0; channel < 3; ++channel) {
                samples[channel] = std::min(samples[channel], samples[3]);
            }
        }
        std::memcpy(card.pixels.data() + i * sizeof(samples), samples.data(), sizeof(samples));
    }
    return card;
}

Reference::Pixel PixelAt(const Image& card, std::size_t index) {
    Reference::Pixel color{};
    std::ranges::transform(SamplesAt(card, index), color.begin(),
                           [](std::uint16_t sample) { return sample / kMaxSample; });
    return color;
}

double FindLargestError(const Image& card, const Image& drawn,
                        const Proc::ColorAlphaConversionInfo& conversion) {
    double largest = 0.0;
    const std::size_t count = std::size_t{card.width} * card.height;
    for (std::size_t i = 0; i < count; ++i) {
        const Reference::Pixel expected = Reference::ReferenceConvert(PixelAt(card, i), conversion);
        const Samples samples = SamplesAt(drawn, i);
        for (std::size_t channel = 0; channel < samples.size(); ++channel) {
            const double wanted = std::clamp(expected[channel], 0.0, 1.0) * kMaxSample;
            largest = std::max(largest, std::fabs(samples[channel] - wanted));
        }
    }
    return largest;
}

// As docs/colour.md tells of the shader; rounding to the target's samples comes to it.
double GetAllowed(const Conf::RGBColorSpace& from, const Conf::RGBColorSpace& to,
                  DXGI_FORMAT format) {
    const bool cancels = from.transfer == TransferCharacteristics::PQ && to.primaries == BT709;
    const bool isHalf = format == DXGI_FORMAT_R16G16B16A16_FLOAT;
    return (cancels ? 100.0 : 8.0) + (isHalf ? 32.0 : 1.0);
}

} // namespace

std::vector<ConversionError> CheckConversions(Graphics& graphics) {
    const Image cards[] = {MakeCard(false), MakeCard(true)};
    const std::unique_ptr<Picture> pictures[] = {graphics.Upload(cards[0]),
                                                 graphics.Upload(cards[1])};
    const auto canvas = graphics.MakeCanvas(kCardSize, 16);
    std::vector<ConversionError> errors;
    for (const auto& from : kSpaces) {
        for (const auto& to : kSpaces) {
            if (from.transfer == TransferCharacteristics::Linear) {
                continue;
            }
            ConversionError error = {from, to, 0.0, GetAllowed(from, to, canvas->GetFormat())};
            for (unsigned mode = 0; mode < 3; ++mode) {
                Proc::ColorAlphaConversionInfo conversion;
                conversion.source = from;
                conversion.target = to;
                conversion.mode = static_cast<LinearizationMode>(mode);
                conversion.sourceAlpha = kAlphas[(errors.size() + mode) % 3];
                conversion.targetAlpha = kAlphas[(errors.size() / 3 + mode) % 3];
                const bool isPremultiplied = conversion.sourceAlpha == AlphaType::Premultiplied;
                graphics.Draw(*pictures[isPremultiplied ? 1 : 0], *canvas,
                              {.view = {},
                               .conversion = conversion,
                               .rect = {},
                               .background = {},
                               .blends = false});
                error.largest =
                    std::max(error.largest, FindLargestError(cards[isPremultiplied ? 1 : 0],
                                                             canvas->Download(), conversion));
            }
            errors.push_back(error);
        }
    }
    return errors;
}

std::vector<YCbCrError> CheckYCbCr(const Graphics& graphics) {
    const Image card = MakeCard(false);
    std::vector<Reference::Pixel> pixels(std::size_t{card.width} * card.height);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        pixels[i] = PixelAt(card, i);
    }
    std::vector<YCbCrError> errors;
    std::vector<std::uint8_t> planes;
    for (const VideoFormat& format : GetPairFormats()) {
        for (const auto matrix : {Conf::YCbCrMatrix::BT601, Conf::YCbCrMatrix::BT709,
                                  Conf::YCbCrMatrix::BT2020NonConstant}) {
            for (const AlphaType alpha : kAlphas) {
                const auto encoder = FrameEncoder::Open(graphics, {.format = format,
                                                                   .matrix = matrix,
                                                                   .size = kCardSize,
                                                                   .conversion = {},
                                                                   .alpha = alpha});
                encoder->Submit(card);
                encoder->Collect(planes);
                const auto expected =
                    Reference::ReferenceFrame(pixels, {card.width, card.height}, matrix, alpha,
                                              {card.width / 2, card.height / 2});
                const auto error = Reference::FindLargestError(planes, format.bits, expected);
                errors.push_back(
                    {format, matrix, alpha, encoder->IsPlanar(), error.largest, error.allowed});
            }
        }
    }
    return errors;
}

} // namespace Norvex::App
