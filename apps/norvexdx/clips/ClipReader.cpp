#include "apps/norvexdx/clips/ClipReader.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/console/ProcessEnd.h"

namespace Norvex::App {

struct ClipReader::Shared {
    struct Numbered {
        std::uint64_t number = 0;
        ClipFrame frame;
    };

    std::unique_ptr<FrameSource> source; // of the thread, as the next
    std::uint64_t next = 0;              // the number of what the source gives next
    std::mutex mutex;                    // guards the rest
    std::condition_variable changed;
    std::function<void()> onChange;
    std::deque<Numbered> frames;
    std::vector<ClipFrame> spare;
    std::optional<std::uint64_t> wanted; // asked for by Seek, not yet begun
    std::uint64_t least = 0;             // as SkipTo says
    std::string failure;
    bool isEnded = false;
    bool isStopped = false;

    // What is to be read: the next frame, one after it, or any.
    struct Task {
        std::optional<std::uint64_t> place;
        bool mayGoBack = false;
    };

    // Waits until there is something to read, and gives the memory for it. False once it is
    // stopped.
    bool Begin(ClipFrame& frame, Task& task) {
        std::unique_lock lock(mutex);
        changed.wait(
            lock, [this] { return isStopped || wanted || (!isEnded && frames.size() < kAhead); });
        task.place = std::exchange(wanted, std::nullopt);
        task.mayGoBack = task.place.has_value();
        if (!task.place && source->CanSeek() && least > next) {
            task.place = least;
        }
        if (!spare.empty()) {
            frame = std::move(spare.back());
            spare.pop_back();
        }
        return !isStopped;
    }

    // False at the end.
    bool Work(const Task& task, ClipFrame& frame) {
        if (task.place) {
            const std::uint64_t place = source->Seek(*task.place);
            if (!task.mayGoBack && place < next) {
                return false; // all of them were read
            }
            next = place;
        }
        return source->Read(frame);
    }

    // What was read is of no use when Seek was called meanwhile.
    void End(ClipFrame frame, bool isRead, const std::string& line) {
        const std::lock_guard lock(mutex);
        if (isStopped || wanted) {
            spare.push_back(std::move(frame));
            return;
        }
        if (isRead) {
            frames.push_back({next++, std::move(frame)});
        }
        isEnded = !isRead;
        failure = failure.empty() ? line : failure;
        changed.notify_all();
        if (isEnded || frames.size() == 1) {
            onChange();
        }
    }
};

ClipReader::ClipReader(std::unique_ptr<FrameSource> source, std::uint64_t first,
                       std::function<void()> onChange)
    : m_canSeek(source->CanSeek()),
      m_shared(std::make_shared<Shared>()) {
    m_shared->source = std::move(source);
    m_shared->next = first;
    m_shared->onChange = std::move(onChange);
    m_thread = std::thread([shared = m_shared] { Read(*shared); });
}

ClipReader::~ClipReader() {
    {
        const std::lock_guard lock(m_shared->mutex); // nothing is called from now on
        m_shared->isStopped = true;
        m_shared->changed.notify_all();
    }
    if (m_canSeek) {
        m_thread.join();
    } else {
        LeaveThread(std::move(m_thread));
    }
}

void ClipReader::Read(Shared& shared) {
    ClipFrame frame;
    Shared::Task task;
    while (shared.Begin(frame, task)) {
        bool isRead = false;
        std::string line;
        try {
            isRead = shared.Work(task, frame);
        } catch (...) {
            line = DescribeFailure(std::current_exception()).line;
        }
        shared.End(std::move(frame), isRead, line);
        frame = {};
    }
}

std::optional<std::uint64_t> ClipReader::GetNext() const {
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->frames.empty() ? std::nullopt : std::optional(m_shared->frames.front().number);
}

std::uint64_t ClipReader::Take(ClipFrame& frame) {
    const std::lock_guard lock(m_shared->mutex);
    auto& first = m_shared->frames.front();
    const std::uint64_t number = first.number;
    std::swap(frame, first.frame);
    m_shared->spare.push_back(std::move(first.frame));
    m_shared->frames.pop_front();
    m_shared->changed.notify_all();
    return number;
}

bool ClipReader::IsAtEnd() const {
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->isEnded && m_shared->frames.empty();
}

void ClipReader::Wait() const {
    std::unique_lock lock(m_shared->mutex);
    m_shared->changed.wait(lock, [this] { return m_shared->isEnded || !m_shared->frames.empty(); });
}

void ClipReader::Seek(std::uint64_t frame) {
    const std::lock_guard lock(m_shared->mutex);
    for (auto& numbered : m_shared->frames) {
        m_shared->spare.push_back(std::move(numbered.frame));
    }
    m_shared->frames.clear();
    m_shared->wanted = frame;
    m_shared->least = 0;
    m_shared->isEnded = false;
    m_shared->changed.notify_all();
}

void ClipReader::SkipTo(std::uint64_t frame) {
    const std::lock_guard lock(m_shared->mutex);
    m_shared->least = frame;
}

std::string ClipReader::TakeFailure() {
    const std::lock_guard lock(m_shared->mutex);
    return std::exchange(m_shared->failure, {});
}

} // namespace Norvex::App
