#pragma once

// Turns a picture upright by the orientation that a camera noted. Pure function, any thread.

#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// orientation: 1 to 8 of EXIF (CIPA DC-008); 1 changes nothing.
Image MakeUpright(Image image, unsigned orientation);

} // namespace Norvex::App
