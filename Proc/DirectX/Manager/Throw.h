#pragma once

// How the library throws, internal: one line at the failing call. The cold path (result record with
// removal reason, adapter and debug messages; call stack; throw site) is out of line. E is
// DirectXException, DirectX11Exception or DirectX12Exception. Any thread; the device is borrowed.

#include <source_location>
#include <string>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/Exceptions.h"

namespace Norvex::DX {

// The device on which a call failed, or none.
struct FailedDevice {
    FailedDevice() = default;
    FailedDevice(ID3D11Device* device) : d11(device) {}
    FailedDevice(ID3D12Device* device) : d12(device) {}
    FailedDevice(const CComPtr<ID3D11Device>& device) : d11(device) {}
    FailedDevice(const CComPtr<ID3D12Device>& device) : d12(device) {}

    ID3D11Device* d11 = nullptr;
    ID3D12Device* d12 = nullptr;
};

// Throws without a result code.
template <class E>
[[noreturn]] void Throw(const std::string& sentence,
                        const std::source_location& location = std::source_location::current());

// Throws with a result code.
template <class E>
[[noreturn]] void
ThrowResult(long result, const std::string& sentence, FailedDevice device = {},
            const std::source_location& location = std::source_location::current());

// Throws when the call failed.
template <class E>
inline void ThrowIfFailed(long result, const char* sentence, FailedDevice device = {},
                          const std::source_location& location = std::source_location::current()) {
    if (result < 0) [[unlikely]] {
        ThrowResult<E>(result, sentence, device, location);
    }
}

// Throws without a result code when a check of arguments or state does not hold.
template <class E>
inline void ThrowUnless(bool holds, const char* sentence,
                        const std::source_location& location = std::source_location::current()) {
    if (!holds) [[unlikely]] {
        Throw<E>(sentence, location);
    }
}

// Throws where a module of the host was compiled with headers that the DLL does not fit: Version.h.
void ThrowUnlessVersionFits();

// Logs the exception that is being handled, for those who cannot throw on (destructors):
// "what: sentence. result". In a catch block only.
void LogCurrentException(const char* what) noexcept;

} // namespace Norvex::DX
