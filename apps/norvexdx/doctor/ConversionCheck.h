#pragma once

// Every conversion between colour spaces, and to every format in Y'CbCr, made on the device and
// compared with the reference in double precision. One thread. Throws what drawing throws.

#include <vector>

#include "apps/norvexdx/clips/VideoFormat.h"
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

// Of a frame in that format, in units of its samples.
struct YCbCrError {
    VideoFormat format;
    Conf::YCbCrMatrix matrix;
    Proc::AlphaType alpha;
    bool isPlanar = false; // on one texture of both planes
    double largest = 0.0;
    double allowed = 0.0;

    bool IsRight() const { return largest <= allowed; }
};

// All formats that the adapter draws on, matrices and alpha types.
std::vector<YCbCrError> CheckYCbCr(const Graphics& graphics);

} // namespace Norvex::App
