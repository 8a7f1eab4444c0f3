#pragma once

// The pixel formats of pictures on the device. Pure functions, any thread. What a device does with
// a format: Graphics11.h, Graphics12.h.

#include <cstddef>
#include <cstdint>
#include <span>

#include "Platform/Direct3D.h"

namespace Norvex::App {

// What a device does with textures of a format.
struct FormatUses {
    bool drawFrom = false;
    bool drawTo = false;
    bool blend = false;
};

// Bytes of a pixel, of the formats that are drawn on here: 16 for R32G32B32A32, 8 for
// R16G16B16A16, else 4.
std::size_t GetPixelSize(DXGI_FORMAT format);

// Of pictures on the device: R8G8B8A8_UNORM or R16G16B16A16_UNORM.
constexpr DXGI_FORMAT GetPictureFormat(unsigned bitsPerChannel) {
    return bitsPerChannel == 16 ? DXGI_FORMAT_R16G16B16A16_UNORM : DXGI_FORMAT_R8G8B8A8_UNORM;
}

// IEEE 754 binary16.
float FloatFromHalf(std::uint16_t half);

// "R8G8B8A8_UNORM" of the formats that are used here, else "another format".
const char* GetFormatName(DXGI_FORMAT format);

// Samples in half precision become 16-bit integers, in place; what is outside 0 to 1 is clamped.
void ConvertFromHalf(std::span<std::uint8_t> samples);

} // namespace Norvex::App
