#pragma once

// What a colour conversion is to do, and the numbers that follow from it: plain values with derived
// getters. Luminances are in cd/m2. Light of 1.0 is SDR white in SDR spaces and 100 cd/m2 in PQ and
// display-referred HLG light, which is why reference white appears in the scale. Equal spaces with
// a scale of 1 are not converted at all, and so never tone-mapped.

#include <cstdint>
#include <optional>
#include <utility>

#include "Host/Color.h"
#include "Platform/Export.h"

namespace Norvex::Proc {

// Which light the conversion works in between decoding and encoding.
enum class LinearizationMode : std::uint32_t {
    SceneReferred = 0, // inverse of the camera's transfer functions (ITU-R BT.709 OETF, HLG OETF)
    DisplayReferredHDR = 1, // light of the display, for output to an HDR display
    DisplayReferred = 2,    // light of the display
};

// The derived numbers given outright, for comparisons with other converters.
struct RawConversionParams {
    float pqTonemapA = 0.0F;              // of the curve from PQ to a darker display; 0: none
    float pqTonemapB = 0.0F;              // of the same curve
    float displayPeakLuminance = 1000.0F; // cd/m2, > 0
    float hlgOOTFGamma = 1.2F;            // > 0
    float linearScale = 1.0F;             // factor on linear light

    friend bool operator==(const RawConversionParams&, const RawConversionParams&) = default;
};

struct NORVEX_HOST_API ColorConversionInfo {
    Conf::RGBColorSpace source; // of the samples
    Conf::RGBColorSpace target; // of what is drawn
    // Which light the factor below and the primaries are applied to.
    LinearizationMode mode = LinearizationMode::DisplayReferred;
    float linearScale = 1.0F;               // factor on linear light
    float sourcePeakLuminance = 1000.0F;    // peak of the mastering display, > 0
    float targetPeakLuminance = 1000.0F;    // peak of the target display, > 0
    float referenceWhite = 203.0F;          // HDR reference white, ITU-R BT.2408-7, 2.1; > 0
    std::optional<RawConversionParams> raw; // when set, all getters answer from here

    // Factor on linear light: linearScale x white of the target / white of the source, so that
    // white stays white in every mode. White is 1 in SDR and linear spaces. In PQ and HLG it is
    // what stands for referenceWhite: in display light referenceWhite / 100; in scene light of PQ
    // the light that the BT.709 camera and a BT.1886 display show as that; in scene light of HLG (0
    // to 12) 12 (referenceWhite / 1000)^(1 / 1.2), ITU-R BT.2100-2, table 5, for its display of
    // 1000 cd/m2: 75 % of the signal at 203 cd/m2.
    float GetLinearScale() const;

    // {A, B} of the tone curve (1 + A m) / (1 + B m) on the channel maximum m (1.0 = 100 cd/m2).
    // (0, 0) unless the source is PQ and its peak exceeds the target's; else, with L = source peak
    // / 100 and D = target peak / 100, A = D / L^2 and B = 1 / D: the identity at black, and L goes
    // to D. An SDR target's peak is its white, which stands for referenceWhite; SDR is every target
    // but PQ, HLG, and linear light in mode DisplayReferredHDR.
    std::pair<float, float> GetPQTonemapCoefs() const;

    // Peak of the display that the HLG signal is shown on (source HLG: the target's peak, which is
    // the display it is decoded for) or made for (target HLG).
    float GetHLGDisplayPeakLuminance() const;

    // System gamma for that peak: ITU-R BT.2100-2, table 5, note 5f: 1.2 + 0.42 log10(peak / 1000)
    // from 400 to 2000 cd/m2; outside, ITU-R BT.2390-8, 6.2: 1.2 x 1.111^log2(peak / 1000).
    float GetHLGOOTFGamma() const;
};

struct NORVEX_HOST_API ColorAlphaConversionInfo : ColorConversionInfo {
    AlphaType sourceAlpha = AlphaType::NonPremultiplied; // of the samples
    AlphaType targetAlpha = AlphaType::NonPremultiplied; // of what is drawn
};

} // namespace Norvex::Proc
