#pragma once

// Import and export marks of the two DLLs. NORVEX_HOST_BUILD and NORVEX_DX_BUILD are set by the
// build while the DLL itself is compiled; NORVEX_STATIC (tests of internals, native builds) links
// the objects directly.

#if defined(_WIN32) && !defined(NORVEX_STATIC)
#define NORVEX_EXPORT __declspec(dllexport)
#define NORVEX_IMPORT __declspec(dllimport)
#else
#define NORVEX_EXPORT
#define NORVEX_IMPORT
#endif

#if defined(NORVEX_HOST_BUILD)
#define NORVEX_HOST_API NORVEX_EXPORT
#else
#define NORVEX_HOST_API NORVEX_IMPORT
#endif

#if defined(NORVEX_DX_BUILD)
#define NORVEX_DX_API NORVEX_EXPORT
#else
#define NORVEX_DX_API NORVEX_IMPORT
#endif
