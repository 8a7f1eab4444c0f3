#pragma once

// `norvexdx convert`. Called once, from the main thread.

#include "apps/norvexdx/commands/ConvertPlan.h"
#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App {

// Converts all inputs, several at a time: while one is drawn, others are decoded and encoded. A
// failing input is told on standard error, the others go on, and the answer is ExitCode::Failure.
// Throws what fails all of them: the device, the shaders.
ExitCode RunConvert(const ConvertOptions& options);

} // namespace Norvex::App
