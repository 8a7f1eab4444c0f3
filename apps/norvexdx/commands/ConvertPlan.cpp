#include "apps/norvexdx/commands/ConvertPlan.h"

#include <algorithm>
#include <set>
#include <system_error>

#include "Host/Strings.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"

namespace Norvex::App {

namespace fs = std::filesystem;

namespace {

using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using Proc::AlphaType;
using Proc::LinearizationMode;

constexpr RGBColorSpace kSRGB = {ColorPrimaries::BT709, TransferCharacteristics::sRGB};

[[noreturn]] void ThrowUsage(const std::string& line) {
    throw Failure(line, ExitCode::WrongUsage);
}

void CheckOptionsAgree(const ConvertOptions& options) {
    if (options.from.has_value() != options.to.has_value()) {
        ThrowUsage("--from and --to belong together");
    }
    const bool setsColor = options.mode || options.sourcePeak || options.targetPeak ||
                           options.referenceWhite || options.linearScale || options.raw;
    if (setsColor && !options.from) {
        ThrowUsage("a conversion of colours needs --from and --to");
    }
    if (options.scale && options.fit && *options.fit != DX::RenderFitMode::Free) {
        ThrowUsage("--scale goes with --fit free only");
    }
}

LinearizationMode GetDefaultMode(const RGBColorSpace& target) {
    const bool isHDR = target.transfer == TransferCharacteristics::PQ ||
                       target.transfer == TransferCharacteristics::HLG;
    return isHDR ? LinearizationMode::DisplayReferredHDR : LinearizationMode::DisplayReferred;
}

// Where colours really change, only what the library's shader decodes and encodes; for the rest it
// draws warning colours.
void CheckSpaces(const Proc::ColorConversionInfo& info) {
    if (info.source == info.target && info.GetLinearScale() == 1.0F) {
        return;
    }
    if (info.source.transfer == TransferCharacteristics::Linear) {
        ThrowUsage(GetColorSpaceName(info.source) + " cannot be converted from, only to itself");
    }
    if (info.target.transfer == TransferCharacteristics::Linear &&
        info.target.primaries != ColorPrimaries::BT709) {
        ThrowUsage(GetColorSpaceName(info.target) + " cannot be converted to, only from itself");
    }
}

} // namespace

Proc::ColorAlphaConversionInfo MakeConversion(const ConvertOptions& options) {
    Proc::ColorAlphaConversionInfo info;
    info.source = options.from.value_or(kSRGB); // equal spaces: only alpha changes
    info.target = options.to.value_or(kSRGB);
    info.mode = options.mode.value_or(GetDefaultMode(info.target));
    info.linearScale = options.linearScale.value_or(info.linearScale);
    if (options.sourcePeak) {
        info.sourcePeakLuminance = options.sourcePeak->nits.value_or(info.sourcePeakLuminance);
    }
    info.targetPeakLuminance = options.targetPeak.value_or(info.targetPeakLuminance);
    info.referenceWhite = options.referenceWhite.value_or(info.referenceWhite);
    info.raw = options.raw;
    info.sourceAlpha = options.sourceAlpha;
    info.targetAlpha = options.targetAlpha;
    CheckSpaces(info);
    if (IsMeasured(options.sourcePeak) && info.source.transfer != TransferCharacteristics::PQ) {
        ThrowUsage("--source-peak measured is for input in PQ (--from rec2020-pq)");
    }
    return info;
}

bool IsMeasured(const std::optional<SourcePeak>& peak) {
    return peak && !peak->nits;
}

float GetPeakOfMeasured(float brightest, const Proc::ColorConversionInfo& conversion) {
    return std::max(brightest, conversion.referenceWhite);
}

namespace {

// Fills in background, blending and the alpha type that is drawn with.
void PlanBackground(const ConvertOptions& options, ConvertPlan& plan) {
    const bool isOpaque = options.targetAlpha == AlphaType::AlphaIsOne;
    Proc::ColorF color = options.background.value_or(Proc::ColorF{});
    plan.blends = color.a > 0.0F;
    if (plan.blends && color.a < 1.0F && options.targetAlpha == AlphaType::NonPremultiplied) {
        ThrowUsage("a translucent --background needs --target-alpha premultiplied or one");
    }
    if (plan.blends || options.targetAlpha != AlphaType::NonPremultiplied) {
        color = {color.r * color.a, color.g * color.a, color.b * color.a, color.a};
    }
    plan.background = color;
    plan.background.a = isOpaque ? 1.0F : color.a;
    if (plan.blends) {
        plan.conversion = plan.conversion.value_or(MakeConversion(options));
        plan.conversion->targetAlpha = AlphaType::Premultiplied;
    }
}

fs::path GetOutputIn(const fs::path& folder, const fs::path& input) {
    fs::path name = input.filename();
    name.replace_extension(".png");
    return folder / name;
}

void CheckOutputsDiffer(const std::vector<ConvertJob>& jobs) {
    std::set<std::wstring> names;
    for (const ConvertJob& job : jobs) {
        if (!names.insert(Core::Utils::ToLower(job.output.wstring())).second) {
            ThrowUsage("several inputs would become " + Utf8FromPath(job.output));
        }
    }
}

std::vector<ConvertJob> PlanJobs(const std::vector<std::string>& files) {
    const fs::path output = PathFromUtf8(files.back());
    std::error_code error;
    const bool isFolder = fs::is_directory(output, error);
    if (!isFolder && files.size() > 2) {
        throw Failure("there is no folder " + files.back());
    }
    if (!isFolder) {
        CheckOutputPlace(output);
        if (Core::Utils::ToLower(output.extension().wstring()) != L".png") {
            ThrowUsage("pictures are written as PNG: the output's name must end in .png");
        }
    }
    std::vector<ConvertJob> jobs;
    for (std::size_t i = 0; i + 1 < files.size(); ++i) {
        const fs::path input = PathFromUtf8(files[i]);
        jobs.push_back({input, isFolder ? GetOutputIn(output, input) : output});
    }
    CheckOutputsDiffer(jobs);
    return jobs;
}

} // namespace

ConvertPlan MakeConvertPlan(const ConvertOptions& options) {
    CheckOptionsAgree(options);
    ConvertPlan plan{
        .options = options, .jobs = {}, .conversion = {}, .view = {}, .background = {}};
    const bool changesAlpha =
        options.sourceAlpha != options.targetAlpha || options.targetAlpha == AlphaType::AlphaIsOne;
    plan.stages = LoadColorStages(options.stages, options.from.has_value());
    if (options.from || changesAlpha || !plan.stages.IsNone()) {
        plan.conversion = MakeConversion(options);
    }
    PlanBackground(options, plan);
    plan.view.fit =
        options.fit.value_or(options.scale ? DX::RenderFitMode::Free : DX::RenderFitMode::Fit);
    plan.view.scale = options.scale;
    plan.view.rotationDegrees = options.rotationDegrees;
    plan.view.translation = options.translation;
    plan.jobs = PlanJobs(options.files);
    return plan;
}

} // namespace Norvex::App
