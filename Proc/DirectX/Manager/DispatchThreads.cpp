#include "Proc/DirectX/Manager/DispatchThreads.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "Core/Threading/DispatchQueue.h"
#include "Platform/Direct3D.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr auto kTaskFailed = "A completion task failed";

HMODULE ReferenceOwnModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(&ReferenceOwnModule), &module);
    return module;
}

void LogFailure(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (...) {
        LogCurrentException(kTaskFailed);
    }
}

} // namespace

class DispatchThreads {
public:
    using Submission = SubmissionsInFlight::Submission;
    using Submissions = SubmissionsInFlight::Room;

    static DispatchThreads& Get();
    static std::unique_ptr<DispatchThreads>& GetStorage();

    // std::system_error when the system gives no event.
    DispatchThreads();
    ~DispatchThreads() { CloseHandle(m_event); }
    DispatchThreads(const DispatchThreads&) = delete;
    DispatchThreads& operator=(const DispatchThreads&) = delete;

    void Enter(SubmissionsInFlight& queue);
    void Leave(SubmissionsInFlight& queue) noexcept;
    Submissions MakeRoom();
    bool Add(SubmissionsInFlight& queue, Submissions room);
    void Drain();

private:
    struct Task : RefCountImpl {};
    class Draining;

    void StartTask();
    // The task: stays until nothing came for the time that an idle thread stays, or until nothing
    // is left when somebody drains.
    void Attend();
    // Those that are done. Sees to the event for the others; false where one cannot be had for
    // them. The lock is held.
    bool TakeFinished(Submissions& finished);
    bool Await(SubmissionsInFlight& queue) const;
    static bool IsDone(const Submission& submission) {
        return submission.fence->GetCompletedValue() >= submission.value;
    }
    bool IsEmpty() const;
    // Until there may be something to do; false: nothing came for long.
    bool Wait(bool areAwaited) const;
    static void Release(Submission& submission) noexcept;

    // The task stays by itself.
    static constexpr std::chrono::milliseconds kIdleThread{1};
    static constexpr std::size_t kMostSpare = 1024;
    // A thread's waking costs as much as many a submission: it rests where they follow that fast,
    // unless so many wait.
    static constexpr std::chrono::milliseconds kRest{1};
    static constexpr std::size_t kMostAtRest = 128;
    // Where no fence can set the event it looks by itself.
    static constexpr std::chrono::milliseconds kLookPeriod{10};

    HANDLE m_event = CreateEventW(nullptr, FALSE, FALSE, nullptr); // wakes the task
    std::mutex m_lock; // guards what follows, and what the queues have in flight
    std::vector<SubmissionsInFlight*> m_queues;
    Submissions m_spare;       // for those to come
    bool m_isAttended = false; // the task will look again
    unsigned m_drains = 0;     // under way

    std::mutex m_moduleLock; // held over Push, so that the module is not given back between the two
    HMODULE m_module = nullptr; // this library, while threads may run its code
    Core::DispatchQueue m_pool{LogFailure, kIdleThread};
};

DispatchThreads::DispatchThreads() {
    if (m_event == nullptr) {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
    }
    m_pool.SetPoolFunction([this] { m_pool.RunTasks(); });
}

// Released at process exit, not destroyed: by then the system has killed the threads, wherever they
// were, and waiting for them would wait for ever.
std::unique_ptr<DispatchThreads>& DispatchThreads::GetStorage() {
    static std::unique_ptr<DispatchThreads> storage;
    return storage;
}

DispatchThreads& DispatchThreads::Get() {
    static std::once_flag once;
    std::call_once(once, [] { GetStorage() = std::make_unique<DispatchThreads>(); });
    return *GetStorage();
}

void DispatchThreads::Enter(SubmissionsInFlight& queue) {
    const std::lock_guard guard(m_lock);
    m_queues.push_back(&queue);
}

void DispatchThreads::Leave(SubmissionsInFlight& queue) noexcept {
    const std::lock_guard guard(m_lock);
    std::erase(m_queues, &queue);
}

DispatchThreads::Submissions DispatchThreads::MakeRoom() {
    Submissions room;
    {
        const std::lock_guard guard(m_lock);
        if (!m_spare.empty()) {
            room.splice(room.end(), m_spare, m_spare.begin());
        }
    }
    if (room.empty()) {
        room.emplace_back();
    }
    return room;
}

bool DispatchThreads::Add(SubmissionsInFlight& queue, Submissions room) {
    {
        const std::lock_guard guard(m_lock);
        if (!queue.m_isAwaited && IsDone(room.front())) {
            room.front() = {};
            m_spare.splice(m_spare.end(), room);
            return false; // to wake a thread would take longer than to release it
        }
        queue.m_list.splice(queue.m_list.end(), room);
        const bool isComing = queue.m_isAwaited || Await(queue);
        if (!isComing || queue.m_list.size() % kMostAtRest == 0) {
            SetEvent(m_event);
        }
        if (std::exchange(m_isAttended, true)) {
            return true;
        }
    }
    try {
        StartTask();
    } catch (...) {
        const std::lock_guard guard(m_lock);
        m_isAttended = false;
        throw;
    }
    return true;
}

void DispatchThreads::StartTask() {
    const std::lock_guard guard(m_moduleLock);
    if (m_module == nullptr) {
        m_module = ReferenceOwnModule();
    }
    m_pool.Push(boost::intrusive_ptr<IRefCountable>(new Task), [this](auto&) { Attend(); });
}

void DispatchThreads::Attend() {
    Submissions finished;
    for (bool isIdle = false;;) {
        bool areAwaited = false;
        {
            Submissions surplus; // freed after the lock
            const std::lock_guard guard(m_lock);
            Submissions& kept = m_spare.size() + finished.size() <= kMostSpare ? m_spare : surplus;
            kept.splice(kept.end(), finished);
            areAwaited = TakeFinished(finished);
            if (finished.empty() && IsEmpty() && (isIdle || m_drains > 0)) {
                m_isAttended = false;
                SetEvent(m_event); // should another one attend too
                return;
            }
        }
        std::ranges::for_each(finished, &DispatchThreads::Release);
        isIdle = finished.empty() && !Wait(areAwaited);
    }
}

bool DispatchThreads::Wait(bool areAwaited) const {
    const auto waitFor = [this](std::chrono::milliseconds time) {
        return WaitForSingleObject(m_event, static_cast<DWORD>(time.count())) == WAIT_OBJECT_0;
    };
    const auto begin = std::chrono::steady_clock::now();
    if (!waitFor(areAwaited ? Core::DispatchQueue::kIdleTimeout : kLookPeriod)) {
        return false;
    }
    if (std::chrono::steady_clock::now() - begin < kRest) {
        waitFor(kRest);
    }
    return true;
}

bool DispatchThreads::TakeFinished(Submissions& finished) {
    bool areAwaited = true;
    for (SubmissionsInFlight* const queue : m_queues) {
        Submissions& list = queue->m_list;
        while (!list.empty() && IsDone(list.front())) {
            queue->m_isAwaited = false;
            finished.splice(finished.end(), list, list.begin());
        }
        areAwaited = areAwaited && (list.empty() || queue->m_isAwaited || Await(*queue));
    }
    return areAwaited;
}

// Where it is done already the event is set at once.
bool DispatchThreads::Await(SubmissionsInFlight& queue) const {
    const Submission& first = queue.m_list.front();
    queue.m_isAwaited = SUCCEEDED(first.fence->SetEventOnCompletion(first.value, m_event));
    return queue.m_isAwaited;
}

bool DispatchThreads::IsEmpty() const {
    return std::ranges::all_of(m_queues, [](const auto* queue) { return queue->m_list.empty(); });
}

void DispatchThreads::Release(Submission& submission) noexcept {
    try {
        submission.release(*submission.object);
    } catch (...) {
        LogCurrentException(kTaskFailed);
    }
    submission = {};
}

// While it lives the task ends when nothing is left.
class DispatchThreads::Draining {
public:
    explicit Draining(DispatchThreads& threads) : m_threads(threads) {
        const std::lock_guard guard(m_threads.m_lock);
        ++m_threads.m_drains;
        SetEvent(m_threads.m_event);
    }
    ~Draining() {
        const std::lock_guard guard(m_threads.m_lock);
        --m_threads.m_drains;
    }
    Draining(const Draining&) = delete;
    Draining& operator=(const Draining&) = delete;

    // Something is, for which no task could be queued; it is the caller's now.
    bool TakeOver() const {
        const std::lock_guard guard(m_threads.m_lock);
        return !m_threads.IsEmpty() && !std::exchange(m_threads.m_isAttended, true);
    }

private:
    DispatchThreads& m_threads;
};

void DispatchThreads::Drain() {
    const Draining draining(*this);
    m_pool.Drain();
    if (draining.TakeOver()) {
        Attend();
    }
    const std::lock_guard guard(m_moduleLock);
    const auto counts = m_pool.GetCounts();
    if (m_module != nullptr && counts.threads == 0 && counts.queued == 0) {
        // Not the last reference: the caller holds one.
        FreeLibrary(std::exchange(m_module, nullptr));
    }
}

SubmissionsInFlight::SubmissionsInFlight() : m_threads(DispatchThreads::Get()) {
    m_threads.Enter(*this);
}

SubmissionsInFlight::~SubmissionsInFlight() {
    m_threads.Leave(*this);
}

SubmissionsInFlight::Room SubmissionsInFlight::MakeRoom() {
    return m_threads.MakeRoom();
}

bool SubmissionsInFlight::Add(Room room, Submission submission) {
    room.front() = std::move(submission);
    return m_threads.Add(*this, std::move(room));
}

void DrainDispatchThreads() {
    DispatchThreads::Get().Drain();
}

void ReleaseDispatchThreads(bool processEnds) {
    if (processEnds) {
        [[maybe_unused]] const auto* abandoned = DispatchThreads::GetStorage().release();
    } else {
        DispatchThreads::GetStorage().reset();
    }
}

} // namespace Norvex::DX
