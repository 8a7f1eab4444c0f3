#include "apps/norvexdx/commands/ConvertCommand.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "apps/norvexdx/clips/FrameSource.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/console/Progress.h"
#include "apps/norvexdx/console/Report.h"
#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/pictures/CanvasFile.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

namespace {

// Pictures that are worked on at the same time. Each holds up to 16 bytes a pixel in memory and as
// much on the device.
constexpr std::size_t kMaxPicturesInFlight = 4;

// Device and shaders are made while the first pictures are decoded.
class Batch {
public:
    explicit Batch(const ConvertPlan& plan)
        : m_plan(plan),
          m_reports(plan.jobs.size()),
          m_failures(plan.jobs.size()),
          m_progress(plan.jobs.size() > 1 && Console::IsErrorTerminal()),
          m_graphics(std::async(std::launch::async, [this] { return Open(); })) {}

    // Returns when all is done; throws what kept the device or its shaders from being made.
    void Run() {
        const std::size_t workers = std::min(kMaxPicturesInFlight, m_plan.jobs.size());
        {
            std::vector<std::jthread> threads;
            while (threads.size() < workers) {
                threads.emplace_back([this] { Work(); });
            }
        }
        m_graphics.get();
    }

    Graphics& GetGraphics() const { return *m_graphics.get(); }
    // One for each job; empty where it failed.
    const std::vector<std::optional<PictureReport>>& GetReports() const { return m_reports; }

private:
    std::shared_ptr<Graphics> Open();
    void Work();
    // A job is done; without a failure it is empty. Failures are told in the order of the inputs.
    void Finish(std::size_t index, const std::string& failure);
    PictureReport Convert(const ConvertJob& job, ClipFrame frame, double decodeMs) const;
    void ShowProgress();

    const ConvertPlan& m_plan;
    std::atomic<std::size_t> m_next{0};
    std::atomic<std::size_t> m_done{0};
    std::vector<std::optional<PictureReport>> m_reports;
    std::mutex m_mutex;                                 // guards the next two
    std::vector<std::optional<std::string>> m_failures; // as given to Finish
    std::size_t m_told = 0; // all jobs before this one are done, and what failed is told
    Progress m_progress;
    // Last, because the thread that makes it uses the others.
    std::shared_future<std::shared_ptr<Graphics>> m_graphics;
};

// A frame of a clip is what the user or the file says that it is, everything else a picture.
ClipFrame ReadInput(const std::filesystem::path& path, const ConvertOptions& options) {
    const std::string name = Utf8FromPath(path);
    if (!options.input.format && !IsY4m(name)) {
        if (options.frame) {
            throw Failure(name + " is no clip: --frame is for Y4M, and for raw frames with "
                                 "--input-format");
        }
        return ReadImage(path, options.from);
    }
    const auto source = OpenClip(name, options.input, options.from);
    ClipFrame frame;
    const unsigned wanted = options.frame.value_or(1);
    for (unsigned i = 1; i <= wanted; ++i) {
        if (!source->Read(frame)) {
            throw Failure(fmt::format("{} has {} frames, not {}", name, i - 1, wanted));
        }
    }
    return frame;
}

// Where the picture is drawn.
DX::Size2DT<long> GetArea(const ConvertOptions& options, const Canvas& canvas) {
    return options.rect ? DX::Size2DT<long>{options.rect->right - options.rect->left,
                                            options.rect->bottom - options.rect->top}
                        : canvas.GetSize();
}

// The picture in the size in which the view draws it, which then is 1:1.
std::unique_ptr<Picture> ScaleFor(Graphics& graphics, const Picture& source,
                                  const DX::Size2DT<long>& area, const ConvertOptions& options,
                                  View& view) {
    static constexpr long kLargest = 16384; // pixels
    const float scale = PlacePicture(view, source.GetSize(), area).scale;
    // As many pixels left and right, above and below: the picture then lies on those of the area.
    const auto scaled = [scale](long side, long room) {
        const long size = std::clamp(std::lround(static_cast<float>(side) * scale), 1L, kLargest);
        return size + std::abs(room - size) % 2;
    };
    const DX::Size2DT<long> size = {scaled(source.GetSize().width, area.width),
                                    scaled(source.GetSize().height, area.height)};
    if (view.scale) {
        view.scale = 1.0F;
    }
    return graphics.Scale(source, size, *options.scaler, options.sourceAlpha);
}

bool HasValue(const std::shared_future<std::shared_ptr<Graphics>>& future) {
    try {
        return future.get() != nullptr;
    } catch (...) {
        return false;
    }
}

std::shared_ptr<Graphics> Batch::Open() {
    return Graphics::Open(m_plan.options.graphics,
                          m_plan.blends ? DrawKind::Over : DrawKind::Replace,
                          &Console::PrintMessage);
}

void Batch::ShowProgress() {
    m_progress.Show([this] {
        constexpr std::size_t kWidth = 30; // characters
        const std::size_t total = m_plan.jobs.size();
        return fmt::format("[{:.<{}}] {}/{}", std::string(kWidth * m_done / total, '#'), kWidth,
                           m_done.load(), total);
    });
}

void Batch::Work() {
    for (std::size_t i = m_next++; i < m_plan.jobs.size(); i = m_next++) {
        const ConvertJob& job = m_plan.jobs[i];
        ShowProgress();
        std::string failure;
        try {
            const Stopwatch stopwatch;
            ClipFrame frame = ReadInput(job.input, m_plan.options);
            const double decodeMs = stopwatch.GetMilliseconds();
            m_graphics.get();
            m_reports[i] = Convert(job, std::move(frame), decodeMs);
        } catch (...) {
            // Without a device no picture can be converted: that is told once, by Run.
            if (!HasValue(m_graphics)) {
                return;
            }
            failure = DescribeFailureOf(Utf8FromPath(job.input), std::current_exception());
        }
        Finish(i, failure);
    }
}

void Batch::Finish(std::size_t index, const std::string& failure) {
    ++m_done;
    const std::lock_guard lock(m_mutex);
    m_failures[index] = failure;
    for (; m_told < m_failures.size() && m_failures[m_told]; ++m_told) {
        if (!m_failures[m_told]->empty()) {
            Console::PrintMessage(*m_failures[m_told]);
        }
    }
}

PictureReport Batch::Convert(const ConvertJob& job, ClipFrame frame, double decodeMs) const {
    Graphics& graphics = GetGraphics();
    const ConvertOptions& options = m_plan.options;
    PictureReport report;
    report.input = Utf8FromPath(job.input);
    report.times.decode = decodeMs;

    Stopwatch upload;
    auto source = graphics.UploadFrame(frame);
    report.times.upload = upload.GetMilliseconds();
    report.sourceFormat = source->GetFormat();
    report.profile = frame.profile ? frame.profile->name : std::string();
    const unsigned depth = options.depth.value_or(frame.bitsPerChannel);
    const auto outputSpace = options.to ? options.to : frame.colorSpace;
    frame = {};

    const bool isDithered = depth == 8 && options.dither != DX::FrameDither::None;
    auto canvas =
        graphics.MakeCanvas(options.size.value_or(source->GetSize()), isDithered ? 16 : depth);
    auto conversion = m_plan.conversion;
    if (conversion && IsMeasured(options.sourcePeak)) {
        report.sourcePeak = GetPeakOfMeasured(graphics.MeasurePeak(*source), *conversion);
        conversion->sourcePeakLuminance = *report.sourcePeak;
    }
    View view = m_plan.view;
    if (options.scaler) {
        source = ScaleFor(graphics, *source, GetArea(options, *canvas), options, view);
    }
    if (!m_plan.stages.IsNone()) {
        source = graphics.ConvertColors(*source, *conversion, m_plan.stages);
        conversion.reset();
    }
    const auto drawn = graphics.Draw(
        *source, *canvas, {view, conversion, options.rect, m_plan.background, m_plan.blends});
    if (isDithered) {
        canvas = graphics.Dither(*canvas, options.dither);
    }
    report.times.draw = drawn.drawMs;
    report.transform = drawn.transform;
    WriteCanvas(*canvas, job.output, outputSpace, report);
    return report;
}

} // namespace

ExitCode RunConvert(const ConvertOptions& options) {
    const ConvertPlan plan = MakeConvertPlan(options);
    std::vector<PictureReport> reports;
    std::string text;
    {
        Batch batch(plan);
        batch.Run();
        for (const auto& report : batch.GetReports()) {
            if (report) {
                reports.push_back(*report);
            }
        }
        const Graphics& graphics = batch.GetGraphics();
        text = options.json ? MakeConvertJson(graphics, plan.conversion, reports)
                            : MakeConvertText(graphics, reports);
    }
    Console::Print(text);
    return reports.size() == plan.jobs.size() ? ExitCode::Success : ExitCode::Failure;
}

} // namespace Norvex::App
