#pragma once

// A clip as it plays: which frame is seen when. Each is due at its time by a steady clock, counted
// from where playing began; a late one gives way to the next. Knows no window and no device, and
// takes the time from its caller. One thread. Throws Failure from its constructor; what fails later
// ends the clip, and is told by TakeFailure. Next: ClipReader.h, ViewerKeys.h.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "apps/norvexdx/clips/ClipReader.h"
#include "apps/norvexdx/viewer/ViewerKeys.h"

namespace Norvex::App {

struct ClipSetting {
    FrameRate rate;
    bool isLoop = false;     // begins again after its end, where it can
    std::uint64_t first = 0; // the frame that it begins with
};

// For people and reports.
struct ClipState {
    std::uint64_t frame = 0;            // that is seen, from 1
    std::optional<std::uint64_t> count; // of all, where that is known
    FrameRate rate;
    bool isPlaying = false;
    std::uint64_t shown = 0;
    std::uint64_t dropped = 0; // passed over because they were late
};

class ClipPlayer {
public:
    using Clock = std::chrono::steady_clock;

    // Reads the first frame, and begins to play at the first Advance. name: for messages. onChange:
    // as ClipReader's; Advance is due then. Failures: the clip has no such frame, or what reading
    // it says.
    ClipPlayer(std::unique_ptr<FrameSource> source, const std::string& name,
               const ClipSetting& setting, const std::function<void()>& onChange);

    const ClipFrame& GetFrame() const { return m_frame; } // until the next Advance or ShowNext
    std::uint64_t GetSerial() const { return m_serial; }  // another one for each frame
    ClipState GetState() const;

    // Answers whether there is something new to see.
    bool Advance(Clock::time_point now);
    // When Advance is due; nothing: when onChange is called, or the user acts.
    std::optional<Clock::time_point> GetNextTime(Clock::time_point now) const;
    // Without a clock: the next frame, as soon as it is read. At the end the last one stays.
    void ShowNext();
    // What the user cannot have, or nothing.
    std::string Apply(ClipAction action);
    // The frame was presented, or what passes unseen does not count.
    void CountShown();
    void CountUnseen() { m_counted.reset(); }
    // Time stands still until the next Advance.
    void Rest() { m_start.reset(); }
    // As ClipReader's.
    std::string TakeFailure() { return m_reader->TakeFailure(); }

private:
    struct Start {
        Clock::time_point time;
        std::uint64_t frame = 0;
    };

    std::uint64_t GetDueFrame(Clock::time_point now) const;
    Clock::time_point GetTimeOf(std::uint64_t frame) const;
    void Take();
    bool TakeAwaited(Clock::time_point now);
    bool TakeDue(std::uint64_t due);
    bool ActAtEnd();
    void TogglePlaying();
    std::string StepBack();
    std::string Jump(int seconds);
    std::string GoTo(std::uint64_t frame);
    bool IsAwaiting() const { return m_isSeeking || m_steps > 0; }

    ClipSetting m_setting;
    std::optional<std::uint64_t> m_count;
    std::unique_ptr<ClipReader> m_reader;
    ClipFrame m_frame;
    std::uint64_t m_position = 0; // of m_frame
    std::uint64_t m_serial = 0;
    bool m_isPlaying = true;
    bool m_isSeeking = false; // to m_goal
    std::uint64_t m_goal = 0;
    std::uint64_t m_steps = 0;    // frames to take whatever the time is
    std::optional<Start> m_start; // of the clock; empty while it stands
    std::uint64_t m_shown = 0;
    std::uint64_t m_dropped = 0;
    std::uint64_t m_shownSerial = 0;
    std::optional<std::uint64_t> m_counted; // the frame before, if those after it count
};

} // namespace Norvex::App
