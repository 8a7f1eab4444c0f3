#pragma once

// What clips are made of: the pixel formats in Y'CbCr 4:2:0, their planes, and frame rates. Plain
// values and pure functions, any thread. Next: PlanePacking.h, Y4m.h.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Host/Color.h"
#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::App {

// A luma plane, and a plane of chroma pairs with half its width and height, rounded up. A sample
// holds its code in its high bits.
struct VideoFormat {
    const char* name = ""; // as the user types it
    unsigned bits = 8;     // of a code
    DXGI_FORMAT planar = DXGI_FORMAT_UNKNOWN;
    DXGI_FORMAT luma = DXGI_FORMAT_UNKNOWN;
    DXGI_FORMAT chroma = DXGI_FORMAT_UNKNOWN;
    const char* planesName = ""; // of the two formats, for messages
    const char* y4mColors = "";  // of the same samples in a Y4M file

    std::size_t GetSampleSize() const { return bits == 8 ? 1 : 2; } // bytes
    // Bytes of the planes of a frame of this size, rows without padding.
    std::size_t GetLumaBytes(const DX::Size2DT<long>& size) const;
    std::size_t GetChromaBytes(const DX::Size2DT<long>& size) const;
    std::size_t GetFrameBytes(const DX::Size2DT<long>& size) const {
        return GetLumaBytes(size) + GetChromaBytes(size);
    }
};

DX::Size2DT<long> GetChromaSize(const DX::Size2DT<long>& size);

// Frames per second, both parts from 1 to 1000000.
struct FrameRate {
    std::uint32_t numerator = 25;
    std::uint32_t denominator = 1;

    friend bool operator==(const FrameRate&, const FrameRate&) = default;
};

// All that there are.
std::span<const VideoFormat> GetVideoFormats();
// nv12, p010, p016.
std::optional<VideoFormat> ParseVideoFormat(std::string_view name);
// bt601, bt709, bt2020.
std::optional<Conf::YCbCrMatrix> ParseMatrix(std::string_view name);
std::string GetMatrixName(Conf::YCbCrMatrix matrix);
// N, N/D, or N with up to three decimals; 23.976, 29.97, 59.94 and 119.88 mean what broadcasters
// mean by them, 24000/1001 and so on.
std::optional<FrameRate> ParseFrameRate(std::string_view text);

} // namespace Norvex::App
