#pragma once

// Every conversion between colour spaces, drawn and compared with the reference in double
// precision. One thread. Throws what drawing throws.

#include <vector>

#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

// Over modes and alpha types, in 1/65535 of a channel's range.
struct ConversionError {
    Conf::RGBColorSpace from;
    Conf::RGBColorSpace to;
    double largest = 0.0;
    double allowed = 0.0;

    bool IsRight() const { return largest <= allowed; }
};

// All pairs of spaces that are converted.
std::vector<ConversionError> CheckConversions(Graphics& graphics);

} // namespace Norvex::App
