#pragma once

// A periodic timer that calls back on a thread of the system's pool. Callbacks of one timer never
// overlap: a tick that falls due while the callback still runs is dropped. Start and Stop are
// thread-safe and may be called from the callback and under locks that the callback takes: neither
// waits for a running callback. The destructor does wait, except for the callback that it runs in:
// a callback may destroy its own timer.

#include <chrono>
#include <functional>
#include <memory>

#include "Platform/Export.h"

namespace Norvex::Core {

class NORVEX_HOST_API WaitableTimer {
public:
    // Keeps the callback; not started. A callback must not throw: what it throws is logged and
    // dropped. Throws CoreException: "Timer callback not set", "Failed to create timer".
    explicit WaitableTimer(std::function<void()> callback);
    ~WaitableTimer();
    WaitableTimer(const WaitableTimer&) = delete;
    WaitableTimer& operator=(const WaitableTimer&) = delete;

    // First call after one period, then every period (at least 1 ms). Restarts a running timer.
    void StartPeriodic(std::chrono::milliseconds period);
    // No further callback starts after one that is being dispatched at this moment.
    void Stop();
    // From StartPeriodic to Stop.
    bool IsRunning() const;

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace Norvex::Core
