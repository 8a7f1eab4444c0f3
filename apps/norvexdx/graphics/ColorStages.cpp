#include "apps/norvexdx/graphics/ColorStages.h"

#include <exception>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

namespace {

std::shared_ptr<const DX::D3ColorLut> ReadColorLut(const std::string& name) {
    const auto bytes = ReadInputFile(PathFromUtf8(name));
    try {
        return std::make_shared<DX::D3ColorLut>(
            DX::D3ColorLut::FromCube({reinterpret_cast<const char*>(bytes.data()), bytes.size()}));
    } catch (const DX::DirectXException&) {
        throw Failure(DescribeFailureOf(name, std::current_exception()));
    }
}

} // namespace

std::optional<ToneCurveChoice> ParseToneCurve(std::string_view name) {
    using enum DX::ToneCurve;
    using enum DX::ToneChannels;
    return name == "rational"             ? std::optional(ToneCurveChoice{Rational, MaxRGB})
           : name == "bt2390"             ? std::optional(ToneCurveChoice{BT2390, MaxRGB})
           : name == "bt2390-per-channel" ? std::optional(ToneCurveChoice{BT2390, PerChannel})
                                          : std::nullopt;
}

std::optional<DX::GamutReduction> ParseGamutReduction(std::string_view name) {
    return name == "clip"   ? std::optional(DX::GamutReduction::Clip)
           : name == "soft" ? std::optional(DX::GamutReduction::Soft)
                            : std::nullopt;
}

ColorStages LoadColorStages(const ColorStageOptions& options, bool convertsColors) {
    const ToneCurveChoice choice = options.toneMap.value_or(ToneCurveChoice{});
    if ((options.toneMap || options.gamut) && !convertsColors) {
        throw Failure("--tone-map and --gamut need --from and --to", ExitCode::WrongUsage);
    }
    if ((options.sourceBlack || options.targetBlack) && choice.curve != DX::ToneCurve::BT2390) {
        throw Failure("--source-black and --target-black are for --tone-map bt2390",
                      ExitCode::WrongUsage);
    }
    ColorStages stages;
    stages.tones = {.curve = choice.curve,
                    .channels = choice.channels,
                    .gamut = options.gamut.value_or(DX::GamutReduction::Clip),
                    .sourceBlack = options.sourceBlack.value_or(0.0F),
                    .targetBlack = options.targetBlack.value_or(0.0F)};
    if (!options.lut.empty()) {
        stages.lut = ReadColorLut(options.lut);
    }
    return stages;
}

} // namespace Norvex::App
