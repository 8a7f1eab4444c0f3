#pragma once

// `norvexdx doctor`: one command for a bug report. Called once, from the main thread.

#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

struct DoctorOptions {
    GraphicsChoice graphics; // Auto: both generations, where the adapter has them
    unsigned stressSeconds = 1;
    bool details = false;
    bool json = false;
};

// Prints system, adapters, displays, what is missing and what that costs, and examines: every
// conversion of colours and to Y'CbCr against the reference, drawing on several threads, what is
// left alive. Each failure is a line of the report, the first one on standard error too. Success
// when all that was examined is right.
ExitCode RunDoctor(const DoctorOptions& options);

} // namespace Norvex::App
