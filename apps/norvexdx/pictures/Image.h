#pragma once

// A picture in CPU memory: what readers give, and, as a view, what writers take. Plain values.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Host/Color.h"
#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::App {

// An ICC profile as it stands in a file.
struct IccProfile {
    std::vector<std::uint8_t> bytes;
    std::string name; // as it calls itself
};

// The pixels of an Image, or others that lie like them, but for the bytes from one row to the next.
struct ImageView {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    unsigned bitsPerChannel = 8; // 8 or 16
    const std::uint8_t* pixels = nullptr;
    std::size_t rowPitch = 0; // bytes

    static constexpr std::size_t kChannels = 4;

    std::size_t GetPixelSize() const { return kChannels * bitsPerChannel / 8; } // bytes
    const std::uint8_t* GetRow(std::size_t y) const { return pixels + y * rowPitch; }
};

// RGBA, interleaved, rows from top to bottom without padding; a channel has 8 bits, or 16 bits in
// this machine's byte order. Colour and alpha are as in the file: not converted, and premultiplied
// or not as they were.
struct Image {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    unsigned bitsPerChannel = 8; // 8 or 16
    std::vector<std::uint8_t> pixels;
    // What the file says of its colours, where it says it in code points (PNG's cICP chunk); of a
    // picture whose profile was applied, what it became.
    std::optional<Conf::RGBColorSpace> colorSpace;
    std::optional<IccProfile> profile = {}; // the file's, if it has one

    static constexpr std::size_t kChannels = ImageView::kChannels;

    // With room for its pixels, which are zero.
    static Image Make(const DX::Size2DT<long>& size, unsigned bitsPerChannel) {
        Image image;
        image.SetSize(size, bitsPerChannel);
        return image;
    }

    DX::Size2DT<long> GetSize() const {
        return {static_cast<long>(width), static_cast<long>(height)};
    }
    ImageView GetView() const {
        return {width, height, bitsPerChannel, pixels.data(), GetRowSize()};
    }
    std::size_t GetPixelSize() const { return kChannels * bitsPerChannel / 8; } // bytes
    std::size_t GetRowSize() const { return width * GetPixelSize(); }           // bytes

    // Makes room for the pixels; what was there is not kept in its place.
    void SetSize(const DX::Size2DT<long>& size, unsigned bits) {
        width = static_cast<std::uint32_t>(size.width);
        height = static_cast<std::uint32_t>(size.height);
        bitsPerChannel = bits;
        Allocate();
    }
    void Allocate() { pixels.resize(GetRowSize() * height); }
};

} // namespace Norvex::App
