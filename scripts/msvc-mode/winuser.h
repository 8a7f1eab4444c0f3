#pragma once

// What Wine's lacks of the Windows SDK's.

#include_next <winuser.h>

extern "C" LONG WINAPI QueryDisplayConfig(UINT32 flags, UINT32* pathCount,
                                          DISPLAYCONFIG_PATH_INFO* paths, UINT32* modeCount,
                                          DISPLAYCONFIG_MODE_INFO* modes,
                                          DISPLAYCONFIG_TOPOLOGY_ID* topology);
