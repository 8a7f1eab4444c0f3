// Memory state. Result codes: SystemInfo.Errors.cpp.

#include "Host/SystemInfo.h"

#include <algorithm>

#include "Platform/Direct3D.h"

#include <psapi.h>

namespace Norvex::Core::Utils {

bool GetMemoryInfo(MEMINFO& info) {
    MEMORYSTATUSEX system{};
    system.dwLength = sizeof(system);
    PROCESS_MEMORY_COUNTERS_EX process{};
    process.cb = sizeof(process);
    // The call takes the address of the shorter record and reads the length.
    auto* counters = reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&process);
    if (!GlobalMemoryStatusEx(&system) ||
        !K32GetProcessMemoryInfo(GetCurrentProcess(), counters, sizeof(process))) {
        return false;
    }
    info.memoryLoad = system.dwMemoryLoad;
    info.physicalAvailable = system.ullAvailPhys;
    info.physicalTotal = system.ullTotalPhys;
    info.committedAvailable = system.ullAvailPageFile;
    info.committedTotal = system.ullTotalPageFile;
    info.virtualAvailable = system.ullAvailVirtual;
    info.virtualTotal = system.ullTotalVirtual;
    info.processPhysicalCurrent = process.WorkingSetSize;
    info.processPhysicalPeak = process.PeakWorkingSetSize;
    // Windows 7 leaves the first at 0.
    info.processVirtualCurrent = std::max(process.PagefileUsage, process.PrivateUsage);
    info.processVirtualPeak = process.PeakPagefileUsage;
    return true;
}

} // namespace Norvex::Core::Utils
