#pragma once

// What an encoding has done so far: frames, times by stage, and how much is on its way. Any thread.

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "apps/norvexdx/console/Stopwatch.h"

namespace Norvex::App {

// Where a frame passes, in this order; the stages work at the same time.
enum class EncodeStage : std::size_t {
    Read,     // from the input into memory
    Upload,   // memory for the transfer filled, work recorded and submitted
    Readback, // waiting for the device, planes into memory
    Write,    // packed, and into the output
};
constexpr std::size_t kEncodeStages = 4;

struct EncodeTotals {
    std::uint64_t frames = 0; // written
    double seconds = 0.0;     // of wall time, since the monitor was made
    std::array<double, kEncodeStages> stageMs = {};
    double gpuMs = 0.0;
    std::uint64_t gpuFrames = 0;      // whose time the device could tell
    std::uint64_t framesInFlight = 0; // read and not yet written
    std::uint64_t bytesInFlight = 0;  // that those hold, in memory and on the device
    std::uint64_t peakFramesInFlight = 0;
    std::uint64_t peakBytesInFlight = 0;

    double GetFramesPerSecond() const;
    double GetStageMsPerFrame(EncodeStage stage) const;
    // Empty when the device could not tell for any frame.
    std::optional<double> GetGpuMsPerFrame() const;
};

class EncodeMonitor {
public:
    EncodeMonitor() = default;
    EncodeMonitor(const EncodeMonitor&) = delete;
    EncodeMonitor& operator=(const EncodeMonitor&) = delete;

    // A frame passed a stage, in so many milliseconds, and holds other memory from then on: bytes
    // it took more, bytes it gave back.
    void Pass(EncodeStage stage, double milliseconds, std::size_t bytesTaken,
              std::size_t bytesGiven);
    void AddGpuTime(const std::optional<double>& milliseconds);

    EncodeTotals GetTotals() const;

private:
    mutable std::mutex m_mutex;
    Stopwatch m_stopwatch;
    EncodeTotals m_totals;
};

// "120 of 250 frames, 48.2 frames/s, 3 s left, GPU 15.2 ms, 62.9 MB in flight".
std::string MakeProgressLine(const EncodeTotals& totals, std::optional<std::uint64_t> count);

} // namespace Norvex::App
