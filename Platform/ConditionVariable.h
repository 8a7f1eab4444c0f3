#pragma once

// What goes with the mutexes of Mutex.h, apart from them, since <chrono> costs each source that
// includes it a second and more.

#include <condition_variable>

#include "Platform/Mutex.h"

#if defined(_WIN32) && !defined(_MSC_VER)

#include <algorithm>
#include <chrono>

namespace Norvex::Platform {

class ConditionVariable {
public:
    ConditionVariable() = default;
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    void notify_one() { WakeConditionVariable(&m_variable); }
    void notify_all() { WakeAllConditionVariable(&m_variable); }

    template <class Predicate>
    void wait(std::unique_lock<Mutex>& lock, const Predicate& isMet) {
        while (!isMet()) {
            SleepConditionVariableSRW(&m_variable, &lock.mutex()->m_lock, INFINITE, 0);
        }
    }
    std::cv_status wait_until(std::unique_lock<Mutex>& lock,
                              const std::chrono::steady_clock::time_point& deadline) {
        using Clock = std::chrono::steady_clock;
        using std::chrono::milliseconds;
        constexpr milliseconds kLongest{24 * 60 * 60 * 1000}; // then the caller looks again
        const auto left = std::clamp(std::chrono::ceil<milliseconds>(deadline - Clock::now()),
                                     milliseconds{0}, kLongest);
        SleepConditionVariableSRW(&m_variable, &lock.mutex()->m_lock,
                                  static_cast<DWORD>(left.count()), 0);
        return Clock::now() < deadline ? std::cv_status::no_timeout : std::cv_status::timeout;
    }

private:
    CONDITION_VARIABLE m_variable = CONDITION_VARIABLE_INIT;
};

} // namespace Norvex::Platform

#else

namespace Norvex::Platform {

using ConditionVariable = std::condition_variable;

} // namespace Norvex::Platform

#endif
