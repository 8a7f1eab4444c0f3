#pragma once

// The only place that includes the Windows, DXGI and Direct3D headers: their order matters. Those
// of DirectX-Headers come first, so that its newer d3dcommon.h wins over the toolchain's (the
// include guards are shared); of its helpers only those in use, since all of them cost each source
// a second. dxguids gives __uuidof for the Direct3D 12 interfaces where the toolchain has none.

#if (defined(__d3dcommon_h__) && !defined(D3D_COMPONENT_MASK_X)) ||                                \
    (defined(__d3d12_h__) && D3D12_SDK_VERSION < 614)
#error                                                                                             \
    "Another d3d12.h or d3dcommon.h, too old, came before Platform/Direct3D.h: include this first."
#endif

#if defined(__MINGW32__) && !defined(__REQUIRED_RPCNDR_H_VERSION__)
// DirectX-Headers asks for a newer one than MinGW has, by this name.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
#define __REQUIRED_RPCNDR_H_VERSION__ 475
#endif

#include "Platform/WindowsHeader.h"

#include <directx/d3d12.h>
#include <directx/d3dx12_barriers.h>
#include <directx/d3dx12_core.h>
#include <directx/d3dx12_root_signature.h>

#include <d3d11_4.h>
#include <d3dcompiler.h>
#include <dxgi1_6.h>
#include <dxgidebug.h>

#include <dxguids/dxguids.h>
