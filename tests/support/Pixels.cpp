#include "tests/support/Pixels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace Norvex::Test {

namespace {

struct Layout {
    DXGI_FORMAT format;
    unsigned channels;
    unsigned channelSize; // bytes; of four a float
};

constexpr Layout kLayouts[] = {
    {DXGI_FORMAT_R8_UNORM, 1, 1},           {DXGI_FORMAT_R16_UNORM, 1, 2},
    {DXGI_FORMAT_R8G8_UNORM, 2, 1},         {DXGI_FORMAT_R16G16_UNORM, 2, 2},
    {DXGI_FORMAT_R8G8B8A8_UNORM, 4, 1},     {DXGI_FORMAT_R16G16B16A16_UNORM, 4, 2},
    {DXGI_FORMAT_R32G32B32A32_FLOAT, 4, 4},
};

const Layout& LayoutOf(DXGI_FORMAT format) {
    const auto* layout = std::ranges::find(kLayouts, format, &Layout::format);
    if (layout == std::end(kLayouts)) {
        throw std::invalid_argument("a format that pixels are not made of here");
    }
    return *layout;
}

// Codes of UNORM stand in the low bytes.
void Store(double value, unsigned size, std::uint8_t* out) {
    const double maximum = size == 1 ? 255.0 : 65535.0;
    const auto code = std::lround(std::clamp(value, 0.0, 1.0) * maximum);
    const auto number = static_cast<float>(value);
    std::memcpy(out, size == sizeof(number) ? static_cast<const void*>(&number) : &code, size);
}

double Load(unsigned size, const std::uint8_t* in) {
    float number = 0.0F;
    std::uint16_t code = 0;
    std::memcpy(size == sizeof(number) ? static_cast<void*>(&number) : &code, in, size);
    return size == sizeof(number) ? number : code / (size == 1 ? 255.0 : 65535.0);
}

} // namespace

unsigned BytesPerPixel(DXGI_FORMAT format) {
    const Layout& layout = LayoutOf(format);
    return layout.channels * layout.channelSize;
}

std::vector<std::uint8_t> EncodePixels(const Pixels& pixels, DXGI_FORMAT format) {
    const Layout& layout = LayoutOf(format);
    std::vector<std::uint8_t> bytes(pixels.colors.size() * BytesPerPixel(format));
    std::uint8_t* out = bytes.data();
    for (const Color& color : pixels.colors) {
        for (unsigned i = 0; i < layout.channels; ++i, out += layout.channelSize) {
            Store(color.at(i), layout.channelSize, out);
        }
    }
    return bytes;
}

Pixels DecodePixels(const std::uint8_t* bytes, std::size_t rowPitch, unsigned width,
                    unsigned height, DXGI_FORMAT format) {
    const Layout& layout = LayoutOf(format);
    return MakePixels(width, height, [&](unsigned x, unsigned y) {
        const std::uint8_t* in = bytes + y * rowPitch + std::size_t{x} * BytesPerPixel(format);
        Color color = {};
        for (unsigned i = 0; i < layout.channels; ++i, in += layout.channelSize) {
            color.at(i) = Load(layout.channelSize, in);
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

} // namespace Norvex::Test
