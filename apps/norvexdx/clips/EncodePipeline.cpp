#include "apps/norvexdx/clips/EncodePipeline.h"

#include <thread>
#include <utility>

#include "apps/norvexdx/clips/BoundedQueue.h"
#include "apps/norvexdx/console/ProcessEnd.h"

namespace Norvex::App {

namespace {

using Planes = std::vector<std::uint8_t>;

// Frames in memory before the device, and behind it.
constexpr std::size_t kFramesWaiting = 3;

// What the threads share.
struct Line {
    explicit Line(const std::shared_ptr<FrameSource>& frameSource) : source(frameSource) {}

    // Keeps the first failure, and has every stage stop.
    void Fail(const std::exception_ptr& exception) {
        {
            const std::lock_guard lock(mutex);
            failure = failure ? failure : exception;
        }
        frames.Stop();
        planes.Stop();
    }

    std::exception_ptr GetFailure() {
        const std::lock_guard lock(mutex);
        return failure;
    }

    std::shared_ptr<FrameSource> source;
    Exchange<ClipFrame> frames{kFramesWaiting};
    Exchange<Planes> planes{kFramesWaiting};
    EncodeMonitor monitor;
    std::mutex mutex; // guards failure
    std::exception_ptr failure;
};

void ReadFrames(Line& line) {
    try {
        while (auto frame = line.frames.empty.Pop()) {
            const Stopwatch stopwatch;
            if (!line.source->Read(*frame)) {
                break;
            }
            line.monitor.Pass(EncodeStage::Read, stopwatch.GetMilliseconds(), frame->pixels.size(),
                              0);
            line.frames.filled.Push(std::move(*frame));
        }
        line.frames.filled.Finish();
    } catch (...) {
        line.Fail(std::current_exception());
    }
}

void WriteFrames(Line& line, FrameSink& sink, Progress& progress) {
    try {
        while (auto planes = line.planes.filled.Pop()) {
            const Stopwatch stopwatch;
            sink.Write(*planes);
            line.monitor.Pass(EncodeStage::Write, stopwatch.GetMilliseconds(), 0, planes->size());
            progress.Show([&line] {
                return MakeProgressLine(line.monitor.GetTotals(), line.source->GetCount());
            });
            line.planes.empty.Push(std::move(*planes));
        }
    } catch (...) {
        line.Fail(std::current_exception());
    }
}

// False when the line has stopped.
bool Collect(Line& line, FrameEncoder& encoder) {
    auto planes = line.planes.empty.Pop();
    if (!planes) {
        return false;
    }
    const Stopwatch stopwatch;
    const auto collected = encoder.Collect(*planes);
    line.monitor.Pass(EncodeStage::Readback, stopwatch.GetMilliseconds(), planes->size(),
                      collected.bytes);
    line.monitor.AddGpuTime(collected.gpuMs);
    return line.planes.filled.Push(std::move(*planes));
}

void EncodeFrames(Line& line, FrameEncoder& encoder) {
    while (auto frame = line.frames.filled.Pop()) {
        if (encoder.CountInFlight() == FrameEncoder::kSlots && !Collect(line, encoder)) {
            return;
        }
        const Stopwatch stopwatch;
        const std::size_t bytes = encoder.Submit(*frame);
        line.monitor.Pass(EncodeStage::Upload, stopwatch.GetMilliseconds(), bytes,
                          frame->pixels.size());
        line.frames.empty.Push(std::move(*frame));
    }
    while (encoder.CountInFlight() != 0 && Collect(line, encoder)) {
    }
}

} // namespace

EncodeTotals RunPipeline(const std::shared_ptr<FrameSource>& source, FrameEncoder& encoder,
                         FrameSink& sink, Progress& progress) {
    const auto line = std::make_shared<Line>(source);
    std::thread reader;
    {
        const std::jthread writer([&] { WriteFrames(*line, sink, progress); });
        try {
            reader = std::thread([line] { ReadFrames(*line); });
            EncodeFrames(*line, encoder);
            line->planes.filled.Finish();
        } catch (...) {
            line->Fail(std::current_exception());
        }
    }
    const auto failure = line->GetFailure();
    if (reader.joinable()) {
        if (failure) {
            LeaveThread(std::move(reader));
        } else {
            reader.join();
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    return line->monitor.GetTotals();
}

} // namespace Norvex::App
