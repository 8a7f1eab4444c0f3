#include "apps/norvexdx/commands/ConvertCommand.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <thread>

#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/ProgressBar.h"
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
          m_progress(plan.jobs.size()),
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
    PictureReport Convert(const ConvertJob& job, Image image, double decodeMs) const;

    const ConvertPlan& m_plan;
    std::atomic<std::size_t> m_next{0};
    std::vector<std::optional<PictureReport>> m_reports;
    ProgressBar m_progress;
    // Last, because the thread that makes it uses the others.
    std::shared_future<std::shared_ptr<Graphics>> m_graphics;
};

bool HasValue(const std::shared_future<std::shared_ptr<Graphics>>& future) {
    try {
        return future.get() != nullptr;
    } catch (...) {
        return false;
    }
}

std::shared_ptr<Graphics> Batch::Open() {
    return Graphics::Open(m_plan.graphics, m_plan.blends ? DrawKind::Over : DrawKind::Replace,
                          [this](std::string_view line) { m_progress.PrintMessage(line); });
}

void Batch::Work() {
    for (std::size_t i = m_next++; i < m_plan.jobs.size(); i = m_next++) {
        const ConvertJob& job = m_plan.jobs[i];
        try {
            const Stopwatch stopwatch;
            Image image = ReadImage(job.input);
            const double decodeMs = stopwatch.GetMilliseconds();
            m_graphics.get();
            m_reports[i] = Convert(job, std::move(image), decodeMs);
        } catch (...) {
            // Without a device no picture can be converted: that is told once, by Run.
            if (!HasValue(m_graphics)) {
                return;
            }
            m_progress.PrintMessage(
                DescribeFailureOf(Utf8FromPath(job.input), std::current_exception()));
        }
        m_progress.Advance();
    }
}

PictureReport Batch::Convert(const ConvertJob& job, Image image, double decodeMs) const {
    Graphics& graphics = GetGraphics();
    PictureReport report;
    report.input = Utf8FromPath(job.input);
    report.times.decode = decodeMs;

    Stopwatch upload;
    const auto source = graphics.Upload(image);
    report.times.upload = upload.GetMilliseconds();
    report.sourceFormat = source->GetFormat();
    const unsigned depth = m_plan.depth.value_or(image.bitsPerChannel);
    const auto outputSpace = m_plan.outputSpace ? m_plan.outputSpace : image.colorSpace;
    image = {};

    const auto canvas = graphics.MakeCanvas(m_plan.size.value_or(source->GetSize()), depth);
    const auto drawn = graphics.Draw(
        *source, *canvas,
        {m_plan.view, m_plan.conversion, m_plan.rect, m_plan.background, m_plan.blends});
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
        text = plan.json ? MakeConvertJson(graphics, plan.conversion, reports)
                         : MakeConvertText(graphics, reports);
    }
    Console::Print(text);
    return reports.size() == plan.jobs.size() ? ExitCode::Success : ExitCode::Failure;
}

} // namespace Norvex::App
