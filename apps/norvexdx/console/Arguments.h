#pragma once

// Values as the user types them. Each parser takes the whole text and answers nothing when it is
// not such a value. Pure functions, any thread.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "apps/norvexdx/viewer/ViewOptions.h"

namespace Norvex::App {

// A finite number in C notation, which ends where the text ends.
std::optional<double> ParseNumber(std::string_view text);
// Finite and greater than 0.
std::optional<float> ParsePositive(std::string_view text);
// Luminance in cd/m2, from 1 to 10000 (the most that PQ can say).
std::optional<float> ParseNits(std::string_view text);
// The peak of a PQ input: as ParseNits, or "measured".
struct SourcePeak {
    std::optional<float> nits; // empty: to be measured
};
std::optional<SourcePeak> ParseSourcePeak(std::string_view text);
// Luminance of black in cd/m2, from 0 to 10.
std::optional<float> ParseBlack(std::string_view text);
// RRGGBBAA or RRGGBB (opaque), hexadecimal, with or without '#'; as floats from 0 to 1.
std::optional<Proc::ColorF> ParseColor(std::string_view text);
// WIDTHxHEIGHT in pixels, each from 1 to kMaxDimension.
std::optional<DX::Size2DT<long>> ParseSize(std::string_view text);
// X,Y in pixels.
std::optional<std::array<float, 2>> ParsePoint(std::string_view text);
// LEFT,TOP,RIGHT,BOTTOM in pixels, not empty, within Direct3D's bounds for viewports (-32768 to
// 32767).
std::optional<DX::Rect2DT<long>> ParseRect(std::string_view text);
// TONEMAPA,TONEMAPB,PEAK,GAMMA,SCALE; peak and gamma greater than 0.
std::optional<Proc::RawConversionParams> ParseRawParams(std::string_view text);
// 8 or 16.
std::optional<unsigned> ParseDepth(std::string_view text);
std::optional<unsigned> ParseIndex(std::string_view text);

std::optional<Conf::RGBColorSpace> ParseColorSpace(std::string_view name);
std::optional<Proc::AlphaType> ParseAlphaType(std::string_view name);
std::optional<Proc::LinearizationMode> ParseMode(std::string_view name);
std::optional<DX::RenderFitMode> ParseFitMode(std::string_view name);
std::optional<ApiChoice> ParseApi(std::string_view name);
std::optional<HDRChoice> ParseHDRChoice(std::string_view name);

// "srgb, rec709, ...", for messages and help.
std::string GetColorSpaceNames();
// The name of one of the seven colour spaces.
std::string GetColorSpaceName(const Conf::RGBColorSpace& space);
// The colour space with these code points of ITU-T H.273, if it is one of the seven.
std::optional<Conf::RGBColorSpace> FindColorSpace(unsigned primaries, unsigned transfer);

} // namespace Norvex::App
