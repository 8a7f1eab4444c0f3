#include "apps/norvexdx/commands/InfoReport.h"

#include <fmt/format.h>

#include "Proc/DirectX/Manager/DXGIDisplay.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/graphics/Graphics11.h"
#include "apps/norvexdx/graphics/Graphics12.h"

namespace Norvex::App {

namespace {

constexpr DXGI_FORMAT kFormats[] = {
    DXGI_FORMAT_R8G8B8A8_UNORM,
    DXGI_FORMAT_B8G8R8A8_UNORM,
    DXGI_FORMAT_R10G10B10A2_UNORM,
    DXGI_FORMAT_R16G16B16A16_UNORM,
    DXGI_FORMAT_R16G16B16A16_FLOAT,
    DXGI_FORMAT_R32G32B32A32_FLOAT,
    DXGI_FORMAT_NV12,
    DXGI_FORMAT_P010,
    DXGI_FORMAT_P016,
};

const char* GetDisplaySpaceName(DXGI_COLOR_SPACE_TYPE space) {
    switch (space) {
    case DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709:
        return "sRGB";
    case DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709:
        return "scRGB";
    case DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020:
        return "HDR10";
    case DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P2020:
        return "Rec. 2020, gamma 2.2";
    default:
        return "another";
    }
}

Json MakePointJson(const DX::Chromaticity& point) {
    return {point.x, point.y};
}

Json MakeOutputJson(IDXGIOutput* output) {
    const DX::DisplayDescription display = DX::DXGIDisplay::Describe(output);
    if (display.name.empty()) {
        return {{"error", "the output does not describe itself"}};
    }
    const auto& area = display.area;
    const auto& primaries = display.primaries;
    return {{"name", display.name},
            {"monitor", display.monitor},
            {"rect", {area.left, area.top, area.right, area.bottom}},
            {"hdr", display.isHDR},
            {"colorSpace", GetDisplaySpaceName(display.colorSpace)},
            {"dxgiColorSpace", static_cast<int>(display.colorSpace)},
            {"bitsPerColor", display.bitsPerColor},
            {"refreshRate", display.refreshRate},
            {"minLuminance", display.minLuminance},
            {"maxLuminance", display.maxLuminance},
            {"maxFullFrameLuminance", display.maxFullFrameLuminance},
            {"sdrWhite", display.sdrWhite ? Json(*display.sdrWhite) : Json(nullptr)},
            {"primaries",
             {{"red", MakePointJson(primaries.red)},
              {"green", MakePointJson(primaries.green)},
              {"blue", MakePointJson(primaries.blue)},
              {"white", MakePointJson(primaries.white)}}}};
}

Json MakeOutputsJson(IDXGIAdapter1* adapter) {
    Json json = Json::array();
    for (UINT i = 0;; ++i) {
        CComPtr<IDXGIOutput> output;
        if (FAILED(adapter->EnumOutputs(i, &output))) {
            return json;
        }
        json.push_back(MakeOutputJson(output));
    }
}

template <class Device>
Json MakeFormatsJson(const Device& device) {
    Json json;
    for (const DXGI_FORMAT format : kFormats) {
        const FormatUses uses = GetFormatUses(device, format);
        json[GetFormatName(format)] = {
            {"drawFrom", uses.drawFrom}, {"drawTo", uses.drawTo}, {"blend", uses.blend}};
    }
    return json;
}

template <class Device>
Json MakeGenerationJson(const char* api, const DX::DXGIAdapter& adapter) {
    try {
        const auto device = Device::Create(adapter);
        Json json = MakeDeviceJson(*device);
        json["formats"] = MakeFormatsJson(*device);
        return json;
    } catch (...) {
        return {{"api", api}, {"error", DescribeFailure(std::current_exception()).line}};
    }
}

std::string GetText(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

const char* GetYesNo(const Json& value) {
    return value.get<bool>() ? "yes" : "no";
}

std::string MakeDeviceText(const Json& device) {
    const bool is12 = device["api"] == "d3d12";
    std::string text = is12 ? "  Direct3D 12: " : "  Direct3D 11: ";
    if (device.contains("error")) {
        return text + GetText(device["error"]) + "\n";
    }
    text += "level " + GetText(device["featureLevel"]);
    if (is12) {
        const Json& sdkVersion = device["sdkVersion"];
        text +=
            fmt::format(", root signature {}, SDK {}\n", GetText(device["rootSignatureVersion"]),
                        sdkVersion.is_null() ? "of the system" : GetText(sdkVersion));
    } else {
        text += fmt::format(", fences: {}\n", GetYesNo(device["fences"]));
    }
    for (const auto& [name, uses] : device["formats"].items()) {
        text += fmt::format("    {:<20}", name);
        for (const auto& [use, isSupported] : uses.items()) {
            text += isSupported.get<bool>() ? "  " + use : "";
        }
        text += "\n";
    }
    return text;
}

std::string MakeAdapterText(const Json& adapter) {
    constexpr double kMiB = 1 << 20;
    std::string text =
        fmt::format("adapter {}: {}\n  {}, vendor {:04x}, device {:04x}, driver {}, LUID {}{}\n"
                    "  memory: {:.0f} MiB video, {:.0f} MiB system, {:.0f} MiB shared\n",
                    GetText(adapter["index"]), GetText(adapter["name"]),
                    GetText(adapter["vendors"][0]), adapter["vendorId"].get<unsigned>(),
                    adapter["deviceId"].get<unsigned>(), GetText(adapter["driverVersion"]),
                    GetText(adapter["luid"]), adapter["isSoftware"].get<bool>() ? ", software" : "",
                    adapter["dedicatedVideoMemory"].get<double>() / kMiB,
                    adapter["dedicatedSystemMemory"].get<double>() / kMiB,
                    adapter["sharedSystemMemory"].get<double>() / kMiB);
    for (const Json& output : adapter["outputs"]) {
        text += "  " + MakeOutputText(output) + "\n";
    }
    for (const Json& device : adapter["devices"]) {
        text += MakeDeviceText(device);
    }
    return text;
}

} // namespace

Json MakeInfoJson() {
    const auto factory = DX::DXGIFactory::Create();
    std::vector<DX::DXGIAdapter> adapters;
    factory->EnumerateAdapters(adapters, false);
    Json json;
    json["program"] = NORVEXDX_VERSION;
    json["dxgi"] = fmt::format("1.{}", static_cast<int>(factory->GetVersion()) + 1);
    json["direct3D12"] = DX::D12Device::IsAvailable();
    json["hlslCompiler"] = DX::D3ShaderBytecode::IsCompilerLoaded();
    json["adapters"] = Json::array();
    for (unsigned i = 0; i < adapters.size(); ++i) {
        Json adapter = MakeAdapterJson(i, *adapters[i].GetDescription());
        adapter["outputs"] = MakeOutputsJson(adapters[i].Get());
        adapter["devices"] = Json::array({MakeGenerationJson<DX::D12Device>("d3d12", adapters[i]),
                                          MakeGenerationJson<DX::D11Device>("d3d11", adapters[i])});
        json["adapters"].push_back(std::move(adapter));
    }
    return json;
}

std::string MakeOutputText(const Json& output) {
    if (output.contains("error")) {
        return "output: " + GetText(output["error"]);
    }
    std::string text =
        fmt::format("output {} at {}: {} (DXGI {}), {} bits, {} to {} cd/m2, full frame {} cd/m2",
                    GetText(output["name"]), GetText(output["rect"]), GetText(output["colorSpace"]),
                    GetText(output["dxgiColorSpace"]), GetText(output["bitsPerColor"]),
                    GetText(output["minLuminance"]), GetText(output["maxLuminance"]),
                    GetText(output["maxFullFrameLuminance"]));
    if (!output["sdrWhite"].is_null()) {
        text += ", SDR white " + GetText(output["sdrWhite"]) + " cd/m2";
    }
    if (output["refreshRate"] != 0.0) {
        text += fmt::format(", {:.2f} Hz", output["refreshRate"].get<double>());
    }
    return text;
}

std::string MakeInfoText(const Json& info) {
    std::string text = fmt::format("norvexdx {}, DXGI {}, Direct3D 12: {}, HLSL compiler: {}\n",
                                   GetText(info["program"]), GetText(info["dxgi"]),
                                   GetYesNo(info["direct3D12"]), GetYesNo(info["hlslCompiler"]));
    for (const Json& adapter : info["adapters"]) {
        text += MakeAdapterText(adapter);
    }
    return text;
}

} // namespace Norvex::App
