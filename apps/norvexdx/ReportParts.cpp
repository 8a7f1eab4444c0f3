#include "apps/norvexdx/ReportParts.h"

#include <fmt/format.h>

namespace Norvex::App {

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

Json MakeDeviceJson(const DX::D12Device& device) {
    constexpr const char* kRootSignatureVersions[] = {"1.0", "1.1", "1.2"};
    const auto version = static_cast<std::size_t>(device.GetRootSignatureVersion());
    const auto sdkVersion = device.GetSDKVersion();
    return {{"api", "d3d12"},
            {"featureLevel", device.GetLevelName()},
            {"rootSignatureVersion", version >= 1 && version <= std::size(kRootSignatureVersions)
                                         ? kRootSignatureVersions[version - 1]
                                         : "unknown"},
            {"sdkVersion", sdkVersion ? Json(*sdkVersion) : Json(nullptr)},
            {"driverVersion", device.GetDriverVersion()}};
}

std::string DumpJson(const Json& json) {
    constexpr int kIndent = 2;
    return json.dump(kIndent, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace Norvex::App
