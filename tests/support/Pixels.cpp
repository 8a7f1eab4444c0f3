#include "tests/support/Pixels.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace Norvex::Test {

namespace {

constexpr unsigned kChannels = 4;

template <class T>
T ToUnorm(double value) {
    constexpr double kMax = static_cast<T>(~T{0});
    return static_cast<T>(std::lround(std::clamp(value, 0.0, 1.0) * kMax));
}

void Store(double value, DXGI_FORMAT format, std::uint8_t* out) {
    const auto put = [out](auto encoded) { std::memcpy(out, &encoded, sizeof(encoded)); };
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return put(ToUnorm<std::uint8_t>(value));
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return put(ToUnorm<std::uint16_t>(value));
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return put(FloatToHalf(static_cast<float>(value)));
    default:
        return put(static_cast<float>(value));
    }
}

template <class T>
T Get(const std::uint8_t* in) {
    T value;
    std::memcpy(&value, in, sizeof(value));
    return value;
}

double Load(DXGI_FORMAT format, const std::uint8_t* in) {
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return Get<std::uint8_t>(in) / 255.0;
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return Get<std::uint16_t>(in) / 65535.0;
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return HalfToFloat(Get<std::uint16_t>(in));
    default:
        return Get<float>(in);
    }
}

} // namespace

unsigned BytesPerPixel(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return 4;
    case DXGI_FORMAT_R16G16B16A16_UNORM:
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return 8;
    case DXGI_FORMAT_R32G32B32A32_FLOAT:
        return 16;
    default:
        throw std::invalid_argument("a format that pixels are not made of here");
    }
}

std::vector<std::uint8_t> EncodePixels(const Pixels& pixels, DXGI_FORMAT format) {
    const unsigned channelSize = BytesPerPixel(format) / kChannels;
    std::vector<std::uint8_t> bytes(pixels.colors.size() * BytesPerPixel(format));
    std::uint8_t* out = bytes.data();
    for (const Color& color : pixels.colors) {
        for (const double channel : color) {
            Store(channel, format, out);
            out += channelSize;
        }
    }
    return bytes;
}

Pixels DecodePixels(const std::uint8_t* bytes, std::size_t rowPitch, unsigned width,
                    unsigned height, DXGI_FORMAT format) {
    const unsigned channelSize = BytesPerPixel(format) / kChannels;
    return MakePixels(width, height, [&](unsigned x, unsigned y) {
        const std::uint8_t* in = bytes + y * rowPitch + std::size_t{x} * BytesPerPixel(format);
        Color color = {};
        for (double& channel : color) {
            channel = Load(format, in);
            in += channelSize;
        }
        return color;
    });
}

Pixels MakePixels(unsigned width, unsigned height,
                  const std::function<Color(unsigned x, unsigned y)>& colorAt) {
    Pixels pixels{width, height, {}};
    pixels.colors.reserve(std::size_t{width} * height);
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            pixels.colors.push_back(colorAt(x, y));
        }
    }
    return pixels;
}

float HalfToFloat(std::uint16_t half) {
    const int exponent = half >> 10 & 0x1F;
    const int mantissa = half & 0x3FF;
    const float sign = (half & 0x8000) != 0 ? -1.0F : 1.0F;
    if (exponent == 0x1F) {
        return mantissa == 0 ? sign * INFINITY : NAN;
    }
    return sign * (exponent == 0 ? std::ldexp(static_cast<float>(mantissa), -24)
                                 : std::ldexp(static_cast<float>(mantissa + 0x400), exponent - 25));
}

// Round to nearest even, infinity beyond the range.
std::uint16_t FloatToHalf(float value) {
    const auto sign =
        static_cast<std::uint16_t>(std::bit_cast<std::uint32_t>(value) >> 16 & 0x8000);
    const float magnitude = std::fabs(value);
    if (std::isnan(value)) {
        return static_cast<std::uint16_t>(sign | 0x7E00);
    }
    if (magnitude >= 65520.0F) {
        return static_cast<std::uint16_t>(sign | 0x7C00);
    }
    int exponent = 0;
    std::frexp(magnitude, &exponent);
    const int scale = std::max(exponent - 1, -14) - 10; // of the last bit
    const auto units = static_cast<std::uint32_t>(std::nearbyint(std::ldexp(magnitude, -scale)));
    const std::uint32_t bits =
        units == 0 ? 0 : units + (static_cast<std::uint32_t>(scale + 24) << 10);
    return static_cast<std::uint16_t>(sign | bits);
}

Pixels Quantize(const Pixels& pixels, DXGI_FORMAT format) {
    const auto bytes = EncodePixels(pixels, format);
    return DecodePixels(bytes.data(), std::size_t{pixels.width} * BytesPerPixel(format),
                        pixels.width, pixels.height, format);
}

} // namespace Norvex::Test
