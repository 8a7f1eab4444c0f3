#pragma once

// What is done with colours besides their conversion: tones and colours out of range, a look-up
// table. The options as the user gives them, and what the library is told. Plain values, any
// thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Proc/DirectX/Manager/D3ColorLut.h"
#include "Proc/DirectX/Manager/D3ToneMapping.h"

namespace Norvex::App {

// A tone curve, and what of a colour goes through it.
struct ToneCurveChoice {
    DX::ToneCurve curve = DX::ToneCurve::Rational;
    DX::ToneChannels channels = DX::ToneChannels::MaxRGB;
};

struct ColorStageOptions {
    std::optional<ToneCurveChoice> toneMap;
    std::optional<DX::GamutReduction> gamut;
    std::optional<float> sourceBlack; // cd/m2
    std::optional<float> targetBlack;
    std::string lut; // a .cube file; empty: none
};

struct ColorStages {
    DX::D3ToneMapping tones;
    std::shared_ptr<const DX::D3ColorLut> lut; // null: none

    bool IsNone() const { return lut == nullptr && tones == DX::D3ToneMapping{}; }
};

// rational, bt2390, bt2390-per-channel.
std::optional<ToneCurveChoice> ParseToneCurve(std::string_view name);
// clip, soft.
std::optional<DX::GamutReduction> ParseGamutReduction(std::string_view name);

// Reads the table. Failure: options without effect, since colours are not converted or the curve
// has no black; a file that cannot be read or is no table.
ColorStages LoadColorStages(const ColorStageOptions& options, bool convertsColors);

} // namespace Norvex::App
