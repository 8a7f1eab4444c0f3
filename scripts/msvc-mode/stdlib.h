#pragma once

// What Wine's lacks of Microsoft's.

#include_next <stdlib.h>

extern "C" int _dupenv_s(char** value, size_t* length, const char* name);
