#include "Host/ColorConversionInfo.h"

#include <cmath>

namespace Norvex::Proc {

namespace {

using Conf::TransferCharacteristics;

constexpr double kLightUnit = 100.0; // cd/m2 of light 1.0 in PQ and HLG

bool IsHDRTransfer(TransferCharacteristics transfer) {
    return transfer == TransferCharacteristics::PQ || transfer == TransferCharacteristics::HLG;
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
    double scale = linearScale;
    // Both at once cancel exactly: an HDR to HDR conversion keeps its light to the last bit.
    if (IsHDRTransfer(source.transfer) != IsHDRTransfer(target.transfer)) {
        const double white = referenceWhite / kLightUnit;
        scale = IsHDRTransfer(target.transfer) ? scale * white : scale / white;
    }
    return static_cast<float>(scale);
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
