#include "apps/norvexdx/clips/EncodeMonitor.h"

#include <algorithm>

#include <fmt/format.h>

namespace Norvex::App {

namespace {

constexpr double kMegabyte = 1e6; // bytes

} // namespace

double EncodeTotals::GetFramesPerSecond() const {
    return seconds > 0.0 ? static_cast<double>(frames) / seconds : 0.0;
}

double EncodeTotals::GetStageMsPerFrame(EncodeStage stage) const {
    const double sum = stageMs[static_cast<std::size_t>(stage)];
    return frames != 0 ? sum / static_cast<double>(frames) : 0.0;
}

std::optional<double> EncodeTotals::GetGpuMsPerFrame() const {
    return gpuFrames != 0 ? std::optional(gpuMs / static_cast<double>(gpuFrames)) : std::nullopt;
}

void EncodeMonitor::Pass(EncodeStage stage, double milliseconds, std::size_t bytesTaken,
                         std::size_t bytesGiven) {
    const std::lock_guard lock(m_mutex);
    m_totals.stageMs[static_cast<std::size_t>(stage)] += milliseconds;
    m_totals.framesInFlight += stage == EncodeStage::Read ? 1 : 0;
    m_totals.bytesInFlight += bytesTaken;
    m_totals.peakFramesInFlight = std::max(m_totals.peakFramesInFlight, m_totals.framesInFlight);
    m_totals.peakBytesInFlight = std::max(m_totals.peakBytesInFlight, m_totals.bytesInFlight);
    m_totals.bytesInFlight -= bytesGiven;
    if (stage == EncodeStage::Write) {
        ++m_totals.frames;
        --m_totals.framesInFlight;
    }
}

void EncodeMonitor::AddGpuTime(const std::optional<double>& milliseconds) {
    const std::lock_guard lock(m_mutex);
    m_totals.gpuMs += milliseconds.value_or(0.0);
    m_totals.gpuFrames += milliseconds ? 1 : 0;
}

EncodeTotals EncodeMonitor::GetTotals() const {
    const std::lock_guard lock(m_mutex);
    EncodeTotals totals = m_totals;
    constexpr double kMsPerSecond = 1000.0;
    totals.seconds = m_stopwatch.GetMilliseconds() / kMsPerSecond;
    return totals;
}

std::string MakeProgressLine(const EncodeTotals& totals, std::optional<std::uint64_t> count) {
    const double rate = totals.GetFramesPerSecond();
    std::string line = count ? fmt::format("{} of {} frames", totals.frames, *count)
                             : fmt::format("{} frames", totals.frames);
    line += fmt::format(", {:.1f} frames/s", rate);
    if (count && *count >= totals.frames && rate > 0.0) {
        line += fmt::format(", {:.0f} s left", static_cast<double>(*count - totals.frames) / rate);
    }
    if (const auto gpuMs = totals.GetGpuMsPerFrame()) {
        line += fmt::format(", GPU {:.1f} ms", *gpuMs);
    }
    return line + fmt::format(", {:.1f} MB in flight",
                              static_cast<double>(totals.bytesInFlight) / kMegabyte);
}

} // namespace Norvex::App
