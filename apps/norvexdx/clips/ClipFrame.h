#pragma once

// One frame of a clip in memory: a picture, or the planes of a frame of video. Plain values and
// pure functions, any thread. Next: VideoFormat.h, FrameSource.h.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "Proc/DirectX/Manager/D3Frame.h"
#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// Bytes of a plane, and of a row of it, as files have them: rows without padding. Of valid frames
// in Y'CbCr.
std::size_t GetPlaneRowBytes(const DX::D3FrameDesc& desc, unsigned plane);
std::size_t GetPlaneBytes(const DX::D3FrameDesc& desc, unsigned plane);
std::size_t GetFrameBytes(const DX::D3FrameDesc& desc);

// With a description the pixels are the planes that it tells of, one behind the other, and width
// and height are its size; without, they are RGBA.
struct ClipFrame : Image {
    ClipFrame() = default;
    ClipFrame(const Image& image) : Image(image) {} // a picture is a frame
    ClipFrame(Image&& image) : Image(std::move(image)) {}

    std::optional<DX::D3FrameDesc> desc = {};

    // Makes room for planes; what was there is not kept in its place.
    void SetPlanes(const DX::D3FrameDesc& planes);
};

// Rows of a plane, or of a picture, in a frame's memory.
struct PlaneRows {
    const std::uint8_t* data = nullptr;
    std::size_t rowBytes = 0; // without padding
    DX::Size2DT<long> size;   // samples
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN;
};
// One each, 1 to 3.
std::vector<PlaneRows> GetPlaneRows(const ClipFrame& frame);

} // namespace Norvex::App
