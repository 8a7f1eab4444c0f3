#pragma once

// What is read from a JPEG file's markers (ITU-T T.81, annex B), apart from its pixels: decoders
// fill up a file that was cut short with grey and report success, and not every system's tells of a
// profile. Pure functions, any thread.

#include <cstdint>
#include <span>
#include <vector>

namespace Norvex::App {

struct JpegStructure {
    bool isComplete = false;           // the markers lead to the end-of-image marker
    std::uint32_t width = 0;           // 0 where it does not say
    std::uint32_t height = 0;          // the same
    unsigned orientation = 1;          // EXIF's, 1 to 8
    std::vector<std::uint8_t> profile; // ICC; empty without
};

bool IsJpeg(std::span<const std::uint8_t> file);
// Of a file that IsJpeg.
JpegStructure ReadJpegStructure(std::span<const std::uint8_t> file);

} // namespace Norvex::App
