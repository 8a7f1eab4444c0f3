#pragma once

// A pool of background threads that runs queued tasks in order of arrival: it waits where callers
// must not (for the GPU, above all) and then lets go of what the work used. Threads start when a
// task finds none free and end when idle too long. Plain C++; any thread may call any operation. A
// task runs outside the mutex, so it may push further tasks. Throws Norvex::Core::CoreException and
// std::system_error, as each operation says. Next: Host/CoreException.h.

#include <chrono>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/RefCountable.h"
#include "Platform/ConditionVariable.h"

namespace Norvex::Core {

class DispatchQueue {
public:
    using Object = boost::intrusive_ptr<IRefCountable>;
    using Function = std::function<void(IRefCountable&)>;
    using PoolFunction = std::function<void()>;
    // Receives, on the pool's thread, what a task threw; the thread then goes on with the next
    // task. What the handler itself throws is dropped.
    using ErrorHandler = std::function<void(const std::exception_ptr&)>;

    static constexpr std::chrono::milliseconds kIdleTimeout{30'000};
    static constexpr std::size_t kThreadTarget = 2;

    struct Counts {
        std::size_t queued = 0;  // tasks that no thread has taken yet
        std::size_t idle = 0;    // threads waiting for a task
        std::size_t threads = 0; // threads started and not yet ended
    };

    // No thread is started. `idleTimeout` > 0 is how long a thread waits for work before it ends.
    // Without an error handler what tasks throw is dropped.
    explicit DispatchQueue(ErrorHandler errorHandler = {},
                           std::chrono::milliseconds idleTimeout = kIdleTimeout);
    // Stops. Tasks that have not started are dropped, their objects released here. Never call it on
    // a thread of the pool (the process ends) nor under the loader lock while threads live (they
    // need that lock to end).
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    // What each thread runs: as a rule a function that calls RunTasks(). Called again when it
    // returns while tasks are queued and the pool is not stopped, so it must take tasks. Set it
    // before the first Push; Stop() drops it.
    void SetPoolFunction(PoolFunction poolFunction);

    // Queues `function`, to be called with `object`, which is held until the call has returned and
    // is released on the pool's thread. A drained or stopped queue runs again. When no idle thread
    // is free for the task, CreateThread(kThreadTarget) follows. Throws CoreException "Task without
    // object or function" with nothing queued, and whatever CreateThread throws; the task is then
    // in the queue already and runs once another Push finds or starts a thread, or in Drain.
    void Push(Object object, Function function);

    // Joins threads that have ended, then starts one thread if fewer than `target` live; 0 means
    // the hardware's concurrency. Throws CoreException "Thread pool function not set",
    // std::system_error (resource_unavailable_try_again) when the system gives no thread.
    void CreateThread(std::size_t target);

    // Returns when every task queued before has run and the pool's threads have ended and are
    // joined; tasks pushed by others meanwhile are run too. A task for which no thread could be
    // started runs here, on the caller's thread. Any number of threads may drain at once. Throws
    // std::system_error (resource_deadlock_would_occur), with nothing changed, on a thread of the
    // pool: no thread joins itself.
    void Drain();

    // Ends the threads, each after the task it is in, joins them and drops the pool function;
    // queued tasks stay queued. Throws as Drain() does.
    void Stop();

    // The worker loop: takes and calls one task after the other, until none comes within the idle
    // timeout, or the queue is empty while it drains, or it stops.
    void RunTasks();

    // The counts at this moment, for diagnostics: they may change at once.
    Counts GetCounts() const;

private:
    using Clock = std::chrono::steady_clock;
    enum class State { Running = 0, Drain = 1, Stop = 2 };
    struct Task {
        Object object;
        Function function;
    };

    std::optional<Task> Pop(Clock::time_point deadline);
    void Call(const Task& task) noexcept;
    void ReportCurrentException() noexcept;
    void ThreadMain() noexcept;
    void RetireThisThread();
    void JoinFinished();
    void EndThreads(State state);
    void AnnounceEnd(State state);
    std::thread TakeThread();

    const ErrorHandler m_errorHandler;
    const std::chrono::milliseconds m_idleTimeout;

    mutable Platform::Mutex m_mutex; // guards everything below
    Platform::ConditionVariable m_wake;
    Platform::ConditionVariable m_ended;
    State m_state = State::Running;
    std::size_t m_enders = 0; // calls of Drain and Stop in progress
    std::deque<Task> m_tasks;
    std::size_t m_idle = 0;
    std::vector<std::thread::id> m_live; // threads started and not yet ended
    std::vector<std::thread> m_threads;  // those of them that nobody is joining yet
    std::vector<std::thread> m_finished; // ended, waiting to be joined
    PoolFunction m_poolFunction;
};

} // namespace Norvex::Core
