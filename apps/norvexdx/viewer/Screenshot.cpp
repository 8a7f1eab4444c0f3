#include "apps/norvexdx/viewer/Screenshot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace Norvex::App {

namespace {

using Colors = std::array<double, 3>;

constexpr double kMaxSample = 65535.0;

template <class T>
T Read(const std::vector<std::uint8_t>& bytes, std::size_t index) {
    T value{};
    std::memcpy(&value, bytes.data() + index * sizeof(T), sizeof(T));
    return value;
}

// ITU-R BT.2087-0, annex 2.
Colors FromBT709ToBT2020(const Colors& c) {
    return {0.6274 * c[0] + 0.3293 * c[1] + 0.0433 * c[2],
            0.0691 * c[0] + 0.9195 * c[1] + 0.0114 * c[2],
            0.0164 * c[0] + 0.0880 * c[1] + 0.8956 * c[2]};
}

// SMPTE ST 2084, from light of 1.0 for 10000 cd/m2.
double EncodePQ(double light) {
    const double power = std::pow(std::clamp(light, 0.0, 1.0), 2610.0 / 16384.0);
    return std::pow((3424.0 / 4096.0 + 2413.0 / 128.0 * power) / (1.0 + 2392.0 / 128.0 * power),
                    2523.0 / 32.0);
}

// From scRGB, where 1.0 is 80 cd/m2.
Colors ReadFloats(const ScreenPixels& pixels, std::size_t index) {
    constexpr double kUnit = 80.0 / 10000.0;
    Colors colors{};
    for (std::size_t i = 0; i < colors.size(); ++i) {
        colors[i] = FloatFromHalf(Read<std::uint16_t>(pixels.bytes, index * 4 + i)) * kUnit;
    }
    colors = FromBT709ToBT2020(colors);
    std::transform(colors.begin(), colors.end(), colors.begin(), &EncodePQ);
    return colors;
}

// PQ already.
Colors ReadTenBits(const ScreenPixels& pixels, std::size_t index) {
    const auto packed = Read<std::uint32_t>(pixels.bytes, index);
    const auto channel = [&](unsigned shift) { return (packed >> shift & 0x3FF) / 1023.0; };
    return {channel(0), channel(10), channel(20)};
}

void MakeHDR(Image& image, const ScreenPixels& pixels) {
    image.bitsPerChannel = 16;
    image.colorSpace = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    image.Allocate();
    const auto read = pixels.format == DXGI_FORMAT_R16G16B16A16_FLOAT ? &ReadFloats : &ReadTenBits;
    const std::size_t count = std::size_t{image.width} * image.height;
    for (std::size_t i = 0; i < count; ++i) {
        const Colors colors = read(pixels, i);
        std::array<std::uint16_t, Image::kChannels> samples = {0, 0, 0, 0xFFFF};
        for (std::size_t channel = 0; channel < colors.size(); ++channel) {
            samples[channel] =
                static_cast<std::uint16_t>(std::lround(colors[channel] * kMaxSample));
        }
        std::memcpy(image.pixels.data() + i * sizeof(samples), samples.data(), sizeof(samples));
    }
}

} // namespace

Image MakeScreenshot(const ScreenPixels& pixels) {
    Image image = Image::Make(pixels.size, 8);
    image.colorSpace = Conf::RGBColorSpace{};
    if (pixels.format == DXGI_FORMAT_R8G8B8A8_UNORM) {
        image.pixels = pixels.bytes;
    } else {
        MakeHDR(image, pixels);
    }
    return image;
}

} // namespace Norvex::App
