#pragma once

// What a window shows as a picture file shows it. Pure function, any thread.

#include "apps/norvexdx/graphics/Screen.h"
#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// SDR: 8 bits, sRGB, as they are. HDR: 16 bits, Rec. 2020 PQ, whatever the back buffer holds, since
// files have no scRGB.
Image MakeScreenshot(const ScreenPixels& pixels);

} // namespace Norvex::App
