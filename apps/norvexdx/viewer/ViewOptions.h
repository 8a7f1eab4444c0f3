#pragma once

// What the user asks of `norvexdx view`. Plain values.

#include <optional>
#include <string>
#include <vector>

#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

enum class HDRChoice {
    Auto, // where the display is in HDR
    On,   // the same, but it is told where the display is not
    Off,
};

// Of clips.
struct ClipOptions {
    ClipInput input;               // with a format all files are clips
    std::optional<FrameRate> rate; // else what the file says, else FrameRate's own
    bool isLoop = false;
    std::optional<unsigned> first; // frame, from 1
};

struct ViewOptions {
    std::vector<std::string> files; // at least one
    ClipOptions clips;
    GraphicsChoice graphics;
    std::optional<Conf::RGBColorSpace> from; // of all pictures; else what the file says, else sRGB
    HDRChoice hdr = HDRChoice::Auto;
    bool isFullScreen = false;
    bool showsStatistics = false;
    std::optional<unsigned> frames;        // draw so many, then end
    std::string screenshot;                // where the last of them goes; empty: nowhere
    std::optional<DX::Size2DT<long>> size; // of the client area; the picture's, as far as it fits
    bool json = false;
};

} // namespace Norvex::App
