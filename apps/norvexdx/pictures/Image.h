#pragma once

// A picture in CPU memory: what readers give and writers take. A plain value.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Host/Color.h"

namespace Norvex::App {

// RGBA, interleaved, rows from top to bottom without padding; a channel has 8 bits, or 16 bits in
// this machine's byte order. Colour and alpha are as in the file: not converted, and premultiplied
// or not as they were.
struct Image {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    unsigned bitsPerChannel = 8; // 8 or 16
    std::vector<std::uint8_t> pixels;
    // What the file says of its colours, where it says it in code points (PNG's cICP chunk).
    std::optional<Conf::RGBColorSpace> colorSpace;

    static constexpr std::size_t kChannels = 4;

    std::size_t GetPixelSize() const { return kChannels * bitsPerChannel / 8; } // bytes
    std::size_t GetRowSize() const { return width * GetPixelSize(); }           // bytes

    // Makes room for the pixels; they are zero.
    void Allocate() { pixels.assign(GetRowSize() * height, 0); }
};

} // namespace Norvex::App
