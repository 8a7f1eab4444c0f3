#pragma once

// What the viewer's frames cost: gathered while it runs, told as text or JSON. Times are wall time
// in milliseconds. One thread.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/graphics/Graphics.h"
#include "apps/norvexdx/viewer/ClipPlayer.h"

namespace Norvex::App {

struct FrameTimes {
    double frame = 0.0;       // from its first call until the next one can begin
    double recording = 0.0;   // of that, the processor's work until submission
    std::size_t inFlight = 0; // frames that the device has not finished, with this one
};

// The newest values, as many as matter.
class Samples {
public:
    void Add(double value);
    // The value below which the part of the values lies (0.5: the median); 0 without values.
    double GetQuantile(double part) const;

private:
    static constexpr std::size_t kMaxCount = 4096;

    std::vector<double> m_values;
    std::size_t m_next = 0;
};

class ViewStatistics {
public:
    // follows: the user was not waited for since the frame before.
    void Add(const FrameTimes& times, bool follows);
    void AddUntimed() { ++m_frames; }
    void AddLoss() { ++m_losses; }
    // Forgets the times; what is counted is kept.
    void ForgetTimes();

    std::size_t GetFrameCount() const { return m_frames; }

    // What is shown, and with what.
    struct Setting {
        const Graphics& graphics;
        const char* format; // of the back buffer
        bool isHDR;
        float sdrWhite; // cd/m2, where it is in HDR
        std::optional<ClipState> clip = {};
    };
    // Lines for the overlay, of the newest frames.
    std::string MakeText(const Setting& setting) const;
    // frames: those that were asked for.
    std::string MakeJson(const Setting& setting, std::size_t frames) const;

private:
    Samples m_frameTimes;
    Samples m_recordingTimes;
    Samples m_intervals; // from one present to the next
    Stopwatch m_sinceFrame;
    std::size_t m_frames = 0;
    std::size_t m_peakInFlight = 0;
    unsigned m_losses = 0;
};

} // namespace Norvex::App
