#pragma once

// `norvexdx encode`. Called once, from the main thread.

#include "apps/norvexdx/commands/EncodePlan.h"

namespace Norvex::App {

// Throws Failure and what the library throws; then a file that was to be written is as it was.
void RunEncode(const EncodeOptions& options);

} // namespace Norvex::App
