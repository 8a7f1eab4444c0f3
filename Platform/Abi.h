#pragma once

// What differs between builds of the library that look alike: whose CComPtr it was compiled with,
// and whether the C++ library's containers carry checks, which makes them larger. Host and library
// must agree on both. The choice is part of a function's name (Proc/DirectX/Manager/Version.h), so
// that a wrong pair fails to link, and the linker's message says why.

#if defined(_MSC_VER) && __has_include(<atlbase.h>)
#define NORVEX_HAS_ATL 1
#else
#define NORVEX_HAS_ATL 0
#endif

#if (defined(_ITERATOR_DEBUG_LEVEL) && _ITERATOR_DEBUG_LEVEL > 0) || defined(_GLIBCXX_DEBUG)
#define NORVEX_HAS_CHECKED_CONTAINERS 1
#elif defined(_MSC_VER) && defined(_DEBUG)
#define NORVEX_HAS_CHECKED_CONTAINERS 1
#else
#define NORVEX_HAS_CHECKED_CONTAINERS 0
#endif

#if NORVEX_HAS_ATL && NORVEX_HAS_CHECKED_CONTAINERS
#define NORVEX_DX_BUILT_AS NorvexDX_built_with_CComPtr_of_ATL_and_checked_containers
#elif NORVEX_HAS_ATL
#define NORVEX_DX_BUILT_AS NorvexDX_built_with_CComPtr_of_ATL_and_plain_containers
#elif NORVEX_HAS_CHECKED_CONTAINERS
#define NORVEX_DX_BUILT_AS NorvexDX_built_with_its_own_CComPtr_and_checked_containers
#else
#define NORVEX_DX_BUILT_AS NorvexDX_built_with_its_own_CComPtr_and_plain_containers
#endif
