#pragma once

// Values from one thread to another, at most so many at a time: who is ahead waits. Any thread.
// Throws only for lack of memory.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace Norvex::App {

template <class T>
class BoundedQueue {
public:
    // capacity: at least 1.
    explicit BoundedQueue(std::size_t capacity) : m_capacity(capacity) {}
    BoundedQueue(const BoundedQueue&) = delete;
    BoundedQueue& operator=(const BoundedQueue&) = delete;

    // Waits while the queue is full; false, without the value, once it is stopped.
    bool Push(T value) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_isStopped || m_values.size() < m_capacity; });
        if (m_isStopped) {
            return false;
        }
        m_values.push_back(std::move(value));
        m_changed.notify_all();
        return true;
    }

    // Waits while the queue is empty; nothing once it is stopped, or finished and empty.
    std::optional<T> Pop() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_isStopped || m_isFinished || !m_values.empty(); });
        if (m_isStopped || m_values.empty()) {
            return std::nullopt;
        }
        std::optional<T> value = std::move(m_values.front());
        m_values.pop_front();
        m_changed.notify_all();
        return value;
    }

    // There will be no more values.
    void Finish() {
        const std::lock_guard lock(m_mutex);
        m_isFinished = true;
        m_changed.notify_all();
    }

    // Calls off everything, for both sides.
    void Stop() {
        const std::lock_guard lock(m_mutex);
        m_isStopped = true;
        m_changed.notify_all();
    }

private:
    std::size_t m_capacity;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<T> m_values;
    bool m_isFinished = false;
    bool m_isStopped = false;
};

// A fixed number of values that go round between a producer, who fills them, and a consumer, so
// that their memory is made once.
template <class T>
struct Exchange {
    explicit Exchange(std::size_t count) : empty(count), filled(count) {
        for (std::size_t i = 0; i < count; ++i) {
            empty.Push({});
        }
    }

    void Stop() {
        empty.Stop();
        filled.Stop();
    }

    BoundedQueue<T> empty;
    BoundedQueue<T> filled;
};

} // namespace Norvex::App
