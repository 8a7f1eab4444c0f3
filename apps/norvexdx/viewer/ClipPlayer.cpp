#include "apps/norvexdx/viewer/ClipPlayer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include <fmt/format.h>

#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App {

namespace {

constexpr std::uint64_t kLastFrame = std::numeric_limits<std::uint64_t>::max();
constexpr const char* kNoWayBack = "there is no way back in a stream";

double GetFramesPerSecond(const FrameRate& rate) {
    return static_cast<double>(rate.numerator) / rate.denominator;
}

[[noreturn]] void ThrowNoSuchFrame(const std::string& name, std::uint64_t count,
                                   std::uint64_t wanted) {
    throw Failure(count == 0 ? name + " has no frames"
                             : fmt::format("{} has {} frames, not {}", name, count, wanted + 1));
}

// So that the source gives the wanted frame next. A stream is read over.
void Begin(FrameSource& source, const std::string& name, std::uint64_t wanted) {
    if (wanted == 0) {
        return;
    }
    if (source.CanSeek()) {
        const std::uint64_t place = source.Seek(wanted);
        if (place != wanted) {
            ThrowNoSuchFrame(name, place + 1, wanted);
        }
        return;
    }
    ClipFrame frame;
    for (std::uint64_t i = 0; i < wanted; ++i) {
        if (!source.Read(frame)) {
            ThrowNoSuchFrame(name, i, wanted);
        }
    }
}

} // namespace

ClipPlayer::ClipPlayer(std::unique_ptr<FrameSource> source, const std::string& name,
                       const ClipSetting& setting, const std::function<void()>& onChange)
    : m_setting(setting),
      m_count(source->GetCount()) {
    Begin(*source, name, setting.first);
    if (!source->Read(m_frame)) {
        ThrowNoSuchFrame(name, setting.first, setting.first);
    }
    m_position = setting.first;
    m_serial = 1;
    m_reader = std::make_unique<ClipReader>(std::move(source), m_position + 1, onChange);
}

ClipState ClipPlayer::GetState() const {
    return {m_position + 1, m_count, m_setting.rate, m_isPlaying, m_shown, m_dropped};
}

bool ClipPlayer::Advance(Clock::time_point now) {
    if (IsAwaiting()) {
        return TakeAwaited(now);
    }
    if (!m_isPlaying) {
        return false;
    }
    if (!m_start) {
        m_start = {now, m_position};
    }
    return TakeDue(GetDueFrame(now));
}

std::optional<ClipPlayer::Clock::time_point> ClipPlayer::GetNextTime(Clock::time_point now) const {
    const auto next = m_reader->GetNext();
    const bool isReading = !next && !m_reader->IsAtEnd();
    if (isReading || (!m_isPlaying && !IsAwaiting())) {
        return std::nullopt;
    }
    return IsAwaiting() || !m_start ? now : GetTimeOf(next.value_or(m_position + 1));
}

void ClipPlayer::ShowNext() {
    m_reader->Wait();
    if (m_reader->IsAtEnd() && m_setting.isLoop && m_reader->CanSeek()) {
        m_reader->Seek(0);
        m_reader->Wait();
    }
    if (m_reader->GetNext()) {
        Take();
        CountUnseen();
    }
}

std::string ClipPlayer::Apply(ClipAction action) {
    constexpr int kShortJump = 1; // seconds
    constexpr int kLongJump = 10;
    switch (action) {
    case ClipAction::TogglePlaying:
        TogglePlaying();
        return {};
    case ClipAction::StepForward:
        m_isPlaying = false;
        m_steps += m_reader->IsAtEnd() ? 0 : 1;
        return {};
    case ClipAction::StepBack:
        return StepBack();
    case ClipAction::JumpForward:
        return Jump(kShortJump);
    case ClipAction::JumpBack:
        return Jump(-kShortJump);
    case ClipAction::JumpFarForward:
        return Jump(kLongJump);
    case ClipAction::JumpFarBack:
        return Jump(-kLongJump);
    case ClipAction::First:
        return GoTo(0);
    case ClipAction::Last:
        return GoTo(m_count && *m_count > 0 ? *m_count - 1 : kLastFrame);
    }
    return {};
}

void ClipPlayer::CountShown() {
    if (m_shownSerial == m_serial) {
        return; // drawn again
    }
    m_shownSerial = m_serial;
    ++m_shown;
    if (m_counted && m_position > *m_counted) {
        m_dropped += m_position - *m_counted - 1;
    }
    m_counted = m_position;
}

std::uint64_t ClipPlayer::GetDueFrame(Clock::time_point now) const {
    constexpr double kRounding = 1e-6; // frames: a time that GetTimeOf gave is not too early
    const std::chrono::duration<double> elapsed = now - m_start->time;
    const double frames = elapsed.count() * GetFramesPerSecond(m_setting.rate);
    return m_start->frame + static_cast<std::uint64_t>(std::max(0.0, frames + kRounding));
}

ClipPlayer::Clock::time_point ClipPlayer::GetTimeOf(std::uint64_t frame) const {
    const double frames = static_cast<double>(frame) - static_cast<double>(m_start->frame);
    const std::chrono::duration<double> seconds(frames / GetFramesPerSecond(m_setting.rate));
    return m_start->time + std::chrono::ceil<Clock::duration>(seconds);
}

void ClipPlayer::Take() {
    m_position = m_reader->Take(m_frame);
    ++m_serial;
}

// After a jump the clock begins with the frame that is there, so that reading it costs no others.
bool ClipPlayer::TakeAwaited(Clock::time_point now) {
    bool isNew = false;
    while (IsAwaiting() && m_reader->GetNext()) {
        Take();
        m_steps -= m_isSeeking ? 0 : 1;
        m_isSeeking = false;
        isNew = true;
    }
    if (IsAwaiting() && m_reader->IsAtEnd()) {
        m_isSeeking = false;
        m_steps = 0;
    }
    CountUnseen();
    m_start = {now, m_position};
    return isNew;
}

bool ClipPlayer::TakeDue(std::uint64_t due) {
    m_reader->SkipTo(due);
    bool isNew = false;
    for (auto next = m_reader->GetNext(); next && *next <= due; next = m_reader->GetNext()) {
        Take();
        isNew = true;
    }
    const bool isOver = due > m_position && m_reader->IsAtEnd();
    return (isOver && ActAtEnd()) || isNew;
}

// Answers whether that is to be seen.
bool ClipPlayer::ActAtEnd() {
    if (m_setting.isLoop && m_reader->CanSeek()) {
        GoTo(0);
        return false;
    }
    m_isPlaying = false;
    return true;
}

void ClipPlayer::TogglePlaying() {
    m_isPlaying = !m_isPlaying;
    m_start.reset();
    if (m_isPlaying && m_reader->IsAtEnd() && m_reader->CanSeek()) {
        GoTo(0);
    }
}

std::string ClipPlayer::StepBack() {
    m_isPlaying = false;
    const std::uint64_t from = m_isSeeking ? m_goal : m_position;
    return from > 0 ? GoTo(from - 1) : std::string();
}

std::string ClipPlayer::Jump(int seconds) {
    const auto frames = static_cast<std::uint64_t>(
        std::max(1.0, std::round(std::abs(seconds) * GetFramesPerSecond(m_setting.rate))));
    const std::uint64_t from = m_isSeeking ? m_goal : m_position;
    if (seconds < 0) {
        return GoTo(from > frames ? from - frames : 0);
    }
    if (m_reader->CanSeek()) {
        return GoTo(from + frames);
    }
    m_steps += frames;
    return {};
}

std::string ClipPlayer::GoTo(std::uint64_t frame) {
    if (!m_reader->CanSeek()) {
        return frame > m_position ? "a stream has no end to go to" : kNoWayBack;
    }
    m_goal = frame;
    m_isSeeking = true;
    m_steps = 0;
    m_reader->Seek(frame);
    return {};
}

} // namespace Norvex::App
