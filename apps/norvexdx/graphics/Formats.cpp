#include "apps/norvexdx/graphics/Formats.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Norvex::App {

std::size_t GetPixelSize(DXGI_FORMAT format) {
    if (format == DXGI_FORMAT_R32G32B32A32_FLOAT) {
        return 16;
    }
    const bool isDeep =
        format == DXGI_FORMAT_R16G16B16A16_UNORM || format == DXGI_FORMAT_R16G16B16A16_FLOAT;
    return isDeep ? 8 : 4;
}

float FloatFromHalf(std::uint16_t half) {
    const int exponent = half >> 10 & 0x1F;
    const int mantissa = half & 0x3FF;
    const float magnitude = exponent == 0
                                ? std::ldexp(static_cast<float>(mantissa), -24)
                                : std::ldexp(static_cast<float>(mantissa | 0x400), exponent - 25);
    return (half & 0x8000) != 0 ? -magnitude : magnitude;
}

const char* GetFormatName(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return "R8G8B8A8_UNORM";
    case DXGI_FORMAT_B8G8R8A8_UNORM:
        return "B8G8R8A8_UNORM";
    case DXGI_FORMAT_R10G10B10A2_UNORM:
        return "R10G10B10A2_UNORM";
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return "R16G16B16A16_UNORM";
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return "R16G16B16A16_FLOAT";
    case DXGI_FORMAT_R32G32B32A32_FLOAT:
        return "R32G32B32A32_FLOAT";
    case DXGI_FORMAT_NV12:
        return "NV12";
    case DXGI_FORMAT_P010:
        return "P010";
    case DXGI_FORMAT_P016:
        return "P016";
    default:
        return "another format";
    }
}

void ConvertFromHalf(std::span<std::uint8_t> samples) {
    for (std::size_t i = 0; i + 1 < samples.size(); i += 2) {
        std::uint16_t sample = 0;
        std::memcpy(&sample, &samples[i], sizeof(sample));
        const float value = std::clamp(FloatFromHalf(sample), 0.0F, 1.0F);
        sample = static_cast<std::uint16_t>(std::lround(value * 65535.0F));
        std::memcpy(&samples[i], &sample, sizeof(sample));
    }
}

} // namespace Norvex::App
