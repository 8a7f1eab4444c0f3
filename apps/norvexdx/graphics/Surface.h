#pragma once

// Pictures on the device, and what they are drawn on. They go with the Graphics that made them. One
// thread at a time. Throws what the library throws. Next: Graphics.h.

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "apps/norvexdx/graphics/Formats.h"
#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// Pixels on the device.
class Surface {
public:
    virtual ~Surface() = default;
    Surface(const Surface&) = delete;
    Surface& operator=(const Surface&) = delete;

    const DX::Size2DT<long>& GetSize() const { return m_size; }
    DXGI_FORMAT GetFormat() const { return m_format; }

protected:
    Surface(const DX::Size2DT<long>& size, DXGI_FORMAT format) : m_size(size), m_format(format) {}

private:
    DX::Size2DT<long> m_size;
    DXGI_FORMAT m_format;
};

// What is drawn.
class Picture : public Surface {
protected:
    using Surface::Surface;
};

// What is drawn on. Transparent black at first, or undefined.
class Canvas : public Surface {
public:
    // Ends drawing: calls back, once the device has finished, with the pixels, which have 8 or 16
    // bits a channel as asked for when the canvas was made. What the function throws passes.
    void Read(const std::function<void(const ImageView&)>& use);
    // The same pixels, copied.
    Image Download();
    // As the device holds them: rows without padding, in the canvas's format.
    std::vector<std::uint8_t> DownloadBytes();

protected:
    using Surface::Surface;

    // With rows in the canvas's format, and the bytes from one to the next.
    using UseRows = std::function<void(const std::uint8_t* rows, std::size_t rowPitch)>;
    // Other threads may draw on other canvases meanwhile.
    virtual void ReadBack(const UseRows& use) = 0;

private:
    std::size_t GetRowSize() const; // bytes, without padding
};

// The same pixels as both, a picture whenever nothing is drawn on them (Recorder::Paint).
struct PaintedPicture {
    std::unique_ptr<Canvas> canvas;
    std::unique_ptr<Picture> picture;
};

} // namespace Norvex::App
