#pragma once

// What Wine's lacks of the Windows SDK's.

#include_next <winbase.h>

extern "C" BOOL WINAPI GetProcessHandleCount(HANDLE process, PDWORD count);
extern "C" BOOL WINAPI GetPhysicallyInstalledSystemMemory(PULONGLONG kilobytes);
extern "C" PRUNTIME_FUNCTION WINAPI RtlLookupFunctionEntry(ULONG_PTR address, ULONG_PTR* base,
                                                           void* history);
