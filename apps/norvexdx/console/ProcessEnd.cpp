#include "apps/norvexdx/console/ProcessEnd.h"

#include <atomic>

#include "Platform/Direct3D.h"

namespace Norvex::App {

namespace {

std::atomic<bool> s_wasThreadLeft = false;

} // namespace

void LeaveThread(std::thread thread) {
    s_wasThreadLeft = true;
    thread.detach();
}

int EndProcess(ExitCode exitCode) {
    if (s_wasThreadLeft) {
        // The thread must not go on while what it uses is destroyed and unloaded.
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(exitCode));
    }
    return static_cast<int>(exitCode);
}

} // namespace Norvex::App
