#pragma once

// What clips are made of: the pixel formats in Y'CbCr, their planes, and frame rates. Plain values
// and pure functions, any thread. Next: ClipFrame.h, PlanePacking.h, Y4m.h.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Host/Color.h"
#include "Proc/DirectX/Manager/D3Frame.h"

namespace Norvex::App {

// How the samples of a frame lie. Of pairs (a luma plane, and one of chroma pairs with half its
// width and height, rounded up; a sample holds its code in its high bits) and of three planes.
struct VideoFormat {
    const char* name = ""; // as the user types it
    unsigned bits = 8;     // of a code
    DX::FrameLayout layout = DX::FrameLayout::NV12;
    // Of pairs, for conversion in two passes.
    DXGI_FORMAT planar = DXGI_FORMAT_UNKNOWN;
    DXGI_FORMAT luma = DXGI_FORMAT_UNKNOWN;
    DXGI_FORMAT chroma = DXGI_FORMAT_UNKNOWN;
    const char* planesName = ""; // of the two formats, for messages
    const char* y4mColors = "";  // of the same samples in a Y4M file

    bool HasPairs() const { return planar != DXGI_FORMAT_UNKNOWN; }
    std::size_t GetSampleSize() const { return bits == 8 ? 1 : 2; } // bytes
    // Narrow range, Rec. 709, chroma at the left.
    DX::D3FrameDesc Describe(const DX::Size2DT<long>& size) const;
    // Bytes of the planes of a frame of this size, rows without padding.
    std::size_t GetLumaBytes(const DX::Size2DT<long>& size) const;
    std::size_t GetChromaBytes(const DX::Size2DT<long>& size) const;
    std::size_t GetFrameBytes(const DX::Size2DT<long>& size) const {
        return GetLumaBytes(size) + GetChromaBytes(size);
    }
};

DX::Size2DT<long> GetChromaSize(const DX::Size2DT<long>& size);

// Of raw frames: those of a format, or RGBA of 8 or 16 bits a channel.
struct RawFormat {
    std::optional<VideoFormat> video; // empty: RGBA
    unsigned bits = 8;                // a channel, or of a code
};

// What the user says of a clip that is read; what he does not, the clip or a default says.
struct ClipInput {
    std::optional<RawFormat> format;       // raw frames, whatever the file begins with
    std::optional<DX::Size2DT<long>> size; // of raw frames
    std::optional<Conf::YCbCrMatrix> matrix;
    std::optional<DX::FrameRange> range;
    std::optional<DX::ChromaLocation> siting;
};

// Frames per second, both parts from 1 to 1000000.
struct FrameRate {
    std::uint32_t numerator = 25;
    std::uint32_t denominator = 1;

    friend bool operator==(const FrameRate&, const FrameRate&) = default;
};

// Those with pairs: nv12, p010, p016.
std::span<const VideoFormat> GetPairFormats();
// All that there are.
std::span<const VideoFormat> GetVideoFormats();
// "nv12, p010, p016, yuv420p, ...".
std::string GetVideoFormatNames();
// A name as ffmpeg has it; those of more than 8 bits also end in "le".
std::optional<VideoFormat> ParseVideoFormat(std::string_view name);
// A name as ffmpeg has it: rgba, rgba64le, and those of ParseVideoFormat.
std::optional<RawFormat> ParseRawFormat(std::string_view name);
// bt601, bt709, bt2020.
std::optional<Conf::YCbCrMatrix> ParseMatrix(std::string_view name);
std::string GetMatrixName(Conf::YCbCrMatrix matrix);
// narrow, full.
std::optional<DX::FrameRange> ParseRange(std::string_view name);
// left, centre, top-left.
std::optional<DX::ChromaLocation> ParseSiting(std::string_view name);
// N, N/D, or N with up to three decimals; 23.976, 29.97, 59.94 and 119.88 mean what broadcasters
// mean by them, 24000/1001 and so on.
std::optional<FrameRate> ParseFrameRate(std::string_view text);

} // namespace Norvex::App
