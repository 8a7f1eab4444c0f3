#include "Proc/DirectX/Manager/DXGIAdapter.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string_view>

#include <fmt/format.h>

#include "Host/Registry.h"
#include "Host/Strings.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

using Core::RegKey;

constexpr const wchar_t* kDirectXKey = L"SOFTWARE\\Microsoft\\DirectX";
constexpr const wchar_t* kVideoKey = L"SYSTEM\\CurrentControlSet\\Control\\Video";
constexpr std::size_t kVersionParts = 4;
constexpr unsigned kBitsPerPart = 16;

struct VendorIds {
    std::uint32_t pciId;
    std::uint32_t canonicalId;
};

constexpr VendorIds kCanonicalVendors[] = {
    {0x8086, 0x8086}, {0x03E7, 0x8086}, {0x042B, 0x8086}, {0x8087, 0x8086}, // Intel
    {0x10DE, 0x10DE}, {0x12D2, 0x10DE}, {0x0955, 0x10DE},                   // NVIDIA
    {0x1002, 0x1002}, {0x1022, 0x1002},                                     // AMD
    {0x1414, 0x1414}, {0x045E, 0x1414},                                     // Microsoft
};

std::vector<std::string> NamesOfVendor(std::uint32_t canonicalId) {
    switch (canonicalId) {
    case 0x8086:
        return {"Intel"};
    case 0x10DE:
        return {"NVIDIA"};
    case 0x1002:
        return {"AMD", "ATI"};
    case 0x1414:
        return {"Microsoft"};
    default:
        throw std::out_of_range("invalid unordered_map<K, T> key");
    }
}

void SetVendor(AdapterDescription& description) {
    const auto* entry =
        std::ranges::find(kCanonicalVendors, description.vendorId, &VendorIds::pciId);
    if (entry != std::end(kCanonicalVendors)) {
        description.vendor = entry->canonicalId;
        description.vendorNames = NamesOfVendor(entry->canonicalId);
    } else {
        description.vendorNames = {fmt::format("Unknown_{:4X}", description.vendorId)};
    }
}

// Calls back with each subkey of `key` that opens for reading, until one answers with a value.
template <class Visit>
std::optional<std::uint64_t> FindInSubkeys(const RegKey& key, const Visit& visit) {
    for (std::uint32_t index = 0;; ++index) {
        const auto name = key.EnumKey(index);
        if (!name) {
            return std::nullopt;
        }
        RegKey subkey;
        if (!subkey.Open(key, *name, KEY_READ)) {
            continue;
        }
        if (const auto found = visit(subkey)) {
            return found;
        }
    }
}

// Windows 10 and later keep the driver version beside the adapter's id.
std::uint64_t FindDriverVersion(const LUID& luid) {
    RegKey key;
    if (!key.Open(HKEY_LOCAL_MACHINE, kDirectXKey, KEY_READ)) {
        return 0;
    }
    const auto version =
        FindInSubkeys(key, [&luid](const RegKey& adapter) -> std::optional<std::uint64_t> {
            const auto id = adapter.QueryQword(L"AdapterLuid");
            const bool isSame =
                id && static_cast<std::uint32_t>(*id) == luid.LowPart &&
                static_cast<std::uint32_t>(*id >> 32) == static_cast<std::uint32_t>(luid.HighPart);
            return isSame ? adapter.QueryQword(L"DriverVersion") : std::nullopt;
        });
    return version.value_or(0);
}

// Four decimal parts with periods between; empty for another number of parts. Throws as std::stoi
// does.
std::optional<std::uint64_t> ParseVersion(const std::wstring& text) {
    std::uint64_t version = 0;
    std::size_t parts = 0;
    for (std::size_t begin = 0; begin <= text.size(); ++parts) {
        const std::size_t end = std::min(text.find(L'.', begin), text.size());
        version = version << kBitsPerPart |
                  static_cast<std::uint16_t>(std::stoi(text.substr(begin, end - begin)));
        begin = end + 1;
    }
    return parts == kVersionParts ? std::optional(version) : std::nullopt;
}

std::optional<std::uint64_t> ReadVersionOfDevice(const RegKey& device,
                                                 const std::wstring& pattern) {
    const auto matchingId = device.QueryString(L"MatchingDeviceId");
    const auto version = device.QueryString(L"DriverVersion");
    if (!matchingId || !version ||
        Core::Utils::ToLower(*matchingId).find(pattern) == std::wstring::npos) {
        return std::nullopt;
    }
    return ParseVersion(*version);
}

// Earlier systems: by PCI ids among the video devices.
std::uint64_t FindDriverVersion(std::uint32_t vendorId, std::uint32_t deviceId) {
    const std::wstring pattern =
        Core::WstringFromUtf8(fmt::format("ven_{:04x}&dev_{:04x}", vendorId, deviceId));
    RegKey key;
    if (!key.Open(HKEY_LOCAL_MACHINE, kVideoKey, KEY_READ)) {
        return 0;
    }
    const auto version = FindInSubkeys(key, [&pattern](const RegKey& entry) {
        return FindInSubkeys(entry, [&pattern](const RegKey& device) {
            return ReadVersionOfDevice(device, pattern);
        });
    });
    return version.value_or(0);
}

CComPtr<IDXGIAdapter1> GetIDXGIAdapter1(IDXGIAdapter* adapter) {
    CComPtr<IDXGIAdapter1> adapter1;
    ThrowIfFailed<DirectXException>(
        adapter != nullptr ? adapter->QueryInterface(IID_PPV_ARGS(&adapter1)) : E_INVALIDARG,
        "Failed to get DXGI adapter version 1");
    return adapter1;
}

} // namespace

std::string AdapterDescription::GetDriverVersion() const {
    const auto part = [this](unsigned index) {
        return static_cast<std::uint16_t>(driverVersion >>
                                          (kBitsPerPart * (kVersionParts - 1 - index)));
    };
    return fmt::format("{}.{}.{}.{}", part(0), part(1), part(2), part(3));
}

DXGIAdapter::DXGIAdapter(IDXGIAdapter1* adapter) : m_adapter(adapter) {}

DXGIAdapter::DXGIAdapter(IDXGIAdapter* adapter) : m_adapter(GetIDXGIAdapter1(adapter)) {}

std::shared_ptr<const AdapterDescription> DXGIAdapter::GetDescription() const {
    DXGI_ADAPTER_DESC1 desc = {};
    ThrowIfFailed<DirectXException>(m_adapter != nullptr ? m_adapter->GetDesc1(&desc)
                                                         : E_INVALIDARG,
                                    "Failed to get DXGI adapter description");

    const std::wstring_view text(desc.Description, std::size(desc.Description));
    auto description = std::make_shared<AdapterDescription>();
    description->name = Core::Utf8FromWstring(text.substr(0, text.find(L'\0')));
    description->vendorId = desc.VendorId;
    description->deviceId = desc.DeviceId;
    description->subSysId = desc.SubSysId;
    description->revision = desc.Revision;
    description->dedicatedVideoMemory = desc.DedicatedVideoMemory;
    description->dedicatedSystemMemory = desc.DedicatedSystemMemory;
    description->sharedSystemMemory = desc.SharedSystemMemory;
    description->adapterLuid = desc.AdapterLuid;
    description->flags = desc.Flags;
    description->driverVersion = API::GetInstance().IsWindows10OrGreater()
                                     ? FindDriverVersion(desc.AdapterLuid)
                                     : FindDriverVersion(desc.VendorId, desc.DeviceId);
    SetVendor(*description);
    return description;
}

} // namespace Norvex::DX
