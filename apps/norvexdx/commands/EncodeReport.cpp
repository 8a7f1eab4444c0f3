#include "apps/norvexdx/commands/EncodeReport.h"

#include <fmt/format.h>

#include "apps/norvexdx/console/ReportParts.h"

namespace Norvex::App {

namespace {

struct NamedStage {
    const char* name;
    EncodeStage stage;
};

constexpr NamedStage kStages[] = {
    {"read", EncodeStage::Read},
    {"upload", EncodeStage::Upload},
    {"readback", EncodeStage::Readback},
    {"write", EncodeStage::Write},
};

} // namespace

std::string MakeEncodeJson(const Graphics& graphics, const EncodeReport& report) {
    const DX::D3Device& device = graphics.GetDevice();
    const EncodeTotals& totals = report.totals;
    const auto gpuMs = totals.GetGpuMsPerFrame();
    Json json;
    json["api"] = MakeDeviceJson(device)["api"];
    json["adapter"] = MakeAdapterJson(graphics.GetAdapterIndex(), *device.GetDescription());
    json["device"] = MakeDeviceJson(device);
    json["format"] = report.format.name;
    json["matrix"] = GetMatrixName(report.matrix);
    json["colorSpace"] =
        report.colorSpace ? Json(GetColorSpaceName(*report.colorSpace)) : Json(nullptr);
    json["sourcePeak"] = report.sourcePeak ? Json(*report.sourcePeak) : Json(nullptr);
    json["converter"] = report.isOnePass ? "one-pass" : "two-pass";
    json["planes"] = report.isPlanar ? "planar" : report.format.HasPairs() ? "pair" : "three";
    json["width"] = report.size.width;
    json["height"] = report.size.height;
    json["frames"] = totals.frames;
    json["seconds"] = totals.seconds;
    json["framesPerSecond"] = totals.GetFramesPerSecond();
    json["gpuMsPerFrame"] = gpuMs ? Json(*gpuMs) : Json(nullptr);
    json["peakFramesInFlight"] = totals.peakFramesInFlight;
    json["peakBytesInFlight"] = totals.peakBytesInFlight;
    json["peakWorkingSet"] = report.peakMemory;
    json["timesMs"] = {{"deviceCreation", graphics.GetCreationMs()}};
    for (const NamedStage& stage : kStages) {
        json["timesMs"][stage.name] = totals.GetStageMsPerFrame(stage.stage);
    }
    return DumpJson(json);
}

std::string MakeEncodeText(const Graphics& graphics, const EncodeReport& report) {
    constexpr double kMegabyte = 1e6; // bytes
    const EncodeTotals& totals = report.totals;
    const std::string space =
        report.colorSpace ? " of " + GetColorSpaceName(*report.colorSpace) : std::string();
    std::string line = fmt::format("{} on {}: {} frames of {} x {} to {} ({}, {}), {:.1f} frames/s",
                                   graphics.GetApiName(), graphics.GetDevice().GetAdapterName(),
                                   totals.frames, report.size.width, report.size.height,
                                   report.format.name, GetMatrixName(report.matrix) + space,
                                   report.isPlanar            ? "planar textures"
                                   : report.format.HasPairs() ? "luma and chroma in two textures"
                                                              : "a texture a plane",
                                   totals.GetFramesPerSecond());
    if (report.sourcePeak) {
        line += fmt::format(", peak {:.0f} cd/m2", *report.sourcePeak);
    }
    if (const auto gpuMs = totals.GetGpuMsPerFrame()) {
        line += fmt::format(", GPU {:.2f} ms", *gpuMs);
    }
    for (const NamedStage& stage : kStages) {
        line += fmt::format(", {} {:.2f} ms", stage.name, totals.GetStageMsPerFrame(stage.stage));
    }
    return line + fmt::format(" a frame; at most {} frames and {:.1f} MB in flight\n",
                              totals.peakFramesInFlight,
                              static_cast<double>(totals.peakBytesInFlight) / kMegabyte);
}

} // namespace Norvex::App
