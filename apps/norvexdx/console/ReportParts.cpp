#include "apps/norvexdx/console/ReportParts.h"

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"

namespace Norvex::App {

namespace {

const char* GetVersionName(D3D_ROOT_SIGNATURE_VERSION version) {
    constexpr const char* kNames[] = {"1.0", "1.1", "1.2"}; // from version 1 on
    const auto index = static_cast<std::size_t>(version);
    return index >= 1 && index <= std::size(kNames) ? kNames[index - 1] : "unknown";
}

} // namespace

Json MakeAdapterJson(unsigned index, const DX::AdapterDescription& description) {
    const auto& luid = description.adapterLuid;
    return {{"index", index},
            {"name", description.name},
            {"vendors", description.vendorNames},
            {"vendorId", description.vendorId},
            {"deviceId", description.deviceId},
            {"subSysId", description.subSysId},
            {"revision", description.revision},
            {"driverVersion", description.GetDriverVersion()},
            {"dedicatedVideoMemory", description.dedicatedVideoMemory},
            {"dedicatedSystemMemory", description.dedicatedSystemMemory},
            {"sharedSystemMemory", description.sharedSystemMemory},
            {"luid", fmt::format("{:08x}:{:08x}", static_cast<std::uint32_t>(luid.HighPart),
                                 static_cast<std::uint32_t>(luid.LowPart))},
            {"isSoftware", (description.flags & DXGI_ADAPTER_FLAG_SOFTWARE) != 0}};
}

Json MakeDeviceJson(const DX::D3Device& device) {
    const auto* d11 = dynamic_cast<const DX::D11Device*>(&device);
    const auto* d12 = dynamic_cast<const DX::D12Device*>(&device);
    Json json = {{"api", d12 != nullptr ? "d3d12" : "d3d11"},
                 {"featureLevel", device.GetLevelName()},
                 {"driverVersion", device.GetDriverVersion()}};
    if (d11 != nullptr) {
        json["fences"] = d11->IsFencesSupported();
    }
    if (d12 != nullptr) {
        const auto sdkVersion = d12->GetSDKVersion();
        json["rootSignatureVersion"] = GetVersionName(d12->GetRootSignatureVersion());
        json["sdkVersion"] = sdkVersion ? Json(*sdkVersion) : Json(nullptr);
    }
    return json;
}

std::string DumpJson(const Json& json) {
    constexpr int kIndent = 2;
    return json.dump(kIndent, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace Norvex::App
