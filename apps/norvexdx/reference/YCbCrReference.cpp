#include "apps/norvexdx/reference/YCbCrReference.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include <fmt/format.h>

namespace Norvex::Reference {

using Conf::YCbCrMatrix;

namespace {

// Cut to the narrow range, as what filters and scRGB leave beyond needs it.
std::array<double, 3> CodesOf(const Pixel& color, double opacity, YCbCrMatrix matrix) {
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

std::vector<double> ReferenceFrame(std::span<const Pixel> pixels, const DX::Size2DT<unsigned>& size,
                                   YCbCrMatrix matrix, Proc::AlphaType alpha,
                                   const DX::Size2DT<unsigned>& chromaSize) {
    const auto at = [&](unsigned x, unsigned y) {
        const Pixel& color = pixels[std::size_t{std::min(y, size.height - 1)} * size.width +
                                    std::min(x, size.width - 1)];
        return CodesOf(color, alpha == Proc::AlphaType::NonPremultiplied ? color[3] : 1.0, matrix);
    };
    std::vector<double> frame;
    for (unsigned y = 0; y < size.height; ++y) {
        for (unsigned x = 0; x < size.width; ++x) {
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

FrameError FindLargestError(std::span<const std::uint8_t> frame, unsigned bits,
                            const std::vector<double>& expected) {
    const std::size_t size = bits == 8 ? 1 : 2;
    FrameError error;
    error.allowed = bits == 8 ? 1.5 : bits == 10 ? 64.0 : 8.0;
    if (frame.size() != expected.size() * size) {
        error.largest = std::numeric_limits<double>::infinity();
        return error;
    }
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const double sample = size == 1 ? frame[i] : frame[2 * i] + 256.0 * frame[2 * i + 1];
        const double wanted = expected[i] * (size == 1 ? 255.0 : 65535.0);
        if (std::fabs(sample - wanted) > error.largest) {
            error = {i, sample, wanted, std::fabs(sample - wanted), error.allowed};
        }
    }
    return error;
}

std::string DescribeDifference(std::span<const std::uint8_t> frame, unsigned bits,
                               const std::vector<double>& expected) {
    const FrameError error = FindLargestError(frame, bits, expected);
    if (error.IsRight()) {
        return {};
    }
    return std::isinf(error.largest)
               ? fmt::format("{} bytes are not {} samples", frame.size(), expected.size())
               : fmt::format("sample {} of {}: {} instead of {:.2f}", error.index, expected.size(),
                             error.sample, error.wanted);
}

} // namespace Norvex::Reference
