#include "apps/norvexdx/commands/EncodePlan.h"

#include <algorithm>

#include "Host/Strings.h"
#include "Proc/DirectX/Manager/Exceptions.h"
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
    if (options.input.format && inputs.size() > 1) {
        throw Failure("a file of raw frames goes alone", ExitCode::WrongUsage);
    }
    if (options.input.format && options.inputDepth) {
        throw Failure("--input-depth and --input-format contradict each other",
                      ExitCode::WrongUsage);
    }
    if (readsStandardInput && IsMeasured(options.sourcePeak)) {
        throw Failure(
            "--source-peak measured reads the input twice, which standard input (-) is not",
            ExitCode::WrongUsage);
    }
}

// What the prescribed converter cannot do.
void CheckTwoPass(const EncodeOptions& options) {
    const std::pair<bool, const char*> needs[] = {
        {!options.format.HasPairs(), "--format other than nv12, p010 and p016"},
        {options.range.has_value(), "--range"},
        {options.siting.has_value(), "--siting"},
        {options.dither.has_value(), "--dither"},
        {options.scaler.has_value(), "--scaler"},
        {options.stages.toneMap.has_value(), "--tone-map"},
        {options.stages.gamut.has_value(), "--gamut"},
        {!options.stages.lut.empty(), "--lut"},
        {options.input.format && options.input.format->video, "--input-format in Y'CbCr"},
        {options.input.matrix.has_value(), "--input-matrix"},
        {options.input.range.has_value(), "--input-range"},
        {options.input.siting.has_value(), "--input-siting"},
    };
    for (const auto& [isAsked, what] : needs) {
        if (isAsked) {
            throw Failure(std::string(what) + " is not for --converter two-pass",
                          ExitCode::WrongUsage);
        }
    }
}

void CheckOnePass(const EncodeOptions& options) {
    for (const auto& space : {options.from, options.to}) {
        if (space && space->transfer == Conf::TransferCharacteristics::Linear) {
            throw Failure("linear light needs --converter two-pass", ExitCode::WrongUsage);
        }
    }
}

bool IsWide(const std::optional<Conf::RGBColorSpace>& space) {
    return space && space->primaries == Conf::ColorPrimaries::BT2020;
}

template <class Value>
using Name = std::pair<const char*, Value>;

template <class Value, std::size_t N>
std::optional<Value> Find(const Name<Value> (&names)[N], std::string_view name) {
    for (const auto& [known, value] : names) {
        if (known == name) {
            return value;
        }
    }
    return std::nullopt;
}

bool IsY4mName(const std::string& name) {
    return Core::Utils::ToLower(PathFromUtf8(name).extension().wstring()) == L".y4m";
}

std::optional<Proc::ColorAlphaConversionInfo> PlanConversion(const EncodeOptions& options) {
    if (options.from.has_value() != options.to.has_value()) {
        throw Failure("--from and --to belong together", ExitCode::WrongUsage);
    }
    if (!options.from) {
        if (options.sourcePeak || options.targetPeak || options.referenceWhite) {
            throw Failure("a conversion of colours needs --from and --to", ExitCode::WrongUsage);
        }
        return std::nullopt;
    }
    ConvertOptions convert;
    convert.sourcePeak = options.sourcePeak;
    convert.targetPeak = options.targetPeak;
    convert.referenceWhite = options.referenceWhite;
    convert.from = options.from;
    convert.to = options.to;
    convert.targetAlpha = Proc::AlphaType::AlphaIsOne; // a clip has none
    return MakeConversion(convert);
}

} // namespace

std::optional<ConverterChoice> ParseConverter(std::string_view name) {
    constexpr Name<ConverterChoice> kNames[] = {{"one-pass", ConverterChoice::OnePass},
                                                {"two-pass", ConverterChoice::TwoPass}};
    return Find(kNames, name);
}

std::optional<DX::FrameDither> ParseDither(std::string_view name) {
    constexpr Name<DX::FrameDither> kNames[] = {{"none", DX::FrameDither::None},
                                                {"ordered", DX::FrameDither::Ordered},
                                                {"blue-noise", DX::FrameDither::BlueNoise}};
    return Find(kNames, name);
}

std::optional<DX::ScaleKernel> ParseScaler(std::string_view name) {
    constexpr Name<DX::ScaleKernel> kNames[] = {{"bilinear", DX::ScaleKernel::Bilinear},
                                                {"catmull-rom", DX::ScaleKernel::CatmullRom},
                                                {"mitchell", DX::ScaleKernel::Mitchell},
                                                {"lanczos", DX::ScaleKernel::Lanczos3},
                                                {"area", DX::ScaleKernel::Area}};
    return Find(kNames, name);
}

std::optional<Container> ParseContainer(std::string_view name) {
    if (name == "raw") {
        return Container::Raw;
    }
    return name == "y4m" ? std::optional(Container::Y4m) : std::nullopt;
}

Conf::YCbCrMatrix
EncodePlan::GetMatrix(const std::optional<Conf::RGBColorSpace>& inputSpace) const {
    const auto space = options.to ? options.to : inputSpace;
    return options.matrix.value_or(IsWide(space) ? Conf::YCbCrMatrix::BT2020NonConstant
                                                 : Conf::YCbCrMatrix::BT709);
}

void EncodePlan::SetInput(DX::D3FrameDesc& desc) const {
    const auto ofSpace =
        IsWide(options.from) ? Conf::YCbCrMatrix::BT2020NonConstant : Conf::YCbCrMatrix::BT709;
    desc.matrix = options.input.matrix.value_or(options.from ? ofSpace : GetMatrix({}));
    desc.range = options.input.range.value_or(desc.range);
    desc.chromaLocation = options.input.siting.value_or(desc.chromaLocation);
}

DX::D3FrameDesc EncodePlan::DescribeOutput(const DX::Size2DT<long>& size,
                                           Conf::YCbCrMatrix matrix) const {
    DX::D3FrameDesc desc = options.format.Describe(size);
    desc.matrix = matrix;
    desc.range = options.range.value_or(desc.range);
    desc.chromaLocation = options.siting.value_or(desc.chromaLocation);
    return desc;
}

std::string EncodePlan::GetY4mColors() const {
    if (options.converter == ConverterChoice::TwoPass) {
        return options.format.y4mColors;
    }
    DX::D3FrameDesc desc = DescribeOutput({2, 2}, Conf::YCbCrMatrix::BT709);
    desc.layout = options.format.HasPairs() ? DX::FrameLayout::Planar420 : desc.layout;
    try {
        const std::string tags = desc.GetY4MTags();
        const std::size_t begin = tags.find(" C") + 2;
        return tags.substr(begin, tags.find(' ', begin) - begin);
    } catch (const DX::DirectXException&) {
        throw Failure("Y4M cannot say this --siting with more than 8 bits: --container raw",
                      ExitCode::WrongUsage);
    }
}

EncodePlan MakeEncodePlan(const EncodeOptions& options) {
    CheckInputs(options);
    if (options.converter == ConverterChoice::TwoPass) {
        CheckTwoPass(options);
    } else {
        CheckOnePass(options);
    }
    const EncodePlan plan = {
        options, PlanConversion(options),
        options.container.value_or(IsY4mName(options.output) ? Container::Y4m : Container::Raw),
        LoadColorStages(options.stages, options.from.has_value())};
    if (plan.container == Container::Y4m) {
        plan.GetY4mColors(); // or why there are none
    }
    if (!plan.WritesToStandardOutput()) {
        CheckOutputPlace(PathFromUtf8(options.output));
    }
    return plan;
}

} // namespace Norvex::App
