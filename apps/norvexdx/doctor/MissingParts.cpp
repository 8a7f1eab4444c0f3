#include "apps/norvexdx/doctor/MissingParts.h"

namespace Norvex::App {

namespace {

class List {
public:
    void AddIf(bool isMissing, const std::string& what, const char* cost) {
        if (isMissing) {
            m_json.push_back({{"what", what}, {"cost", cost}});
        }
    }
    Json Take() { return std::move(m_json); }

private:
    Json m_json = Json::array();
};

void AddOfDisplay(List& list, const Json& output) {
    if (output.contains("error")) {
        return;
    }
    const std::string name = output["name"];
    list.AddIf(output["bitsPerColor"] == 0, "colours and luminances of " + name,
               "it is taken for sRGB");
    list.AddIf(output["sdrWhite"].is_null(), "the luminance of SDR white on " + name,
               "in HDR white is shown at 203 cd/m2");
}

void AddOfDevice(List& list, const Json& device) {
    const bool is12 = device["api"] == "d3d12";
    const std::string name = is12 ? "Direct3D 12" : "Direct3D 11";
    if (device.contains("error")) {
        list.AddIf(true, name + " on this adapter (" + device["error"].get<std::string>() + ")",
                   is12 ? "drawing is done with Direct3D 11" : "hosts on Direct3D 11 cannot draw");
        return;
    }
    const auto drawsTo = [&](const char* format) {
        return device["formats"][format]["drawTo"].get<bool>();
    };
    list.AddIf(!is12 && !device["fences"].get<bool>(), "fences on " + name,
               "the generations cannot wait for each other");
    list.AddIf(!drawsTo("R16G16B16A16_UNORM"), "drawing in 16 bits on " + name,
               "deep pictures have the 11 bits of half precision");
    list.AddIf(!drawsTo("R16G16B16A16_FLOAT"), "drawing in half precision on " + name,
               "HDR has ten bits");
    list.AddIf(!drawsTo("NV12") || !drawsTo("P010") || !drawsTo("P016"),
               "NV12, P010 or P016 on " + name, "planes of video frames are textures of their own");
}

} // namespace

Json FindMissingParts(const Json& info, unsigned adapter) {
    List list;
    list.AddIf(!info["direct3D12"].get<bool>(), "Direct3D 12", "drawing is done with Direct3D 11");
    list.AddIf(!info["hlslCompiler"].get<bool>(), "the HLSL compiler (d3dcompiler_47.dll)",
               "nothing can be drawn");
    if (adapter >= info["adapters"].size()) {
        return list.Take();
    }
    const Json& own = info["adapters"][adapter];
    list.AddIf(own["isSoftware"].get<bool>(), "a graphics processor", "drawing is slow");
    list.AddIf(own["driverVersion"] == "0.0.0.0", "the driver's version", "unknown here");
    list.AddIf(own["outputs"].empty(), "displays on this adapter", "none is examined");
    for (const Json& output : own["outputs"]) {
        AddOfDisplay(list, output);
    }
    for (const Json& device : own["devices"]) {
        AddOfDevice(list, device);
    }
    return list.Take();
}

} // namespace Norvex::App
