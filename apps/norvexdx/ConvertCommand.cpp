#include "apps/norvexdx/ConvertCommand.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <thread>

#include "apps/norvexdx/Console.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "apps/norvexdx/ProgressBar.h"
#include "apps/norvexdx/Report.h"
#include "apps/norvexdx/Stopwatch.h"

namespace Norvex::App {

namespace {

// Pictures that are worked on at the same time. Each holds up to 16 bytes a pixel in memory and as
// much on the device.
constexpr std::size_t kMaxPicturesInFlight = 4;

// What all pictures are drawn with.
struct Renderer {
    explicit Renderer(const ConvertPlan& plan)
        : graphics(GraphicsDevice::Open(plan.adapter)),
          drawer(graphics, plan.view, plan.blends) {}

    GraphicsDevice graphics;
    PictureDrawer drawer;
};

// Device and shaders are made while the first pictures are decoded.
class Batch {
public:
    explicit Batch(const ConvertPlan& plan)
        : m_plan(plan),
          m_reports(plan.jobs.size()),
          m_progress(plan.jobs.size()),
          m_renderer(std::async(std::launch::async,
                                [&plan] { return std::make_shared<Renderer>(plan); })) {}

    // Returns when all is done; throws what kept the renderer from being made.
    void Run() {
        const std::size_t workers = std::min(kMaxPicturesInFlight, m_plan.jobs.size());
        {
            std::vector<std::jthread> threads;
            while (threads.size() < workers) {
                threads.emplace_back([this] { Work(); });
            }
        }
        m_renderer.get();
    }

    Renderer& GetRenderer() const { return *m_renderer.get(); }
    // One for each job; empty where it failed.
    const std::vector<std::optional<PictureReport>>& GetReports() const { return m_reports; }

private:
    void Work();
    PictureReport Convert(const ConvertJob& job, Image image, double decodeMs) const;

    const ConvertPlan& m_plan;
    std::atomic<std::size_t> m_next{0};
    std::vector<std::optional<PictureReport>> m_reports;
    ProgressBar m_progress;
    std::shared_future<std::shared_ptr<Renderer>> m_renderer;
};

bool HasValue(const std::shared_future<std::shared_ptr<Renderer>>& future) {
    try {
        return future.get() != nullptr;
    } catch (...) {
        return false;
    }
}

// Our own failures name the file that they are about.
std::string DescribeFailureOf(const ConvertJob& job, const std::exception_ptr& exception) {
    const FailureReport report = DescribeFailure(exception);
    return report.isOurs ? report.line : Utf8FromPath(job.input) + ": " + report.line;
}

void Batch::Work() {
    for (std::size_t i = m_next++; i < m_plan.jobs.size(); i = m_next++) {
        const ConvertJob& job = m_plan.jobs[i];
        try {
            const Stopwatch stopwatch;
            Image image = ReadImage(job.input);
            const double decodeMs = stopwatch.GetMilliseconds();
            m_renderer.get();
            m_reports[i] = Convert(job, std::move(image), decodeMs);
        } catch (...) {
            // Without a renderer no picture can be converted: that is told once, by Run.
            if (!HasValue(m_renderer)) {
                return;
            }
            m_progress.PrintFailure(DescribeFailureOf(job, std::current_exception()));
        }
        m_progress.Advance();
    }
}

PictureReport Batch::Convert(const ConvertJob& job, Image image, double decodeMs) const {
    Renderer& renderer = GetRenderer();
    PictureReport report;
    report.input = Utf8FromPath(job.input);
    report.output = Utf8FromPath(job.output);
    report.times.decode = decodeMs;

    Stopwatch upload;
    const auto source = UploadImage(renderer.graphics, image);
    report.times.upload = upload.GetMilliseconds();
    report.sourceFormat = source->GetFormat();
    const unsigned depth = m_plan.depth.value_or(image.bitsPerChannel);
    const auto outputSpace = m_plan.outputSpace ? m_plan.outputSpace : image.colorSpace;
    image = {};

    Canvas canvas(renderer.graphics, m_plan.size.value_or(source->GetSize()), depth);
    const auto drawn =
        renderer.drawer.Draw(source, canvas, m_plan.conversion, m_plan.rect, m_plan.background);
    report.times.draw = drawn.drawMs;
    report.transform = drawn.transform;
    report.targetFormat = canvas.GetFormat();

    const Stopwatch readback;
    Image result = canvas.Download();
    report.times.readback = readback.GetMilliseconds();
    result.colorSpace = outputSpace;
    report.width = result.width;
    report.height = result.height;

    const Stopwatch encode;
    WriteImage(job.output, result);
    report.times.encode = encode.GetMilliseconds();
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
        const Renderer& renderer = batch.GetRenderer();
        const RunReport run = {renderer.graphics, renderer.drawer.GetShaderCompilationMs()};
        text = plan.json ? MakeConvertJson(run, plan.conversion, reports)
                         : MakeConvertText(run, reports);
    }
    Console::Print(text);
    return reports.size() == plan.jobs.size() ? ExitCode::Success : ExitCode::Failure;
}

} // namespace Norvex::App
