#pragma once

// The only place that includes the Windows, DXGI and Direct3D headers: their order matters. d3dx12 of
// DirectX-Headers comes first, so that its newer d3dcommon.h wins over the toolchain's (the include guards are
// shared); dxguids gives __uuidof for the Direct3D 12 interfaces where the toolchain has none.

#include <directx/d3dx12.h>

#include <d3d11_4.h>
#include <d3dcompiler.h>
#include <dxgi1_6.h>
#include <dxgidebug.h>

#include <dxguids/dxguids.h>
