#include "Host/ErrorTable.h"

#include "Platform/Direct3D.h"

namespace Norvex::Core::Utils {

namespace {

// For codes that every toolchain's headers name.
#define NORVEX_NAMED(code, text) {static_cast<long>(code), #code, text}
// For codes that only some headers name; as a literal.
#define NORVEX_NUMBERED(number, name, text) {static_cast<long>(number), name, text}
// FACILITY_DIRECT3D9 has no symbols in the headers of later generations.
#define NORVEX_D3D9(code, name, text) NORVEX_NUMBERED(0x88760000 + (code), name, text)

constexpr ErrorText kErrorTable[] = {
    // COM and Win32. The system has the texts of most.
    NORVEX_NAMED(S_OK, "The operation succeeded."),
    NORVEX_NAMED(S_FALSE, "The operation succeeded with a negative answer."),
    NORVEX_NAMED(E_NOTIMPL, "The operation is not implemented."),
    NORVEX_NAMED(E_NOINTERFACE, "The object does not have the requested interface."),
    NORVEX_NAMED(E_POINTER, "A pointer is not valid."),
    NORVEX_NAMED(E_ABORT, "The operation was aborted."),
    NORVEX_NAMED(E_FAIL, "The operation failed for an unspecified reason."),
    NORVEX_NAMED(E_UNEXPECTED, "The operation met a state that should not occur."),
    NORVEX_NAMED(E_PENDING, "The data is not available yet."),
    NORVEX_NUMBERED(0x8000000B, "E_BOUNDS", "An index is out of range."),
    NORVEX_NAMED(E_ACCESSDENIED, "Access is denied."),
    NORVEX_NAMED(E_HANDLE, "A handle is not valid."),
    NORVEX_NAMED(E_OUTOFMEMORY, "Not enough memory is available."),
    NORVEX_NAMED(E_INVALIDARG, "An argument is not valid."),
    NORVEX_NAMED(CO_E_NOTINITIALIZED, "COM is not initialised on this thread."),
    NORVEX_NAMED(REGDB_E_CLASSNOTREG, "The class is not registered."),
    NORVEX_NAMED(RPC_E_CHANGED_MODE, "COM is initialised on this thread with another model."),

    // DXGI.
    NORVEX_NAMED(DXGI_ERROR_INVALID_CALL, "The call is not valid with these arguments or now."),
    NORVEX_NAMED(DXGI_ERROR_NOT_FOUND, "The requested object was not found."),
    NORVEX_NAMED(DXGI_ERROR_MORE_DATA, "The buffer is too small for the data."),
    NORVEX_NAMED(DXGI_ERROR_UNSUPPORTED, "The device or the driver does not support this."),
    NORVEX_NAMED(DXGI_ERROR_DEVICE_REMOVED,
                 "The graphics device was removed, reset or its driver was updated."),
    NORVEX_NAMED(DXGI_ERROR_DEVICE_HUNG,
                 "The graphics device stopped responding to the commands it was given."),
    NORVEX_NAMED(DXGI_ERROR_DEVICE_RESET,
                 "The graphics device was reset because of a badly formed command."),
    NORVEX_NAMED(DXGI_ERROR_WAS_STILL_DRAWING,
                 "The device was still drawing and did not take the request."),
    NORVEX_NAMED(DXGI_ERROR_FRAME_STATISTICS_DISJOINT,
                 "The frame statistics were interrupted, for instance by a power event."),
    NORVEX_NAMED(DXGI_ERROR_GRAPHICS_VIDPN_SOURCE_IN_USE,
                 "Another application owns the output exclusively."),
    NORVEX_NAMED(DXGI_ERROR_DRIVER_INTERNAL_ERROR, "The graphics driver met an internal error."),
    NORVEX_NAMED(DXGI_ERROR_NONEXCLUSIVE, "The resource is not in exclusive use."),
    NORVEX_NAMED(DXGI_ERROR_NOT_CURRENTLY_AVAILABLE,
                 "The resource or the request is not available at the moment."),
    NORVEX_NAMED(DXGI_ERROR_REMOTE_CLIENT_DISCONNECTED, "The remote client has disconnected."),
    NORVEX_NAMED(DXGI_ERROR_REMOTE_OUTOFMEMORY, "The remote client is out of memory."),
    NORVEX_NAMED(DXGI_ERROR_MODE_CHANGE_IN_PROGRESS, "A display mode change is in progress."),
    NORVEX_NAMED(DXGI_ERROR_ACCESS_LOST, "Access to the desktop duplication was lost."),
    NORVEX_NAMED(DXGI_ERROR_WAIT_TIMEOUT, "The next frame did not come in time."),
    NORVEX_NAMED(DXGI_ERROR_SESSION_DISCONNECTED, "The session is disconnected."),
    NORVEX_NAMED(DXGI_ERROR_RESTRICT_TO_OUTPUT_STALE,
                 "The output that the content is restricted to is gone or changed."),
    NORVEX_NAMED(DXGI_ERROR_CANNOT_PROTECT_CONTENT, "The content cannot be protected."),
    NORVEX_NAMED(DXGI_ERROR_ACCESS_DENIED,
                 "The resource was opened without the access that this use needs."),
    NORVEX_NAMED(DXGI_ERROR_NAME_ALREADY_EXISTS, "The name of the shared resource is taken."),
    NORVEX_NAMED(DXGI_ERROR_SDK_COMPONENT_MISSING,
                 "A component of the SDK, such as its debug layer, is missing or does not match."),
    NORVEX_NAMED(DXGI_ERROR_NOT_CURRENT, "The object is out of date and has to be made again."),
    NORVEX_NAMED(DXGI_ERROR_HW_PROTECTION_OUTOFMEMORY, "The protected memory is exhausted."),
    NORVEX_NAMED(DXGI_ERROR_DYNAMIC_CODE_POLICY_VIOLATION,
                 "The process policy forbids code that is made at run time."),
    NORVEX_NAMED(DXGI_ERROR_NON_COMPOSITED_UI, "The window is not composited."),
    NORVEX_NAMED(DXGI_ERROR_CACHE_CORRUPT, "The cache is corrupt."),
    NORVEX_NAMED(DXGI_ERROR_CACHE_FULL, "The cache is full."),
    NORVEX_NAMED(DXGI_ERROR_CACHE_HASH_COLLISION, "Two keys of the cache have the same hash."),
    NORVEX_NAMED(DXGI_ERROR_ALREADY_EXISTS, "The object exists already."),
    NORVEX_NUMBERED(0x887A0064, "DXGI_ERROR_MPO_UNPINNED", "The overlay plane was unpinned."),
    NORVEX_NAMED(DXGI_STATUS_OCCLUDED, "The window cannot be seen; nothing was presented."),
    NORVEX_NAMED(DXGI_STATUS_CLIPPED, "The picture was clipped."),
    NORVEX_NAMED(DXGI_STATUS_NO_REDIRECTION, "The picture was not redirected."),
    NORVEX_NAMED(DXGI_STATUS_NO_DESKTOP_ACCESS, "The desktop cannot be reached."),
    NORVEX_NAMED(DXGI_STATUS_GRAPHICS_VIDPN_SOURCE_IN_USE,
                 "Another application owns the output exclusively; nothing was presented."),
    NORVEX_NAMED(DXGI_STATUS_MODE_CHANGED, "The display mode has changed."),
    NORVEX_NAMED(DXGI_STATUS_MODE_CHANGE_IN_PROGRESS, "A display mode change is in progress."),
    NORVEX_NAMED(DXGI_STATUS_UNOCCLUDED, "The window can be seen again."),
    NORVEX_NAMED(DXGI_STATUS_DDA_WAS_STILL_DRAWING, "The output was still drawing."),
    NORVEX_NAMED(DXGI_STATUS_PRESENT_REQUIRED, "The picture has to be presented again."),

    // Direct3D 11 and 12.
    NORVEX_NUMBERED(0x887C0001, "D3D11_ERROR_TOO_MANY_UNIQUE_STATE_OBJECTS",
                    "There are too many different state objects."),
    NORVEX_NUMBERED(0x887C0002, "D3D11_ERROR_FILE_NOT_FOUND", "The file was not found."),
    NORVEX_NUMBERED(0x887C0003, "D3D11_ERROR_TOO_MANY_UNIQUE_VIEW_OBJECTS",
                    "There are too many different view objects."),
    NORVEX_NUMBERED(0x887C0004, "D3D11_ERROR_DEFERRED_CONTEXT_MAP_WITHOUT_INITIAL_DISCARD",
                    "The first mapping on a deferred context has to discard the contents."),
    NORVEX_NUMBERED(0x887E0001, "D3D12_ERROR_ADAPTER_NOT_FOUND",
                    "The cached pipeline state was made on another adapter."),
    NORVEX_NUMBERED(0x887E0002, "D3D12_ERROR_DRIVER_VERSION_MISMATCH",
                    "The cached pipeline state was made by another driver version."),
    NORVEX_NUMBERED(0x887E0003, "D3D12_ERROR_INVALID_REDIST",
                    "The Direct3D 12 runtime that the program brings along is not valid."),

    // Direct3D 9, whose codes some implementations of the later generations still answer.
    NORVEX_D3D9(380, "D3DERR_OUTOFVIDEOMEMORY", "Not enough video memory is available."),
    NORVEX_D3D9(2087, "D3DERR_DRIVERINTERNALERROR", "The graphics driver met an internal error."),
    NORVEX_D3D9(2150, "D3DERR_NOTFOUND", "The requested item was not found."),
    NORVEX_D3D9(2151, "D3DERR_MOREDATA", "The buffer is too small for the data."),
    NORVEX_D3D9(2152, "D3DERR_DEVICELOST", "The graphics device is lost."),
    NORVEX_D3D9(2153, "D3DERR_DEVICENOTRESET", "The graphics device has to be reset."),
    NORVEX_D3D9(2154, "D3DERR_NOTAVAILABLE", "The device does not support this."),
    NORVEX_D3D9(2155, "D3DERR_INVALIDDEVICE", "The device type is not valid."),
    NORVEX_D3D9(2156, "D3DERR_INVALIDCALL", "The call is not valid with these arguments or now."),
    NORVEX_D3D9(2160, "D3DERR_DEVICEREMOVED", "The graphics device was removed."),
    NORVEX_D3D9(2164, "D3DERR_DEVICEHUNG", "The graphics device stopped responding."),
};

#undef NORVEX_D3D9
#undef NORVEX_NUMBERED
#undef NORVEX_NAMED

} // namespace

std::span<const ErrorText> GetErrorTable() {
    return kErrorTable;
}

} // namespace Norvex::Core::Utils
