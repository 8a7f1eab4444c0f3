#pragma once

// What a command tells when it is done: as JSON for programs, as lines for people. Times are in
// milliseconds of wall time. With several pictures in flight they share the device and the
// processor, so that each one's times include waiting for the others. Pure functions, any thread.

#include <optional>
#include <string>
#include <vector>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

struct PictureTimes {
    double decode = 0.0;
    double upload = 0.0; // until the texture is on the device
    double draw = 0.0;   // from submission until the device has finished
    double readback = 0.0;
    double encode = 0.0; // including writing the file
};

struct PictureReport {
    std::string input;   // empty when nothing was read
    std::string profile; // the input's ICC profile, by its name; empty without
    std::string output;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    DXGI_FORMAT sourceFormat = DXGI_FORMAT_UNKNOWN;
    DXGI_FORMAT targetFormat = DXGI_FORMAT_UNKNOWN;
    DX::AffineTransform transform;
    std::optional<float> sourcePeak; // cd/m2, where it was measured
    PictureTimes times;
};

// {"adapter", "device", "parameters", "timesMs", "pictures": [...]}. The parameters are those of
// the shader's block; the transform, which is each picture's own, stands with
// the picture, its translation in pixels. Pictures whose peak was measured have "sourcePeak" and
// "parameters" of their own.
std::string MakeConvertJson(const Graphics& graphics,
                            const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                            const std::vector<PictureReport>& pictures);
// Nothing without pictures.
std::string MakeConvertText(const Graphics& graphics, const std::vector<PictureReport>& pictures);

// The same without parameters, for pictures that were not converted.
std::string MakeDrawJson(const Graphics& graphics, const PictureReport& picture);

} // namespace Norvex::App
