#include "apps/norvexdx/console/Report.h"

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "apps/norvexdx/console/ReportParts.h"

namespace Norvex::App {

namespace {

Json MakeParametersJson(const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    const DX::D3ImageParams params = DX::D3ImageRenderer::MakeParams({}, conversion);
    return {{"sourceColorSpace", params.sourceColorSpace},
            {"targetColorSpace", params.targetColorSpace},
            {"sourceAlphaType", params.sourceAlphaType},
            {"targetAlphaType", params.targetAlphaType},
            {"displayLinear", params.displayLinear != 0},
            {"linearScale", params.linearScale},
            {"pqTonemapA", params.pqTonemapA},
            {"pqTonemapB", params.pqTonemapB},
            {"displayPeakLuminance", params.displayPeakLuminance},
            {"hlgOOTFGamma", params.hlgOOTFGamma}};
}

Json MakePictureJson(const PictureReport& picture) {
    Json json;
    if (!picture.input.empty()) {
        json["input"] = picture.input;
        json["profile"] = picture.profile.empty() ? Json(nullptr) : Json(picture.profile);
        json["sourceFormat"] = GetFormatName(picture.sourceFormat);
        json["transform"] = picture.transform.rows;
    }
    json["output"] = picture.output;
    json["width"] = picture.width;
    json["height"] = picture.height;
    json["targetFormat"] = GetFormatName(picture.targetFormat);
    Json& times = json["timesMs"];
    if (!picture.input.empty()) {
        times["decode"] = picture.times.decode;
        times["upload"] = picture.times.upload;
    }
    times["draw"] = picture.times.draw;
    times["readback"] = picture.times.readback;
    times["encode"] = picture.times.encode;
    return json;
}

Json MakeRunJson(const Graphics& graphics) {
    Json json;
    const DX::D3Device& device = graphics.GetDevice();
    json["adapter"] = MakeAdapterJson(graphics.GetAdapterIndex(), *device.GetDescription());
    json["device"] = MakeDeviceJson(device);
    json["timesMs"] = {{"deviceCreation", graphics.GetCreationMs()},
                       {"shaderCompilation", graphics.GetShaderCompilationMs()}};
    return json;
}

} // namespace

std::string MakeConvertJson(const Graphics& graphics,
                            const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                            const std::vector<PictureReport>& pictures) {
    Json json = MakeRunJson(graphics);
    json["parameters"] = MakeParametersJson(conversion);
    json["pictures"] = Json::array();
    for (const PictureReport& picture : pictures) {
        Json& last = json["pictures"].emplace_back(MakePictureJson(picture));
        if (picture.sourcePeak && conversion) {
            auto ofPicture = *conversion;
            ofPicture.sourcePeakLuminance = *picture.sourcePeak;
            last["sourcePeak"] = *picture.sourcePeak;
            last["parameters"] = MakeParametersJson(ofPicture);
        }
    }
    return DumpJson(json);
}

std::string MakeConvertText(const Graphics& graphics, const std::vector<PictureReport>& pictures) {
    if (pictures.empty()) {
        return {};
    }
    std::string text = fmt::format("{} on {}: device {:.0f} ms, shaders {:.1f} ms\n",
                                   graphics.GetApiName(), graphics.GetDevice().GetAdapterName(),
                                   graphics.GetCreationMs(), graphics.GetShaderCompilationMs());
    for (const PictureReport& picture : pictures) {
        const PictureTimes& times = picture.times;
        const std::string reading =
            picture.input.empty()
                ? std::string()
                : fmt::format("decode {:.1f}, upload {:.1f}, ", times.decode, times.upload);
        const std::string profile =
            picture.profile.empty() ? "" : fmt::format(", profile \"{}\"", picture.profile);
        const std::string peak =
            picture.sourcePeak ? fmt::format(", peak {:.0f} cd/m2", *picture.sourcePeak) : "";
        text += fmt::format(
            "{}: {} x {}, {}{}{}; {}draw {:.1f}, readback {:.1f}, encode {:.1f} ms\n",
            picture.output, picture.width, picture.height, GetFormatName(picture.targetFormat),
            profile, peak, reading, times.draw, times.readback, times.encode);
    }
    return text;
}

std::string MakeDrawJson(const Graphics& graphics, const PictureReport& picture) {
    Json json = MakeRunJson(graphics);
    json["pictures"] = Json::array({MakePictureJson(picture)});
    return DumpJson(json);
}

} // namespace Norvex::App
