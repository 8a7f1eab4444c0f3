#include "tests/support/YCbCrReference.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

namespace Norvex::Test {

namespace {

struct Weights {
    double red;
    double blue;
};

Weights GetWeights(Conf::YCbCrMatrix matrix) {
    switch (matrix) {
    case Conf::YCbCrMatrix::BT601:
        return {0.299, 0.114};
    case Conf::YCbCrMatrix::BT709:
        return {0.2126, 0.0722};
    default:
        return {0.2627, 0.0593};
    }
}

// One channel of a pixel, in 1/256 of the range.
double GetCode(const Color& color, double opacity, const Weights& weights, std::size_t channel) {
    const double y = weights.red * color[0] + weights.blue * color[2] +
                     (1.0 - weights.red - weights.blue) * color[1];
    const double blue = (color[2] - y) / (2.0 * (1.0 - weights.blue));
    const double red = (color[0] - y) / (2.0 * (1.0 - weights.red));
    return channel == 0 ? 16.0 + 219.0 * y * opacity
                        : 128.0 + 224.0 * opacity * (channel == 1 ? blue : red);
}

} // namespace

std::vector<double> ReferenceFrame(const Pixels& pixels, Conf::YCbCrMatrix matrix,
                                   Proc::AlphaType alpha, const DX::Size2DT<unsigned>& chromaSize) {
    const auto codeAt = [&](unsigned x, unsigned y, std::size_t channel) {
        const Color& color =
            pixels.At(std::min(x, pixels.width - 1), std::min(y, pixels.height - 1));
        const double opacity = alpha == Proc::AlphaType::NonPremultiplied ? color[3] : 1.0;
        return GetCode(color, opacity, GetWeights(matrix), channel) / 256.0;
    };
    std::vector<double> frame;
    for (unsigned y = 0; y < pixels.height; ++y) {
        for (unsigned x = 0; x < pixels.width; ++x) {
            frame.push_back(codeAt(x, y, 0));
        }
    }
    for (unsigned y = 0; y < 2 * chromaSize.height; y += 2) {
        for (unsigned x = 0; x < 2 * chromaSize.width; x += 2) {
            for (const std::size_t i : {1U, 2U}) {
                frame.push_back((codeAt(x, y, i) + codeAt(x + 1, y, i) + codeAt(x, y + 1, i) +
                                 codeAt(x + 1, y + 1, i)) /
                                4.0);
            }
        }
    }
    return frame;
}

std::string DescribeDifference(std::span<const std::uint8_t> frame, unsigned bits,
                               const std::vector<double>& expected) {
    const std::size_t size = bits == 8 ? 1 : 2;
    const double bound = bits == 8 ? 1.5 : bits == 10 ? 64.0 : 8.0;
    if (frame.size() != expected.size() * size) {
        return fmt::format("{} samples instead of {}", frame.size() / size, expected.size());
    }
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const double sample = size == 1 ? frame[i] : frame[2 * i] + 256.0 * frame[2 * i + 1];
        const double wanted = expected[i] * (size == 1 ? 255.0 : 65535.0);
        if (!(std::fabs(sample - wanted) <= bound)) {
            return fmt::format("sample {} of {}: {} instead of {:.2f}", i, expected.size(), sample,
                               wanted);
        }
    }
    return {};
}

} // namespace Norvex::Test
