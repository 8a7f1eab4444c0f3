#pragma once

// `norvexdx view`. Called once, from the main thread. Next: ViewSession.h.

#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/viewer/ViewOptions.h"

namespace Norvex::App {

// Shows the pictures in a window until the user closes it, or for the frames that were asked for. A
// picture that cannot be read is told on standard error; when none can, the answer is
// ExitCode::Failure. Throws Failure and what the library throws.
ExitCode RunView(const ViewOptions& options);

} // namespace Norvex::App
