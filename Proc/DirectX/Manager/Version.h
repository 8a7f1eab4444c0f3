#pragma once

// Versions: NORVEX_DX_VERSION is that of the headers, GetVersion() that of the DLL that runs. Each
// module that includes the library's headers tells the DLL which it was compiled with, before main;
// where the two do not fit, whoever makes the first factory or device gets a DirectXException, "The
// host was compiled with headers of NorvexDX 0.2.0, this is NorvexDX 0.1.0". They fit where major
// and minor numbers are equal (docs/abi.md). Any thread.

#include <cstdint>

#include "Platform/Abi.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/VersionNumber.h" // made by the build

// One number of all three, for comparisons: 102 is 0.1.2, 10203 is 1.2.3.
#define NORVEX_DX_MAKE_VERSION(major, minor, patch) ((major) * 10000 + (minor) * 100 + (patch))
// The version of these headers.
#define NORVEX_DX_VERSION                                                                          \
    NORVEX_DX_MAKE_VERSION(NORVEX_DX_VERSION_MAJOR, NORVEX_DX_VERSION_MINOR,                       \
                           NORVEX_DX_VERSION_PATCH)

// Takes NORVEX_DX_VERSION of a module's headers; answers whether the DLL fits. Its name says how
// the DLL was built: a linker that misses it says what host and DLL differ in.
extern "C" NORVEX_DX_API bool NORVEX_DX_BUILT_AS(std::uint32_t headers) noexcept;

namespace Norvex::DX {

// NORVEX_DX_VERSION as the DLL was built.
NORVEX_DX_API std::uint32_t GetVersion() noexcept;
// "0.1.0"; lives as long as the DLL is loaded.
NORVEX_DX_API const char* GetVersionString() noexcept;

#if !defined(NORVEX_DX_BUILD)
// In every source: Microsoft's linker may drop an inline variable that nobody uses, and the call.
[[maybe_unused]] const bool kVersionFits = NORVEX_DX_BUILT_AS(NORVEX_DX_VERSION);
#endif

} // namespace Norvex::DX
