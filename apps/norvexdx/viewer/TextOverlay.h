#pragma once

// Text as a picture to lay over others. Any thread.

#include <string_view>

#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// White on translucent black, premultiplied, in sRGB: the lines of the text (UTF-8, not empty) in a
// fixed-pitch font for a display of this density, with a margin. Throws Failure when the system has
// no memory for it.
Image RenderText(std::string_view text, unsigned dotsPerInch);

} // namespace Norvex::App
