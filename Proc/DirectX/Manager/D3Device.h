#pragma once

// Base of both devices: the description of the adapter that the device runs on, and its feature
// level. Immutable after construction, any thread. Next: D3D12Device.h.

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Export.h"
#include "Proc/DirectX/Manager/DXGIAdapter.h"
#include "Proc/DirectX/Manager/LiveObject.h"
#include "Proc/DirectX/Manager/Statistics.h"

namespace Norvex::DX {

// Canonical PCI vendor id, as AdapterDescription::vendor.
using VendorID = std::uint32_t;

class NORVEX_DX_API D3Device : public LiveObject {
public:
    D3Device(const D3Device&) = delete;
    D3Device& operator=(const D3Device&) = delete;
    ~D3Device() override;

    // S_OK while the device works; else why it was removed.
    virtual long GetDeviceRemovedReason() = 0;
    // Moves the device's pending debug messages to the log; nothing without debug mode.
    virtual void LogDebugMessages() const = 0;

    // Never null.
    const std::shared_ptr<const AdapterDescription>& GetDescription() const {
        return m_description;
    }
    // As Windows shows it, in UTF-8.
    const std::string& GetAdapterName() const { return m_description->name; }
    // Names the adapter until the machine starts anew.
    const LUID& GetAdapterLuid() const { return m_description->adapterLuid; }
    // Who made it.
    VendorID GetVID() const { return m_description->vendor; }
    // Four numbers: "31.0.15.1".
    std::string GetDriverVersion() const { return m_description->GetDriverVersion(); }
    // What the device was made with.
    D3D_FEATURE_LEVEL GetFeatureLevel() const { return m_featureLevel; }
    // "11.1"; empty for a level that the library does not know.
    std::string GetLevelName() const;

protected:
    // The adapter may be null.
    DeviceStatistics MakeStatistics(IDXGIAdapter3* adapter) const;

    // For the two generations.
    D3Device(std::shared_ptr<const AdapterDescription> description, D3D_FEATURE_LEVEL featureLevel);

private:
    std::shared_ptr<const AdapterDescription> m_description;
    D3D_FEATURE_LEVEL m_featureLevel;
};

} // namespace Norvex::DX
