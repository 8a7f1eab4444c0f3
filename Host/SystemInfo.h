#pragma once

// Facts about the running system for error reports. Any thread; nothing here throws except for lack
// of memory.

#include <cstdint>
#include <string>
#include <utility>

#include "Platform/Export.h"

namespace Norvex::Core::Utils {

// Memory state of system and process; sizes in bytes.
struct MEMINFO {
    std::uint32_t memoryLoad = 0;             // percent of physical memory in use
    std::uint64_t physicalAvailable = 0;      // memory not in use
    std::uint64_t physicalTotal = 0;          // of the machine
    std::uint64_t committedAvailable = 0;     // what may still be committed
    std::uint64_t committedTotal = 0;         // the commit limit
    std::uint64_t virtualAvailable = 0;       // address space of the process
    std::uint64_t virtualTotal = 0;           // all of that
    std::uint64_t processPhysicalCurrent = 0; // working set
    std::uint64_t processPhysicalPeak = 0;    // its highest so far
    std::uint64_t processVirtualCurrent = 0;  // committed private bytes
    std::uint64_t processVirtualPeak = 0;     // its highest so far
};

// Fills the record; false when the system refuses, and the record is then unchanged.
NORVEX_HOST_API bool GetMemoryInfo(MEMINFO& info);

// {code, description} of a result code. Code: the symbolic name where there is one
// ("DXGI_ERROR_DEVICE_REMOVED"), else hexadecimal ("0x887A1234"). Description: the system's text
// without trailing line breaks; for DXGI and Direct3D codes that the system has no text for,
// this library's own; empty when there is neither.
NORVEX_HOST_API std::pair<std::string, std::string> GetErrorInfo(long result);

} // namespace Norvex::Core::Utils
