#pragma once

// From a canvas to a file. Any thread, one at a time for a canvas.

#include <filesystem>
#include <optional>

#include "apps/norvexdx/console/Report.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

// Writes the canvas with this colour space, from the memory that the device copied it to; tells in
// the report what was written and how long it took. Throws what Canvas::Read and WriteImage throw.
void WriteCanvas(Canvas& canvas, const std::filesystem::path& output,
                 const std::optional<Conf::RGBColorSpace>& colorSpace, PictureReport& report);
// The part of that after reading back.
void WriteReported(const ImageView& image, const std::filesystem::path& output,
                   const std::optional<Conf::RGBColorSpace>& colorSpace, PictureReport& report);

} // namespace Norvex::App
