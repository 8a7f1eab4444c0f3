#pragma once

// What Wine's lacks of Microsoft's.

#include_next <math.h>

extern "C" float nanf(const char* text);
