#pragma once

// Debug mode: the Direct3D debug layer on request, and its messages in the log just before the
// exception that they explain. Process-wide state under one lock; all functions are thread-safe.

#include <string>

#include "Platform/Direct3D.h"
#include "Platform/Export.h"

namespace Norvex::DX {

// Requests debug mode. Call before the first factory is created; later it throws DirectXException
// "Debug mode must be enabled before creating the first DirectX object". Calling twice before is
// fine. A system without the debug layer (on Windows the optional Graphics Tools) is a warning in
// the log; what needs no layer, as DescribeLiveObjects, works all the same.
NORVEX_DX_API void EnableDebugMode();

// The library's objects that are alive and were made in debug mode, by class and by the place where
// they were made, the most first: "12 live objects, made at 2 places", then for each place "8 x
// D12Buffer" and its call stack in the form of GetCallStack. Empty without debug mode. For a log or
// a report of leaks; takes long.
NORVEX_DX_API std::string DescribeLiveObjects();

// Kept for hosts that call it; deliberately does nothing.
NORVEX_DX_API void ReportDirectXLeaks();

// For the library itself.
namespace Debug {

// Ends the time in which debug mode may be requested; true when it was.
bool MarkFirstObject();
// Whether debug mode was requested.
bool IsRequested() noexcept;
// Switches the Direct3D 12 debug layer on, at most once per process.
void EnableLayerOnce();
// Whether the layer was switched on: factories are then created with DXGI_CREATE_FACTORY_DEBUG.
bool IsLayerActive();
// Moves the device's stored messages to the log at matching severities; nothing without debug mode.
// The messages of one drain stand together. No lock is held while the log is written, so that a
// sink may call the library: what it causes to be drained follows. Never throws.
void DrainMessages(ID3D11Device* device);
void DrainMessages(ID3D12Device* device);

} // namespace Debug

} // namespace Norvex::DX
