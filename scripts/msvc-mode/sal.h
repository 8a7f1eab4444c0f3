#pragma once

// Wine's headers have no source annotations; MinGW's are empty macros.

#include "/usr/x86_64-w64-mingw32/include/sal.h"
