#pragma once

// An adapter, and what is known of it: DXGI's description plus driver version and vendor names.
// DXGIAdapter is a value that owns its interface; a description is immutable once handed out and
// shared by devices and error records. Any thread.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/Version.h"

namespace Norvex::DX {

struct NORVEX_DX_API AdapterDescription {
    std::string name;                        // UTF-8
    std::uint32_t vendorId = 0;              // of PCI
    std::uint32_t deviceId = 0;              // of PCI
    std::uint32_t subSysId = 0;              // of PCI
    std::uint32_t revision = 0;              // of PCI
    std::uint64_t dedicatedVideoMemory = 0;  // bytes
    std::uint64_t dedicatedSystemMemory = 0; // bytes
    std::uint64_t sharedSystemMemory = 0;    // bytes
    LUID adapterLuid = {};                   // until the machine starts anew
    std::uint64_t driverVersion = 0; // four 16-bit parts, most significant first; 0 when unknown
    std::uint32_t flags = 0;         // DXGI_ADAPTER_FLAG bits
    std::uint32_t vendor = 0;        // canonical PCI vendor id; 0 for an unknown vendor
    std::vector<std::string> vendorNames; // never empty, the preferred name first

    // "31.0.15.3742"; four zeros when unknown.
    std::string GetDriverVersion() const;
};

// Both halves equal.
inline bool IsSameLuid(const LUID& a, const LUID& b) {
    return a.LowPart == b.LowPart && a.HighPart == b.HighPart;
}

class NORVEX_DX_API DXGIAdapter {
public:
    DXGIAdapter() = default;
    // Adds a reference; null gives an empty adapter.
    explicit DXGIAdapter(IDXGIAdapter1* adapter);
    // Throws DirectXException "Failed to get DXGI adapter version 1", with E_INVALIDARG for null.
    explicit DXGIAdapter(IDXGIAdapter* adapter);

    // The wrapped interface, borrowed; null when empty.
    IDXGIAdapter1* Get() const { return m_adapter; }

    // A new description on every call: reads DXGI and the registry. Throws DirectXException "Failed
    // to get DXGI adapter description", with E_INVALIDARG for an empty adapter;
    // std::invalid_argument or std::out_of_range when, before Windows 10, the registry holds a
    // driver version that is not numbers.
    std::shared_ptr<const AdapterDescription> GetDescription() const;

private:
    CComPtr<IDXGIAdapter1> m_adapter;
};

} // namespace Norvex::DX
