#include "Host/ColorConversionInfo.h"

#include <cmath>

namespace Norvex::Proc {

namespace {

using Conf::TransferCharacteristics;

constexpr double kLightUnit = 100.0; // cd/m2 of light 1.0 in PQ and displayed HLG

// The display that BT.2100-2, table 5, gives the HLG OOTF for.
constexpr double kHLGNominalPeak = 1000.0; // cd/m2
constexpr double kHLGNominalGamma = 1.2;
constexpr double kHLGScenePeak = 12.0;

bool IsHDRTransfer(TransferCharacteristics transfer) {
    return transfer == TransferCharacteristics::PQ || transfer == TransferCharacteristics::HLG;
}

// The light before a BT.709 camera that a BT.1886 display shows as `light`.
double GetSceneLight(double light) {
    const double signal = std::pow(light, 1.0 / 2.4);
    return signal < 0.081 ? signal / 4.5 : std::pow((signal + 0.099) / 1.099, 1.0 / 0.45);
}

// What SDR white is in the linear light of the space.
double GetWhite(const ColorConversionInfo& info, TransferCharacteristics transfer) {
    if (!IsHDRTransfer(transfer)) {
        return 1.0;
    }
    const double displayed = info.referenceWhite / kLightUnit;
    if (info.mode != LinearizationMode::SceneReferred) {
        return displayed;
    }
    return transfer == TransferCharacteristics::PQ
               ? GetSceneLight(displayed)
               : kHLGScenePeak *
                     std::pow(info.referenceWhite / kHLGNominalPeak, 1.0 / kHLGNominalGamma);
}

// Brightest luminance that the target shows; SDR white stands for the reference white.
double GetEffectiveTargetPeak(const ColorConversionInfo& info) {
    const TransferCharacteristics transfer = info.target.transfer;
    const bool isHDR =
        IsHDRTransfer(transfer) || (transfer == TransferCharacteristics::Linear &&
                                    info.mode == LinearizationMode::DisplayReferredHDR);
    return isHDR ? info.targetPeakLuminance : info.referenceWhite;
}

} // namespace

float ColorConversionInfo::GetLinearScale() const {
    if (raw) {
        return raw->linearScale;
    }
    // Equal whites cancel exactly: such a conversion keeps its light to the last bit.
    return static_cast<float>(
        linearScale * (GetWhite(*this, target.transfer) / GetWhite(*this, source.transfer)));
}

std::pair<float, float> ColorConversionInfo::GetPQTonemapCoefs() const {
    if (raw) {
        return {raw->pqTonemapA, raw->pqTonemapB};
    }
    const double targetPeak = GetEffectiveTargetPeak(*this);
    if (source.transfer != TransferCharacteristics::PQ || !(sourcePeakLuminance > targetPeak)) {
        return {0.0F, 0.0F};
    }
    const double from = sourcePeakLuminance / kLightUnit;
    const double to = targetPeak / kLightUnit;
    return {static_cast<float>(to / (from * from)), static_cast<float>(1.0 / to)};
}

float ColorConversionInfo::GetHLGDisplayPeakLuminance() const {
    return raw ? raw->displayPeakLuminance : targetPeakLuminance;
}

float ColorConversionInfo::GetHLGOOTFGamma() const {
    if (raw) {
        return raw->hlgOOTFGamma;
    }
    const double peak = GetHLGDisplayPeakLuminance();
    const double ratio = peak / 1000.0;
    const bool isInBT2100Range = peak >= 400.0 && peak <= 2000.0;
    return static_cast<float>(isInBT2100Range ? 1.2 + 0.42 * std::log10(ratio)
                                              : 1.2 * std::pow(1.111, std::log2(ratio)));
}

} // namespace Norvex::Proc
