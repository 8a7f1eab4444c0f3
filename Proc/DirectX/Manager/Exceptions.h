#pragma once

// Result records and exceptions: how every failure of the graphics stack reaches the caller. Plain
// values; copies share nothing but the adapter description and the memory snapshot, which do not
// change, and may travel to other threads. An exception is gone before the library is unloaded.
// How the library throws: Throw.h.

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "Host/ProcException.h"
#include "Host/SystemInfo.h"
#include "Platform/Direct3D.h"
#include "Platform/Export.h"

namespace Norvex {

namespace DX {
struct AdapterDescription;
}

// What is known of a failed call.
struct HResultValue {
    // The result code; for a removed device its removal reason.
    std::int32_t result = 0;
    // The adapter of the device on which the call failed; empty when not known.
    std::shared_ptr<const DX::AdapterDescription> adapter;
    // Memory state at the failure; only after E_OUTOFMEMORY.
    std::shared_ptr<const Core::Utils::MEMINFO> memoryInfo;
};

struct TagHResult;

// What an exception carries: boost::get_error_info<ErrorResult>(e) is its HResultValue, or null.
using ErrorResult = boost::error_info<TagHResult, HResultValue>;

// Makes an ErrorResult of a failed call, and is attached as one: `exception << HResult(result)`.
// (get_error_info<HResult> finds nothing.) Any thread. Where memory is lacking it does without the
// memory state or the messages.
class NORVEX_DX_API HResult : public ErrorResult {
public:
    // A result without a device.
    explicit HResult(long result);
    // These two replace DXGI_ERROR_DEVICE_REMOVED by the device's removal reason, find the adapter
    // of the library's own wrapper of the device, and drain the device's pending debug messages
    // into the log. The device is only borrowed; null: as without. They take the generation's
    // registry lock for a moment.
    HResult(long result, ID3D11Device* device);
    HResult(long result, ID3D12Device* device);
};

// "Code: ..., Description: ..." and, each on a line of its own where known, the adapter's name and
// the memory state.
NORVEX_DX_API std::string to_string(const HResultValue& value);

namespace DX {

// Whether a result says that the device is gone, and all that was made on it: removed (adapter
// unplugged or disabled, driver updated), hung, reset, or a driver's internal error. Any thread.
NORVEX_DX_API bool IsDeviceLoss(long result) noexcept;

// Thrown by the generation-neutral code; base of the other three.
class NORVEX_DX_API DirectXException : public Proc::ProcException {
public:
    DirectXException() = default;
    DirectXException(const DirectXException&) = default;
    DirectXException(DirectXException&&) = default;
    DirectXException& operator=(const DirectXException&) = default;
    DirectXException& operator=(DirectXException&&) = default;
    ~DirectXException() noexcept override;

    // The name of the class in words, the same for all its objects.
    const char* what() const noexcept override;

    // The carried result code; E_FAIL when none was carried. Never throws.
    long GetResult() const;
    // to_string of the carried record; "Undefined result" when none was carried.
    std::string GetResultDescription() const;
    // Reports the exception to the host's tracker (ICoreTracker) under CORE_GPU_EXCEPTION; nothing
    // without a carried result. The host calls it where it catches, so nothing is thrown: what the
    // tracker throws is logged.
    void TrackException() const;
};

// All that is known of a failure, for a bug report; lines, the first of which says it in a
// sentence. Of a library exception: its sentence; its kind, result with name and the system's
// words; adapter with driver, and the memory state, where known; where it was thrown, the call
// stack; the version of the library. Of another: what() and whichever of these it carries. Any
// thread; throws nothing but std::bad_alloc.
NORVEX_DX_API std::string Describe(const std::exception& exception);

// Thrown by the Direct3D 11 side.
class NORVEX_DX_API DirectX11Exception : public DirectXException {
public:
    DirectX11Exception() = default;
    DirectX11Exception(const DirectX11Exception&) = default;
    DirectX11Exception(DirectX11Exception&&) = default;
    DirectX11Exception& operator=(const DirectX11Exception&) = default;
    DirectX11Exception& operator=(DirectX11Exception&&) = default;
    ~DirectX11Exception() noexcept override;

    // The name of the class in words, the same for all its objects.
    const char* what() const noexcept override;
};

// Thrown by the Direct3D 12 side.
class NORVEX_DX_API DirectX12Exception : public DirectXException {
public:
    DirectX12Exception() = default;
    DirectX12Exception(const DirectX12Exception&) = default;
    DirectX12Exception(DirectX12Exception&&) = default;
    DirectX12Exception& operator=(const DirectX12Exception&) = default;
    DirectX12Exception& operator=(DirectX12Exception&&) = default;
    ~DirectX12Exception() noexcept override;

    // The name of the class in words, the same for all its objects.
    const char* what() const noexcept override;
};

// For a host's own Direct3D 12 encoder code; nothing in the library throws it.
class NORVEX_DX_API D12EncoderException : public DirectX12Exception {
public:
    D12EncoderException() = default;
    D12EncoderException(const D12EncoderException&) = default;
    D12EncoderException(D12EncoderException&&) = default;
    D12EncoderException& operator=(const D12EncoderException&) = default;
    D12EncoderException& operator=(D12EncoderException&&) = default;
    ~D12EncoderException() noexcept override;

    // The name of the class in words, the same for all its objects.
    const char* what() const noexcept override;
};

} // namespace DX

} // namespace Norvex
