#pragma once

// The image data of a PNG file before compression: of each row the type of its filter, then the
// filtered bytes (PNG Specification, Third Edition, 7.2 and 9). Borrows the pixels. Any thread, any
// number at a time. Throws only for lack of memory. Next: PngWriter.h.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

class PngRows {
public:
    // The alpha of an opaque image is left out.
    PngRows(const ImageView& image, bool isOpaque)
        : m_image(image),
          m_pixelSize(image.GetPixelSize() / ImageView::kChannels *
                      (ImageView::kChannels - (isOpaque ? 1 : 0))) {}

    std::size_t GetCount() const { return m_image.height; }
    // Bytes of a row with its filter's type.
    std::size_t GetSize() const { return 1 + GetPackedSize(); }
    // From row `first` to the one before `last`, in place of what `filtered` holds. A row's bytes
    // depend on the image alone.
    void Filter(std::size_t first, std::size_t last, std::vector<std::uint8_t>& filtered) const;

private:
    std::size_t GetPackedSize() const { return m_image.width * m_pixelSize; }
    void Pack(std::size_t row, std::uint8_t* bytes) const;

    ImageView m_image;
    std::size_t m_pixelSize; // in the file
};

} // namespace Norvex::App
