#include "tests/support/Pixels.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace Norvex::Test {

namespace {

enum class Kind { Unorm8, Unorm16, Half, Float };

struct Layout {
    Kind kind;
    unsigned channels;
    unsigned channelSize; // bytes
};

Layout LayoutOf(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_R8_UNORM:
        return {Kind::Unorm8, 1, 1};
    case DXGI_FORMAT_R8G8_UNORM:
        return {Kind::Unorm8, 2, 1};
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return {Kind::Unorm8, 4, 1};
    case DXGI_FORMAT_R16_UNORM:
        return {Kind::Unorm16, 1, 2};
    case DXGI_FORMAT_R16G16_UNORM:
        return {Kind::Unorm16, 2, 2};
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return {Kind::Unorm16, 4, 2};
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return {Kind::Half, 4, 2};
    case DXGI_FORMAT_R32G32B32A32_FLOAT:
        return {Kind::Float, 4, 4};
    default:
        throw std::invalid_argument("a format that pixels are not made of here");
    }
}

template <class T>
T ToUnorm(double value) {
    constexpr double kMax = static_cast<T>(~T{0});
    return static_cast<T>(std::lround(std::clamp(value, 0.0, 1.0) * kMax));
}

void Store(double value, Kind kind, std::uint8_t* out) {
    const auto put = [out](auto encoded) { std::memcpy(out, &encoded, sizeof(encoded)); };
    switch (kind) {
    case Kind::Unorm8:
        return put(ToUnorm<std::uint8_t>(value));
    case Kind::Unorm16:
        return put(ToUnorm<std::uint16_t>(value));
    case Kind::Half:
        return put(FloatToHalf(static_cast<float>(value)));
    case Kind::Float:
        return put(static_cast<float>(value));
    }
}

template <class T>
T Get(const std::uint8_t* in) {
    T value;
    std::memcpy(&value, in, sizeof(value));
    return value;
}

double Load(Kind kind, const std::uint8_t* in) {
    switch (kind) {
    case Kind::Unorm8:
        return Get<std::uint8_t>(in) / 255.0;
    case Kind::Unorm16:
        return Get<std::uint16_t>(in) / 65535.0;
    case Kind::Half:
        return HalfToFloat(Get<std::uint16_t>(in));
    default:
        return Get<float>(in);
    }
}

} // namespace

unsigned BytesPerPixel(DXGI_FORMAT format) {
    const Layout layout = LayoutOf(format);
    return layout.channels * layout.channelSize;
}

std::vector<std::uint8_t> EncodePixels(const Pixels& pixels, DXGI_FORMAT format) {
    const Layout layout = LayoutOf(format);
    std::vector<std::uint8_t> bytes(pixels.colors.size() * BytesPerPixel(format));
    std::uint8_t* out = bytes.data();
    for (const Color& color : pixels.colors) {
        for (unsigned i = 0; i < layout.channels; ++i, out += layout.channelSize) {
            Store(color.at(i), layout.kind, out);
        }
    }
    return bytes;
}

Pixels DecodePixels(const std::uint8_t* bytes, std::size_t rowPitch, unsigned width,
                    unsigned height, DXGI_FORMAT format) {
    const Layout layout = LayoutOf(format);
    return MakePixels(width, height, [&](unsigned x, unsigned y) {
        const std::uint8_t* in = bytes + y * rowPitch + std::size_t{x} * BytesPerPixel(format);
        Color color = {};
        for (unsigned i = 0; i < layout.channels; ++i, in += layout.channelSize) {
            color.at(i) = Load(layout.kind, in);
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
