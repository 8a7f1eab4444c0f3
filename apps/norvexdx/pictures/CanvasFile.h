#pragma once

// From a canvas to a file. Any thread, one at a time for a canvas.

#include <filesystem>
#include <optional>

#include "apps/norvexdx/console/Report.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

// Reads the canvas back and writes it with this colour space; tells in the report what was written
// and how long it took. Throws what Canvas::Download and WriteImage throw.
void WriteCanvas(Canvas& canvas, const std::filesystem::path& output,
                 const std::optional<Conf::RGBColorSpace>& colorSpace, PictureReport& report);
// The part of that after reading back.
void WriteReported(const Image& image, const std::filesystem::path& output, PictureReport& report);

} // namespace Norvex::App
