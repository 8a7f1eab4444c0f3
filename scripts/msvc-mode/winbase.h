#pragma once

// What Wine's lacks of the Windows SDK's.

#include_next <winbase.h>

extern "C" BOOL WINAPI GetPhysicallyInstalledSystemMemory(PULONGLONG kilobytes);
