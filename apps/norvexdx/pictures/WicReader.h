#pragma once

// Pictures through the Windows Imaging Component: JPEG, TIFF, and what else the system decodes. Any
// thread. Throws Failure, without the file's name.

#include <cstdint>
#include <span>

#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// The first frame. 16-bit samples are kept exactly; 8-bit RGB, BGR and grey too; other 8-bit
// formats are converted by the system. Failures: unknown format, damaged, too large, samples of
// more than 16 bits or in floating point.
Image ReadWithWic(std::span<const std::uint8_t> file);

} // namespace Norvex::App
