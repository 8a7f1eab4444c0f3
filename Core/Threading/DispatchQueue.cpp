#include "Core/Threading/DispatchQueue.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "Host/CoreException.h"

namespace Norvex::Core {

DispatchQueue::DispatchQueue(ErrorHandler errorHandler, std::chrono::milliseconds idleTimeout)
    : m_errorHandler(std::move(errorHandler)),
      m_idleTimeout(idleTimeout) {}

DispatchQueue::~DispatchQueue() {
    Stop();
}

void DispatchQueue::SetPoolFunction(PoolFunction poolFunction) {
    const std::scoped_lock lock(m_mutex);
    m_poolFunction = std::move(poolFunction);
}

void DispatchQueue::Push(Object object, Function function) {
    if (!object || !function) {
        ThrowCoreException("Task without object or function");
    }
    bool hasFreeThread = false;
    {
        const std::scoped_lock lock(m_mutex);
        // A thread counts as idle until it has woken, so each task that is queued already takes one
        // idle thread away.
        hasFreeThread = m_idle > m_tasks.size();
        m_tasks.push_back({std::move(object), std::move(function)});
        m_state = State::Running;
        m_wake.notify_one();
    }
    if (!hasFreeThread) {
        CreateThread(kThreadTarget);
    }
}

void DispatchQueue::CreateThread(std::size_t target) {
    if (target == 0) {
        target = std::max(1U, std::thread::hardware_concurrency());
    }
    const std::scoped_lock lock(m_mutex);
    if (!m_poolFunction) {
        ThrowCoreException("Thread pool function not set");
    }
    JoinFinished();
    if (m_live.size() >= target) {
        return;
    }
    // Room first: once the thread runs, nothing may throw before it is in the lists. It cannot end
    // before that either, since ending takes the mutex.
    m_live.reserve(m_live.size() + 1);
    m_threads.reserve(m_threads.size() + 1);
    m_finished.reserve(m_live.size() + 1);
    m_threads.emplace_back([this] { ThreadMain(); });
    m_live.push_back(m_threads.back().get_id());
}

void DispatchQueue::Drain() {
    EndThreads(State::Drain);
    // Left over where no thread could be started for them.
    for (std::size_t left = GetCounts().queued; left > 0; --left) {
        if (const std::optional<Task> task = Pop(Clock::now())) {
            Call(*task);
        }
    }
}

void DispatchQueue::Stop() {
    EndThreads(State::Stop);
}

void DispatchQueue::RunTasks() {
    while (const std::optional<Task> task = Pop(Clock::now() + m_idleTimeout)) {
        Call(*task);
    }
}

DispatchQueue::Counts DispatchQueue::GetCounts() const {
    const std::scoped_lock lock(m_mutex);
    return {m_tasks.size(), m_idle, m_live.size()};
}

std::optional<DispatchQueue::Task> DispatchQueue::Pop(Clock::time_point deadline) {
    std::unique_lock lock(m_mutex);
    while (m_state != State::Stop && m_tasks.empty()) {
        // A task pushed during a drain sets the state back to running; the drain must not wait out
        // the idle time then.
        if (m_state == State::Drain || m_enders > 0) {
            return std::nullopt;
        }
        ++m_idle;
        const std::cv_status status = m_wake.wait_until(lock, deadline);
        --m_idle;
        if (status == std::cv_status::timeout) {
            return std::nullopt;
        }
    }
    if (m_state == State::Stop) {
        return std::nullopt;
    }
    Task task = std::move(m_tasks.front());
    m_tasks.pop_front();
    return task;
}

void DispatchQueue::Call(const Task& task) noexcept {
    try {
        task.function(*task.object);
    } catch (...) {
        ReportCurrentException();
    }
}

void DispatchQueue::ReportCurrentException() noexcept {
    try {
        if (m_errorHandler) {
            m_errorHandler(std::current_exception());
        }
    } catch (...) {
        // There is nobody left to tell.
    }
}

void DispatchQueue::ThreadMain() noexcept {
    for (;;) {
        try {
            m_poolFunction();
        } catch (...) {
            ReportCurrentException();
        }
        const std::scoped_lock lock(m_mutex);
        // A task may have come between the time-out and here, and its Push counted this thread as
        // free.
        if (m_state == State::Stop || m_tasks.empty()) {
            RetireThisThread();
            return;
        }
    }
}

void DispatchQueue::RetireThisThread() {
    const std::thread::id self = std::this_thread::get_id();
    std::erase(m_live, self);
    // Not in the list when a Drain or Stop has taken it out to join it.
    const auto entry = std::ranges::find(m_threads, self, &std::thread::get_id);
    if (entry != m_threads.end()) {
        m_finished.push_back(std::move(*entry));
        m_threads.erase(entry);
    }
    m_ended.notify_all();
}

// Under the mutex. The threads are past their last use of it, so joining is short.
void DispatchQueue::JoinFinished() {
    for (std::thread& thread : m_finished) {
        thread.join();
    }
    m_finished.clear();
}

void DispatchQueue::EndThreads(State state) {
    AnnounceEnd(state);
    for (std::thread thread = TakeThread(); thread.joinable(); thread = TakeThread()) {
        thread.join();
    }
    std::unique_lock lock(m_mutex);
    // Threads that another Drain or Stop took out of the list are joined there, perhaps not yet.
    m_ended.wait(lock, [this] { return m_live.empty(); });
    JoinFinished();
    --m_enders;
    if (state == State::Stop) {
        m_poolFunction = nullptr;
    }
}

void DispatchQueue::AnnounceEnd(State state) {
    const std::scoped_lock lock(m_mutex);
    if (std::ranges::find(m_live, std::this_thread::get_id()) != m_live.end()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                                "A thread of the pool cannot wait for the pool");
    }
    ++m_enders;
    m_state = state;
    m_wake.notify_all();
}

std::thread DispatchQueue::TakeThread() {
    const std::scoped_lock lock(m_mutex);
    if (m_threads.empty()) {
        return {};
    }
    std::thread thread = std::move(m_threads.front());
    m_threads.erase(m_threads.begin());
    return thread;
}

} // namespace Norvex::Core
