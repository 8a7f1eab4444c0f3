#pragma once

// Mutexes, the system's own, as std::mutex and std::recursive_mutex with what is used of them.
// MinGW's C++ runtime builds those of semaphores and events, so that waking a thread takes several
// calls of the system (under Wine of its server, 10 us and more); MSVC's are made of the system's
// already. To wait: ConditionVariable.h.

#include <mutex>

#if defined(_WIN32) && !defined(_MSC_VER)

#include "Platform/WindowsHeader.h"

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

} // namespace Norvex::Platform

#else

namespace Norvex::Platform {

using Mutex = std::mutex;
using RecursiveMutex = std::recursive_mutex;

} // namespace Norvex::Platform

#endif
