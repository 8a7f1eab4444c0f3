#pragma once

// Pixels into PNG through libpng. Any thread. Throws Failure.

#include "apps/norvexdx/pictures/Image.h"
#include "apps/norvexdx/pictures/OutputFile.h"

namespace Norvex::App {

// RGBA of the image's depth; RGB when every pixel is opaque. The colour space is noted as an sRGB
// or a cICP chunk.
void WritePng(OutputFile& file, const Image& image);

} // namespace Norvex::App
