#pragma once

// The end of the process while a thread still waits for input that may never come. Any thread.

#include <thread>

#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App {

// Leaves a thread that may be inside a read from a pipe that nobody writes to: that cannot be
// called off, it ends with the process.
void LeaveThread(std::thread thread);

// What main returns. Where a thread was left the process ends here, without unloading.
int EndProcess(ExitCode exitCode);

} // namespace Norvex::App
