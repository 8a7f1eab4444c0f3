#pragma once

// Pixels into PNG, strip by strip on all processors. Any thread. Throws Failure.

#include "apps/norvexdx/pictures/Image.h"
#include "apps/norvexdx/pictures/OutputFile.h"

namespace Norvex::App {

// RGBA of the image's depth; RGB when every pixel is opaque. The image has at least one pixel. The
// colour space is noted as an sRGB or a cICP chunk. Beside the image a few MiB a processor are
// needed.
void WritePng(OutputFile& file, const ImageView& image,
              const std::optional<Conf::RGBColorSpace>& colorSpace);

} // namespace Norvex::App
