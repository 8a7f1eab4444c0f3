#include "tests/support/YCbCrReference.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <fmt/format.h>

namespace Norvex::Test {

using Conf::YCbCrMatrix;

namespace {

// Cut to the narrow range, as what filters and scRGB leave beyond needs it.
std::array<double, 3> CodesOf(const Color& color, double opacity, YCbCrMatrix matrix) {
    const auto [kr, kb] = matrix == YCbCrMatrix::BT601   ? std::pair(0.299, 0.114)
                          : matrix == YCbCrMatrix::BT709 ? std::pair(0.2126, 0.0722)
                                                         : std::pair(0.2627, 0.0593);
    const double y = kr * color[0] + (1.0 - kr - kb) * color[1] + kb * color[2];
    const auto chroma = [opacity](double difference) {
        return std::clamp(128.0 + 224.0 * opacity * difference, 16.0, 240.0) / 256.0;
    };
    return {std::clamp(16.0 + 219.0 * opacity * y, 16.0, 235.0) / 256.0,
            chroma((color[2] - y) / (2.0 * (1.0 - kb))),
            chroma((color[0] - y) / (2.0 * (1.0 - kr)))};
}

} // namespace

std::vector<double> ReferenceFrame(const Pixels& pixels, YCbCrMatrix matrix, Proc::AlphaType alpha,
                                   const DX::Size2DT<unsigned>& chromaSize) {
    const auto at = [&](unsigned x, unsigned y) {
        const Color& color =
            pixels.At(std::min(x, pixels.width - 1), std::min(y, pixels.height - 1));
        return CodesOf(color, alpha == Proc::AlphaType::NonPremultiplied ? color[3] : 1.0, matrix);
    };
    std::vector<double> frame;
    for (unsigned y = 0; y < pixels.height; ++y) {
        for (unsigned x = 0; x < pixels.width; ++x) {
            frame.push_back(at(x, y)[0]);
        }
    }
    for (unsigned y = 0; y < 2 * chromaSize.height; y += 2) {
        for (unsigned x = 0; x < 2 * chromaSize.width; x += 2) {
            for (const std::size_t i : {1U, 2U}) {
                frame.push_back(
                    (at(x, y)[i] + at(x + 1, y)[i] + at(x, y + 1)[i] + at(x + 1, y + 1)[i]) / 4.0);
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
