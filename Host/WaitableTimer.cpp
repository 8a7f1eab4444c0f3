#include "Host/WaitableTimer.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <limits>
#include <mutex>
#include <source_location>
#include <utility>

#include <glog/logging.h>

#include "Host/CoreException.h"
#include "Platform/Direct3D.h"

namespace Norvex::Core {

namespace {

// A relative time is negative, in units of 100 ns.
FILETIME RelativeDueTime(std::chrono::milliseconds delay) {
    constexpr long long kUnitsPerMillisecond = 10'000;
    ULARGE_INTEGER due{};
    due.QuadPart = static_cast<ULONGLONG>(-delay.count() * kUnitsPerMillisecond);
    return {due.LowPart, due.HighPart};
}

} // namespace

// Shared with the callback that is running, which may outlive the timer that it destroys.
struct WaitableTimer::Impl : std::enable_shared_from_this<WaitableTimer::Impl> {
    Impl(std::function<void()> function, const std::source_location& location)
        : callback(std::move(function)),
          timer(CreateThreadpoolTimer(&OnTick, this, nullptr)) {
        if (timer == nullptr) {
            ThrowCoreException("Failed to create timer", location);
        }
    }

    ~Impl() { CloseThreadpoolTimer(timer); } // inside a callback: when that has returned
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // After it no callback runs, but for the one that calls it, and none will.
    void ShutDown() {
        {
            const std::scoped_lock lock(mutex);
            isClosing = true;
            StopLocked();
        }
        if (callbackThread == GetCurrentThreadId()) {
            DisassociateCurrentThreadFromCallback(callbackInstance); // do not wait for this one
        }
        WaitForThreadpoolTimerCallbacks(timer, TRUE);
    }

    void StopLocked() {
        isRunning = false;
        SetThreadpoolTimer(timer, nullptr, 0, 0);
    }

    bool IsRunning() const {
        const std::scoped_lock lock(mutex);
        return isRunning;
    }

    static void CALLBACK OnTick(PTP_CALLBACK_INSTANCE instance, void* context, PTP_TIMER) {
        const auto self = static_cast<Impl*>(context)->shared_from_this();
        // The pool starts the next tick on another thread when this one takes longer than the
        // period.
        if (self->isInCallback.exchange(true)) {
            return;
        }
        self->callbackInstance = instance;
        self->callbackThread = GetCurrentThreadId();
        if (self->IsRunning()) {
            self->CallBack();
        }
        self->callbackThread = 0;
        self->isInCallback = false;
    }

    // An exception must not reach the system's frames below.
    void CallBack() noexcept {
        try {
            callback();
        } catch (const std::exception& e) {
            LOG(ERROR) << "Timer callback failed: " << e.what();
        } catch (...) {
            LOG(ERROR) << "Timer callback failed";
        }
    }

    const std::function<void()> callback;
    mutable std::mutex mutex; // guards the two flags and the order of the timer's settings
    bool isRunning = false;
    bool isClosing = false;
    std::atomic<bool> isInCallback{false};
    std::atomic<DWORD> callbackThread{0};             // none has the number 0
    PTP_CALLBACK_INSTANCE callbackInstance = nullptr; // read by that thread alone
    PTP_TIMER timer;
};

WaitableTimer::WaitableTimer(std::function<void()> callback) {
    if (!callback) {
        ThrowCoreException("Timer callback not set");
    }
    m_impl = std::make_shared<Impl>(std::move(callback), std::source_location::current());
}

// The callback may use this timer until it is done, so the members go only after that.
WaitableTimer::~WaitableTimer() {
    m_impl->ShutDown();
}

void WaitableTimer::StartPeriodic(std::chrono::milliseconds period) {
    constexpr std::chrono::milliseconds kShortest{1};
    constexpr std::chrono::milliseconds kLongest{std::numeric_limits<DWORD>::max()};
    period = std::clamp(period, kShortest, kLongest);
    FILETIME due = RelativeDueTime(period);
    const std::scoped_lock lock(m_impl->mutex);
    // The callback may start the timer again while the destructor waits for that callback.
    if (!m_impl->isClosing) {
        m_impl->isRunning = true;
        SetThreadpoolTimer(m_impl->timer, &due, static_cast<DWORD>(period.count()), 0);
    }
}

void WaitableTimer::Stop() {
    const std::scoped_lock lock(m_impl->mutex);
    m_impl->StopLocked();
}

bool WaitableTimer::IsRunning() const {
    return m_impl->IsRunning();
}

} // namespace Norvex::Core
