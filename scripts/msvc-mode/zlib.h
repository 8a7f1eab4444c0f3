#pragma once

// MinGW's, whose folder holds what is not for this compiler.

#include "/usr/x86_64-w64-mingw32/include/zlib.h"
