#include "apps/norvexdx/commands/EncodePlan.h"

#include <algorithm>

#include "Host/Strings.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"

namespace Norvex::App {

namespace {

void CheckInputs(const EncodeOptions& options) {
    const auto& inputs = options.inputs;
    const bool readsStandardInput =
        std::find(inputs.begin(), inputs.end(), kStandardStream) != inputs.end();
    if (readsStandardInput && inputs.size() > 1) {
        throw Failure("standard input (-) goes alone", ExitCode::WrongUsage);
    }
    if (options.inputDepth && !readsStandardInput) {
        throw Failure("--input-depth is for standard input (-) only", ExitCode::WrongUsage);
    }
}

bool IsY4mName(const std::string& name) {
    return Core::Utils::ToLower(PathFromUtf8(name).extension().wstring()) == L".y4m";
}

std::optional<Proc::ColorAlphaConversionInfo> PlanConversion(const EncodeOptions& options) {
    if (options.from.has_value() != options.to.has_value()) {
        throw Failure("--from and --to belong together", ExitCode::WrongUsage);
    }
    if (!options.from) {
        return std::nullopt;
    }
    ConvertOptions convert;
    convert.from = options.from;
    convert.to = options.to;
    convert.targetAlpha = Proc::AlphaType::AlphaIsOne; // a clip has none
    return MakeConversion(convert);
}

} // namespace

std::optional<Container> ParseContainer(std::string_view name) {
    if (name == "raw") {
        return Container::Raw;
    }
    return name == "y4m" ? std::optional(Container::Y4m) : std::nullopt;
}

Conf::YCbCrMatrix
EncodePlan::GetMatrix(const std::optional<Conf::RGBColorSpace>& inputSpace) const {
    const auto space = options.to ? options.to : inputSpace;
    const bool isWide = space && space->primaries == Conf::ColorPrimaries::BT2020;
    return options.matrix.value_or(isWide ? Conf::YCbCrMatrix::BT2020NonConstant
                                          : Conf::YCbCrMatrix::BT709);
}

EncodePlan MakeEncodePlan(const EncodeOptions& options) {
    CheckInputs(options);
    const EncodePlan plan = {
        options, PlanConversion(options),
        options.container.value_or(IsY4mName(options.output) ? Container::Y4m : Container::Raw)};
    if (!plan.WritesToStandardOutput()) {
        CheckOutputPlace(PathFromUtf8(options.output));
    }
    return plan;
}

} // namespace Norvex::App
