#pragma once

// <windows.h>, without every processor's vector instructions, which MinGW's winnt.h brings along
// and which cost each source one to three seconds: it is told that they are there already. Who
// includes them by name gets them, before and after.

#if defined(__MINGW32__) && !defined(_X86INTRIN_H_INCLUDED)
#define NORVEX_WINDOWS_WITHOUT_X86INTRIN
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
#define _X86INTRIN_H_INCLUDED
#endif

#include <windows.h>

#ifdef NORVEX_WINDOWS_WITHOUT_X86INTRIN
#undef _X86INTRIN_H_INCLUDED
#undef NORVEX_WINDOWS_WITHOUT_X86INTRIN
#endif
