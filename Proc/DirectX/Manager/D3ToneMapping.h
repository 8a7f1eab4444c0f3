#pragma once

// How light and colours that a target cannot show are brought into its range, for drawers and
// converters of frames. A value; any thread. The luminances that it works between are the
// conversion's: ColorConversionInfo::GetPQTonemapCoefs says whether the source is brighter than the
// target. Formulas: docs/colour.md.

#include <cstdint>

#include "Platform/Export.h"

namespace Norvex::DX {

// How PQ is made darker.
enum class ToneCurve : std::uint32_t {
    // The conversion's own, which is the identity at black alone.
    Rational = 0,
    // ITU-R BT.2390-11, 5.4.1: the identity up to a knee, then Hermite's cubic to the target's
    // peak, in PQ's own values. Unlike the other it also maps PQ to PQ.
    BT2390 = 1,
};

// What a ToneCurve::BT2390 is applied to.
enum class ToneChannels : std::uint32_t {
    MaxRGB = 0,     // the largest channel; the others keep their ratios to it, so hue stays
    PerChannel = 1, // each by itself: bright colours fade and shift towards the primaries
};

// What becomes of colours of BT.2020 that BT.709 has not.
enum class GamutReduction : std::uint32_t {
    Clip = 0, // they stay what they are, and end where the target's codes do
    // They are mixed with grey of their luminance, in linear light, until no channel is negative,
    // and in SDR none is brighter than white; colours near the edge make room for those beyond.
    Soft = 1,
};

// Members may be added: name those that are meant, `{.curve = ToneCurve::BT2390}`.
struct D3ToneMapping {
    ToneCurve curve = ToneCurve::Rational;        // of light
    ToneChannels channels = ToneChannels::MaxRGB; // of ToneCurve::BT2390
    GamutReduction gamut = GamutReduction::Clip;  // of colours, after the curve
    // Of ToneCurve::BT2390: the darkest light that the source was made on, and that the target
    // shows, cd/m2, from 0 to less than the peaks. The one becomes the other, channel by channel.
    float sourceBlack = 0.0F;
    // As the source's.
    float targetBlack = 0.0F;

    friend bool operator==(const D3ToneMapping&, const D3ToneMapping&) = default;
};

// ColorConversionInfo::sourcePeakLuminance of what HDR10's metadata say, cd/m2: the brightest pixel
// (MaxCLL of CTA-861.3), else the peak of the display that it was made on (SMPTE ST 2086), else
// 1000. What is not over 0 and at most 10,000 is not known.
NORVEX_DX_API float GetSourcePeak(float maxContentLightLevel, float maxMasteringLuminance);

} // namespace Norvex::DX
