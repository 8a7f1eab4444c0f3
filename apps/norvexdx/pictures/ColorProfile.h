#pragma once

// ICC profiles of picture files, applied by the system's colour management. Any thread. Throws
// Failure, without the file's name.

#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// Takes the profile's name out of it, and the picture to sRGB, at its depth; what sRGB cannot show
// is clipped. A profile that says a colour space in code points (tag cicp) is no cause to convert:
// the picture gets that space, and sRGB where the profile is sRGB's own. Failures, which leave the
// pixels as they are: not a profile of RGB, damaged.
void ApplyProfile(Image& image);

} // namespace Norvex::App
