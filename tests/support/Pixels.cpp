#include "tests/support/Pixels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace Norvex::Test {

namespace {

struct Layout {
    unsigned channels;
    unsigned channelSize; // bytes
    bool isFloat = false;
};

Layout LayoutOf(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_R8_UNORM:
        return {1, 1};
    case DXGI_FORMAT_R8G8_UNORM:
        return {2, 1};
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return {4, 1};
    case DXGI_FORMAT_R16_UNORM:
        return {1, 2};
    case DXGI_FORMAT_R16G16_UNORM:
        return {2, 2};
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return {4, 2};
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return {4, 2, true};
    case DXGI_FORMAT_R32G32B32A32_FLOAT:
        return {4, 4, true};
    default:
        throw std::invalid_argument("a format that pixels are not made of here");
    }
}

// Of a number in the range of halves; rounded to nearest even.
std::uint16_t ToHalf(double value) {
    int exponent = 0;
    std::frexp(value, &exponent);
    const int scale = std::max(exponent - 1, -14) - 10; // of the last bit
    const int units = static_cast<int>(std::nearbyint(std::ldexp(std::fabs(value), -scale)));
    const int bits = units == 0 ? 0 : units + (scale + 24) * 0x400;
    return static_cast<std::uint16_t>(value < 0.0 ? bits + 0x8000 : bits);
}

// An infinity is no number here.
double FromHalf(unsigned half) {
    const int exponent = static_cast<int>(half >> 10 & 0x1F);
    const auto mantissa = static_cast<double>(half & 0x3FF);
    const double value = exponent == 0x1F ? NAN
                         : exponent == 0  ? std::ldexp(mantissa, -24)
                                          : std::ldexp(mantissa + 0x400, exponent - 25);
    return (half & 0x8000) != 0 ? -value : value;
}

void Store(double value, const Layout& layout, std::uint8_t* out) {
    if (layout.channelSize == sizeof(float)) {
        const auto number = static_cast<float>(value);
        std::memcpy(out, &number, sizeof(number));
        return;
    }
    const double maximum = layout.channelSize == 1 ? 255.0 : 65535.0;
    const auto code =
        layout.isFloat
            ? ToHalf(value)
            : static_cast<std::uint16_t>(std::lround(std::clamp(value, 0.0, 1.0) * maximum));
    std::memcpy(out, &code, layout.channelSize);
}

double Load(const Layout& layout, const std::uint8_t* in) {
    if (layout.channelSize == sizeof(float)) {
        float number = 0.0F;
        std::memcpy(&number, in, sizeof(number));
        return number;
    }
    std::uint16_t code = 0;
    std::memcpy(&code, in, layout.channelSize);
    return layout.isFloat ? FromHalf(code) : code / (layout.channelSize == 1 ? 255.0 : 65535.0);
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
            Store(color.at(i), layout, out);
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
            color.at(i) = Load(layout, in);
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

Pixels Quantize(const Pixels& pixels, DXGI_FORMAT format) {
    const auto bytes = EncodePixels(pixels, format);
    return DecodePixels(bytes.data(), std::size_t{pixels.width} * BytesPerPixel(format),
                        pixels.width, pixels.height, format);
}

} // namespace Norvex::Test
