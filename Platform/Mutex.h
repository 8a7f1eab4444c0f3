#pragma once

// Mutexes and a condition variable, the system's own, as std::mutex, std::recursive_mutex and
// std::condition_variable with what is used of them. MinGW's C++ runtime builds those of semaphores
// and events, so that waking a thread takes several calls of the system (under Wine of its server,
// 10 us and more); MSVC's are made of the system's already.

#include <condition_variable>
#include <mutex>

#if defined(_WIN32) && !defined(_MSC_VER)

#include <algorithm>
#include <chrono>

#include <windows.h>

namespace Norvex::Platform {

class Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() { AcquireSRWLockExclusive(&m_lock); }
    void unlock() { ReleaseSRWLockExclusive(&m_lock); }

private:
    friend class ConditionVariable;

    SRWLOCK m_lock = SRWLOCK_INIT;
};

// Spins for a moment before it sleeps.
class RecursiveMutex {
public:
    RecursiveMutex() { InitializeCriticalSectionAndSpinCount(&m_section, kSpins); }
    ~RecursiveMutex() { DeleteCriticalSection(&m_section); }
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() { EnterCriticalSection(&m_section); }
    void unlock() { LeaveCriticalSection(&m_section); }

private:
    static constexpr DWORD kSpins = 400;

    CRITICAL_SECTION m_section;
};

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

using Mutex = std::mutex;
using RecursiveMutex = std::recursive_mutex;
using ConditionVariable = std::condition_variable;

} // namespace Norvex::Platform

#endif
