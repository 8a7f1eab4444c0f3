#include "tests/apps/YUVReference.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "tests/apps/Pictures.h"

namespace Norvex::Test {

namespace {

// In 1/256 of the range.
std::array<double, 3> GetCodes(const Pixel& pixel, Conf::YCbCrMatrix matrix) {
    const bool is601 = matrix == Conf::YCbCrMatrix::BT601;
    const bool is709 = matrix == Conf::YCbCrMatrix::BT709;
    const double kr = is601 ? 0.299 : is709 ? 0.2126 : 0.2627;
    const double kb = is601 ? 0.114 : is709 ? 0.0722 : 0.0593;
    const double r = pixel[0] * pixel[3];
    const double g = pixel[1] * pixel[3];
    const double b = pixel[2] * pixel[3];
    const double y = kr * r + (1.0 - kr - kb) * g + kb * b;
    return {16.0 + 219.0 * y, 128.0 + 224.0 * (b - y) / (2.0 * (1.0 - kb)),
            128.0 + 224.0 * (r - y) / (2.0 * (1.0 - kr))};
}

// Samples are codes divided by 2^bits, as the device rounds that; P010's are codes again.
double GetScale(const App::VideoFormat& format) {
    switch (format.bits) {
    case 8:
        return 255.0 / 256.0;
    case 10:
        return 256.0;
    default:
        return 65535.0 / 256.0;
    }
}

} // namespace

std::vector<Pixel> GetPixels(const App::Image& image) {
    const double largest = image.bitsPerChannel == 8 ? 255.0 : 65535.0;
    std::vector<Pixel> pixels(std::size_t{image.width} * image.height);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        for (std::size_t channel = 0; channel < 4; ++channel) {
            pixels[i][channel] =
                GetSample(image, i % image.width, i / image.width, channel) / largest;
        }
    }
    return pixels;
}

std::vector<double> ReferenceFrame(const std::vector<Pixel>& pixels, const DX::Size2DT<long>& size,
                                   const App::VideoFormat& format, Conf::YCbCrMatrix matrix) {
    const auto codesAt = [&](long x, long y) {
        const long column = std::min(x, size.width - 1);
        const long row = std::min(y, size.height - 1);
        const long index = row * size.width + column;
        return GetCodes(pixels[static_cast<std::size_t>(index)], matrix);
    };
    const double scale = GetScale(format);
    std::vector<double> samples;
    for (long y = 0; y < size.height; ++y) {
        for (long x = 0; x < size.width; ++x) {
            samples.push_back(codesAt(x, y)[0] * scale);
        }
    }
    for (long y = 0; y < size.height; y += 2) {
        for (long x = 0; x < size.width; x += 2) {
            for (const std::size_t channel : {1U, 2U}) {
                samples.push_back((codesAt(x, y)[channel] + codesAt(x + 1, y)[channel] +
                                   codesAt(x, y + 1)[channel] + codesAt(x + 1, y + 1)[channel]) /
                                  4.0 * scale);
            }
        }
    }
    return samples;
}

std::vector<double> GetSamples(const App::VideoFormat& format, const std::uint8_t* frame,
                               std::size_t sizeInBytes) {
    std::vector<double> samples;
    const std::size_t step = format.GetSampleSize();
    for (std::size_t i = 0; i < sizeInBytes; i += step) {
        samples.push_back(step == 1 ? frame[i] : frame[i] + 256 * frame[i + 1]);
    }
    return samples;
}

std::string DescribeDifference(const App::VideoFormat& format, const std::vector<double>& actual,
                               const std::vector<double>& expected) {
    if (actual.size() != expected.size()) {
        return fmt::format("{} samples instead of {}", actual.size(), expected.size());
    }
    const double code = format.bits == 10 ? 64.0 : 1.0;
    const double bound = format.bits == 16 ? 8.0 : code;
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const double nearest = std::round(expected[i] / code) * code;
        if (!(std::fabs(actual[i] - nearest) <= bound) || std::fmod(actual[i], code) != 0.0) {
            return fmt::format("sample {} of {}: {} instead of {:.2f}", i, actual.size(), actual[i],
                               expected[i]);
        }
    }
    return {};
}

} // namespace Norvex::Test
