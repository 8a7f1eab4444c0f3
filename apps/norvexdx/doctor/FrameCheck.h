#pragma once

// Frames of video in every layout, made and read on the device in one pass, and every kernel of the
// scaler, compared with the reference in double precision. One thread. Throws what drawing throws,
// and Failure where the adapter cannot draw the planes.

#include <string>
#include <vector>

#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

struct FrameError {
    std::string from; // a layout, or rgb, and what else is of interest
    std::string to;
    double largest = 0.0; // codes of the target, of scaled pictures 1/65535
    double allowed = 0.0;
    double psnr = 0.0; // of all samples, dB

    bool IsRight() const { return largest <= allowed; }
};

// Each layout as target of pictures in both ranges, with matrices and places of chroma in turn;
// each as source; and conversions between colour spaces on the way, with tones and gamut mapped.
std::vector<FrameError> CheckFrames(const Graphics& graphics);

// Each kernel, enlarging and shrinking.
std::vector<FrameError> CheckScaler(Graphics& graphics);

} // namespace Norvex::App
