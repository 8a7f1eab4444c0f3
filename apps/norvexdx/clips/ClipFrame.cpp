#include "apps/norvexdx/clips/ClipFrame.h"

#include "apps/norvexdx/graphics/Formats.h"

namespace Norvex::App {

std::size_t GetPlaneRowBytes(const DX::D3FrameDesc& desc, unsigned plane) {
    const std::size_t sampleSize = desc.bitDepth == 8 ? 1 : 2;
    const bool isPair = plane == 1 && desc.GetPlaneCount() == 2;
    return static_cast<std::size_t>(desc.GetPlane(plane).size.width) * sampleSize *
           (isPair ? 2 : 1);
}

std::size_t GetPlaneBytes(const DX::D3FrameDesc& desc, unsigned plane) {
    return GetPlaneRowBytes(desc, plane) *
           static_cast<std::size_t>(desc.GetPlane(plane).size.height);
}

std::size_t GetFrameBytes(const DX::D3FrameDesc& desc) {
    std::size_t bytes = 0;
    for (unsigned plane = 0; plane < desc.GetPlaneCount(); ++plane) {
        bytes += GetPlaneBytes(desc, plane);
    }
    return bytes;
}

void ClipFrame::SetPlanes(const DX::D3FrameDesc& planes) {
    desc = planes;
    width = static_cast<std::uint32_t>(planes.size.width);
    height = static_cast<std::uint32_t>(planes.size.height);
    bitsPerChannel = planes.bitDepth == 8 ? 8 : 16;
    pixels.resize(GetFrameBytes(planes));
}

std::vector<PlaneRows> GetPlaneRows(const ClipFrame& frame) {
    if (!frame.desc) {
        return {{frame.pixels.data(), frame.GetRowSize(), frame.GetSize(),
                 GetPictureFormat(frame.bitsPerChannel)}};
    }
    std::vector<PlaneRows> planes;
    const std::uint8_t* data = frame.pixels.data();
    for (unsigned i = 0; i < frame.desc->GetPlaneCount(); ++i) {
        const DX::FramePlane plane = frame.desc->GetPlane(i);
        planes.push_back({data, GetPlaneRowBytes(*frame.desc, i), plane.size, plane.format});
        data += GetPlaneBytes(*frame.desc, i);
    }
    return planes;
}

} // namespace Norvex::App
