#pragma once

// The Direct3D 12 video header, large and so apart from Direct3D.h, which must come first.

#include "Platform/Direct3D.h"

#include <directx/d3d12video.h>
