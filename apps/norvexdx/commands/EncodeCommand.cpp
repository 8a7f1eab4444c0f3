#include "apps/norvexdx/commands/EncodeCommand.h"

#include <algorithm>

#include <fmt/format.h>

#include "Host/SystemInfo.h"
#include "apps/norvexdx/clips/EncodePipeline.h"
#include "apps/norvexdx/commands/EncodeReport.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/console/Progress.h"

namespace Norvex::App {

namespace {

std::uint64_t GetPeakMemory() {
    Core::Utils::MEMINFO info;
    return Core::Utils::GetMemoryInfo(info) ? info.processPhysicalPeak : 0;
}

void Tell(const EncodePlan& plan, const std::string& text) {
    if (plan.WritesToStandardOutput()) {
        Console::PrintError(text);
    } else {
        Console::Print(text);
    }
}

// The brightest channel of all frames: one for the clip, since one that changes flickers.
float MeasureClip(FrameSource& source, Graphics& graphics, Progress& progress) {
    float brightest = 0.0F;
    ClipFrame frame;
    for (unsigned i = 1; source.Read(frame); ++i) {
        progress.Show([&] { return fmt::format("measuring frame {}", i); });
        brightest = std::max(brightest, graphics.MeasurePeak(*graphics.UploadFrame(frame)));
    }
    return brightest;
}

} // namespace

void RunEncode(const EncodeOptions& options) {
    const EncodePlan plan = MakeEncodePlan(options);
    std::shared_ptr<FrameSource> source = OpenFrameSource(plan);
    EncodeReport report;
    report.format = options.format;
    report.colorSpace = options.to ? options.to : source->GetColorSpace();
    report.matrix = plan.GetMatrix(source->GetColorSpace());
    report.size = options.size.value_or(source->GetSize());
    const bool isOnePass = options.converter == ConverterChoice::OnePass;
    const DX::D3FrameDesc desc = plan.DescribeOutput(report.size, report.matrix);
    FrameSink sink(
        OpenByteSink(options.output), plan.container, options.format,
        {report.size, options.rate ? options.rate : source->GetRate(), source->GetPixelAspect(),
         plan.container == Container::Y4m ? plan.GetY4mColors() : std::string(), desc.range},
        isOnePass);
    // Nothing is drawn with it: the kind whose shaders compile fastest.
    const auto graphics = Graphics::Open(options.graphics, DrawKind::Fill, &Console::PrintMessage);
    EncoderParams params = {options.format, report.matrix, report.size, plan.conversion};
    if (isOnePass) {
        params.onePass = {.target = desc,
                          .dither = options.dither.value_or(DX::FrameDither::None),
                          .kernel = options.scaler.value_or(DX::ScaleKernel::Bilinear),
                          .stages = plan.stages};
    }
    if (IsMeasured(options.sourcePeak)) {
        Progress progress(options.progress || Console::IsErrorTerminal());
        report.sourcePeak =
            GetPeakOfMeasured(MeasureClip(*source, *graphics, progress), *params.conversion);
        params.conversion->sourcePeakLuminance = *report.sourcePeak;
        source = OpenFrameSource(plan);
    }
    const auto encoder = FrameEncoder::Open(*graphics, params);
    report.isOnePass = isOnePass;
    report.isPlanar = encoder->IsPlanar();
    {
        Progress progress(options.progress || Console::IsErrorTerminal());
        report.totals = RunPipeline(source, *encoder, sink, progress);
    }
    if (report.totals.frames == 0) {
        throw Failure("the input has no frames");
    }
    source.reset(); // the clip may take the place of the file that it was made from
    sink.Commit();
    report.peakMemory = GetPeakMemory();
    if (options.json) {
        Tell(plan, MakeEncodeJson(*graphics, report));
    }
    if (options.stats) {
        Tell(plan, MakeEncodeText(*graphics, report));
    }
}

} // namespace Norvex::App
