#include "apps/norvexdx/reference/FrameReference.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Norvex::Reference {

namespace {

using Conf::YCbCrMatrix;
using DX::ChromaLocation;
using DX::D3FrameDesc;
using DX::FrameLayout;
using DX::FrameRange;

bool IsRGB(const D3FrameDesc& desc) {
    return desc.layout == FrameLayout::RGB;
}

// Shares of red and blue in luma.
std::pair<double, double> WeightsOf(YCbCrMatrix matrix) {
    return matrix == YCbCrMatrix::BT601   ? std::pair(0.299, 0.114)
           : matrix == YCbCrMatrix::BT709 ? std::pair(0.2126, 0.0722)
                                          : std::pair(0.2627, 0.0593);
}

bool IsHalf(const D3FrameDesc& desc, bool isDown) {
    return desc.layout != FrameLayout::RGB && desc.layout != FrameLayout::Planar444 &&
           !(isDown && desc.layout == FrameLayout::Planar422);
}

// How far behind every other luma sample chroma lies, luma samples.
double ChromaDelay(const D3FrameDesc& desc, bool isDown) {
    const bool isOnLuma = isDown ? desc.chromaLocation == ChromaLocation::TopLeft
                                 : desc.chromaLocation != ChromaLocation::Centre;
    return isOnLuma ? 0.0 : 0.5;
}

double Narrow(const D3FrameDesc& desc, double ofEight) {
    return ofEight * std::pow(2.0, desc.bitDepth - 8.0);
}

double LargestCode(const D3FrameDesc& desc) {
    return std::pow(2.0, desc.bitDepth) - 1.0;
}

double Cut(const D3FrameDesc& desc, double code) {
    return desc.range == FrameRange::Full
               ? std::clamp(code, 0.0, LargestCode(desc))
               : std::clamp(code, Narrow(desc, 1.0), Narrow(desc, 255.0) - 1.0);
}

double SampleAt(const Frame& frame, unsigned channel, long x, long y) {
    const auto [width, height] = SizeOfChannel(frame.desc, channel);
    const auto row = static_cast<std::size_t>(std::clamp(y, 0L, height - 1));
    const auto column = static_cast<std::size_t>(std::clamp(x, 0L, width - 1));
    return frame.channels.at(channel)[row * static_cast<std::size_t>(width) + column];
}

double Cubic(double distance) {
    const double d = std::abs(distance);
    return d < 1.0 ? 1.5 * d * d * d - 2.5 * d * d + 1.0
           : d < 2 ? -0.5 * d * d * d + 2.5 * d * d - 4.0 * d + 2.0
                   : 0.0;
}

double ChromaAt(const Frame& frame, unsigned channel, long x, long y, bool isCubic) {
    const auto place = [&frame](long at, bool isDown) {
        const auto luma = static_cast<double>(at);
        return IsHalf(frame.desc, isDown) ? (luma - ChromaDelay(frame.desc, isDown)) / 2.0 : luma;
    };
    const auto weight = [isCubic](double distance) {
        return isCubic ? Cubic(distance) : std::max(0.0, 1.0 - std::abs(distance));
    };
    const double across = place(x, false);
    const double down = place(y, true);
    const long left = std::lround(std::floor(across));
    const long top = std::lround(std::floor(down));
    double sum = 0.0;
    for (long j = top - 1; j <= top + 2; ++j) {
        for (long i = left - 1; i <= left + 2; ++i) {
            sum += weight(across - static_cast<double>(i)) * weight(down - static_cast<double>(j)) *
                   SampleAt(frame, channel, i, j);
        }
    }
    return sum;
}

// A channel of a colour, as a code.
double CodeOf(const D3FrameDesc& desc, unsigned channel, const Pixel& color) {
    const auto [kr, kb] = WeightsOf(desc.matrix);
    const double luma = kr * color[0] + (1.0 - kr - kb) * color[1] + kb * color[2];
    const double value = IsRGB(desc)    ? color.at(channel)
                         : channel == 0 ? luma
                         : channel == 1 ? (color[2] - luma) / (2.0 * (1.0 - kb))
                                        : (color[0] - luma) / (2.0 * (1.0 - kr));
    return ZeroCode(desc, channel) + CodesToOne(desc, channel) * value;
}

// Pixels about a sample of a channel and their weights, along one axis.
std::vector<std::pair<long, double>> PixelsAbout(const D3FrameDesc& desc, unsigned channel, long at,
                                                 bool isDown) {
    if (channel == 0 || !IsHalf(desc, isDown)) {
        return {{at, 1.0}};
    }
    if (ChromaDelay(desc, isDown) != 0.0) {
        return {{2 * at, 0.5}, {2 * at + 1, 0.5}};
    }
    return {{2 * at - 1, 0.25}, {2 * at, 0.5}, {2 * at + 1, 0.25}};
}

// take(code) of each sample, as files have them.
template <class Take>
void ForEachSample(const Frame& frame, const Take& take) {
    std::ranges::for_each(frame.channels[0], take);
    const auto& [luma, blue, red, alpha] = frame.channels;
    const bool isPair = frame.desc.layout <= FrameLayout::P016;
    for (std::size_t i = 0; i < blue.size(); ++i) {
        take(blue[i]);
        if (isPair) {
            take(red[i]);
        }
    }
    if (!isPair) {
        std::ranges::for_each(red, take);
    }
}

unsigned UnitOf(const D3FrameDesc& desc) {
    return desc.layout == FrameLayout::P010 ? 64 : 1;
}

} // namespace

DX::Size2DT<long> SizeOfChannel(const D3FrameDesc& desc, unsigned channel) {
    const auto [width, height] = desc.size;
    const bool isChroma = channel != 0;
    return {isChroma && IsHalf(desc, false) ? (width + 1) / 2 : width,
            isChroma && IsHalf(desc, true) ? (height + 1) / 2 : height};
}

double ZeroCode(const D3FrameDesc& desc, unsigned channel) {
    const bool isChroma = channel != 0 && !IsRGB(desc);
    return isChroma                         ? Narrow(desc, 128.0)
           : desc.range == FrameRange::Full ? 0.0
                                            : Narrow(desc, 16.0);
}

double CodesToOne(const D3FrameDesc& desc, unsigned channel) {
    const bool isChroma = channel != 0 && !IsRGB(desc);
    return desc.range == FrameRange::Full ? LargestCode(desc)
                                          : Narrow(desc, isChroma ? 224.0 : 219.0);
}

Frame MakeFrame(const D3FrameDesc& desc,
                const std::function<double(unsigned channel, long x, long y)>& code) {
    Frame frame{desc, {}};
    for (unsigned channel = 0; channel < (IsRGB(desc) ? 4U : 3U); ++channel) {
        const auto [width, height] = SizeOfChannel(desc, channel);
        for (long y = 0; y < height; ++y) {
            for (long x = 0; x < width; ++x) {
                const double value = code(channel, x, y);
                frame.channels.at(channel).push_back(channel == 3 ? value : Cut(desc, value));
            }
        }
    }
    return frame;
}

Pixel ColorOf(const Frame& frame, long x, long y, bool hasCubicChroma) {
    const auto value = [&](unsigned channel) {
        const double code = channel == 0 || IsRGB(frame.desc)
                                ? SampleAt(frame, channel, x, y)
                                : ChromaAt(frame, channel, x, y, hasCubicChroma);
        return (code - ZeroCode(frame.desc, channel)) / CodesToOne(frame.desc, channel);
    };
    if (IsRGB(frame.desc)) {
        return {value(0), value(1), value(2), SampleAt(frame, 3, x, y)};
    }
    const auto [kr, kb] = WeightsOf(frame.desc.matrix);
    const double luma = value(0);
    const double blue = luma + 2.0 * (1.0 - kb) * value(1);
    const double red = luma + 2.0 * (1.0 - kr) * value(2);
    return {red, (luma - kr * red - kb * blue) / (1.0 - kr - kb), blue, 1.0};
}

Frame ConvertFrame(const Frame& source, const D3FrameDesc& target,
                   const Proc::ColorConversionInfo& conversion, bool hasCubicChroma,
                   const DX::D3ToneMapping& tones) {
    Proc::ColorAlphaConversionInfo info{conversion, source.desc.alpha, target.alpha};
    info.source = source.desc.colorSpace;
    info.target = target.colorSpace;
    std::vector<Pixel> colors;
    const auto [width, height] = source.desc.size;
    for (long y = 0; y < height; ++y) {
        for (long x = 0; x < width; ++x) {
            colors.push_back(ReferenceConvert(ColorOf(source, x, y, hasCubicChroma), info, tones));
        }
    }
    return MakeFrame(target, [&, columns = width, rows = height](unsigned channel, long x, long y) {
        Pixel mean = {};
        for (const auto& [j, down] : PixelsAbout(target, channel, y, true)) {
            for (const auto& [i, across] : PixelsAbout(target, channel, x, false)) {
                const long at =
                    std::clamp(j, 0L, rows - 1) * columns + std::clamp(i, 0L, columns - 1);
                for (std::size_t k = 0; k < mean.size(); ++k) {
                    mean.at(k) += across * down * colors[static_cast<std::size_t>(at)].at(k);
                }
            }
        }
        return channel == 3 ? mean[3] : CodeOf(target, channel, mean);
    });
}

std::vector<std::uint8_t> PackFrame(const Frame& frame) {
    std::vector<std::uint8_t> bytes;
    ForEachSample(frame, [&](double code) {
        const unsigned sample = static_cast<unsigned>(std::lround(code)) * UnitOf(frame.desc);
        bytes.push_back(static_cast<std::uint8_t>(sample));
        if (frame.desc.bitDepth > 8) {
            bytes.push_back(static_cast<std::uint8_t>(sample >> 8));
        }
    });
    return bytes;
}

FrameDifference CompareFrame(std::span<const std::uint8_t> packed, const Frame& expected) {
    const double peak = LargestCode(expected.desc);
    const std::size_t size = expected.desc.bitDepth > 8 ? 2 : 1;
    FrameDifference difference;
    double squares = 0.0;
    std::size_t at = 0;
    ForEachSample(expected, [&](double code) {
        double error = peak;
        if (at + size <= packed.size()) {
            const unsigned sample = packed[at] + (size == 2 ? packed[at + 1] * 256U : 0U);
            error = std::fabs(static_cast<double>(sample) / UnitOf(expected.desc) - code);
        }
        difference.largest = std::max(difference.largest, error);
        squares += error * error;
        at += size;
    });
    const std::size_t count = at / size;
    difference.psnr =
        10.0 * std::log10(peak * peak * static_cast<double>(count) / std::max(squares, 1e-9));
    return difference;
}

} // namespace Norvex::Reference
