#include "apps/norvexdx/clips/PlanePacking.h"

#include <algorithm>
#include <cstring>

namespace Norvex::App {

namespace {

template <class Sample>
Sample Load(const std::uint8_t* samples, std::size_t index) {
    Sample sample{};
    std::memcpy(&sample, samples + index * sizeof(Sample), sizeof(Sample));
    return sample;
}

template <class Sample>
void Store(std::uint8_t* samples, std::size_t index, Sample sample) {
    std::memcpy(samples + index * sizeof(Sample), &sample, sizeof(Sample));
}

template <class Sample>
void SplitPlanes(unsigned shift, std::size_t lumaCount, std::size_t chromaCount,
                 const std::uint8_t* planes, std::uint8_t* out) {
    const auto code = [shift](Sample sample) { return static_cast<Sample>(sample >> shift); };
    for (std::size_t i = 0; i < lumaCount; ++i) {
        Store(out, i, code(Load<Sample>(planes, i)));
    }
    const std::uint8_t* pairs = planes + lumaCount * sizeof(Sample);
    std::uint8_t* blue = out + lumaCount * sizeof(Sample);
    std::uint8_t* red = blue + chromaCount * sizeof(Sample);
    for (std::size_t i = 0; i < chromaCount; ++i) {
        Store(blue, i, code(Load<Sample>(pairs, 2 * i)));
        Store(red, i, code(Load<Sample>(pairs, 2 * i + 1)));
    }
}

} // namespace

void RoundToCodes(const VideoFormat& format, std::span<std::uint8_t> samples) {
    const unsigned shift = format.bits > 8 ? 16 - format.bits : 0;
    if (shift == 0) {
        return;
    }
    // The device rounds to 1/65535, which for a code is a little below the code's own multiple of
    // 2^shift: cutting the low bits off would lose one code.
    const unsigned half = 1U << (shift - 1);
    const unsigned largest = 0x10000U - (1U << shift);
    for (std::size_t i = 0; i < samples.size() / 2; ++i) {
        const unsigned sample = Load<std::uint16_t>(samples.data(), i);
        const unsigned code = std::min(((sample + half) >> shift) << shift, largest);
        Store(samples.data(), i, static_cast<std::uint16_t>(code));
    }
}

void Deinterleave(const VideoFormat& format, const DX::Size2DT<long>& size,
                  std::span<const std::uint8_t> planes, std::vector<std::uint8_t>& out) {
    const std::size_t sampleSize = format.GetSampleSize();
    const std::size_t lumaCount = format.GetLumaBytes(size) / sampleSize;
    const std::size_t chromaCount = format.GetChromaBytes(size) / sampleSize / 2;
    out.resize(planes.size());
    if (sampleSize == 1) {
        SplitPlanes<std::uint8_t>(0, lumaCount, chromaCount, planes.data(), out.data());
    } else {
        SplitPlanes<std::uint16_t>(16 - format.bits, lumaCount, chromaCount, planes.data(),
                                   out.data());
    }
}

} // namespace Norvex::App
