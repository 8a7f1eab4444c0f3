#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include "Host/CoreException.h"
#include "Host/WaitableTimer.h"
#include "tests/support/ImportPatch.h"

namespace Norvex::Core {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kLimit = 10s; // far beyond what a loaded machine needs

// Counts calls and lets a test wait for them.
class Ticks {
public:
    void Add() {
        const std::scoped_lock lock(m_mutex);
        ++m_count;
        m_changed.notify_all();
    }
    int Get() const {
        const std::scoped_lock lock(m_mutex);
        return m_count;
    }
    bool WaitFor(int count) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, kLimit, [&] { return m_count >= count; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_count = 0;
};

TEST(WaitableTimerTest, RunsPeriodicallyStopsAndRestarts) {
    Ticks ticks;
    WaitableTimer timer([&] { ticks.Add(); });
    EXPECT_FALSE(timer.IsRunning());
    const auto start = Clock::now();
    timer.StartPeriodic(20ms);
    EXPECT_TRUE(timer.IsRunning());
    ASSERT_TRUE(ticks.WaitFor(3));
    EXPECT_GE(Clock::now() - start, 45ms) << "three periods, less the clock's granularity";
    timer.Stop();
    EXPECT_FALSE(timer.IsRunning());
    std::this_thread::sleep_for(30ms); // for the one that may be under way
    const int stopped = ticks.Get();
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(ticks.Get(), stopped);

    timer.StartPeriodic(1h);
    timer.StartPeriodic(0ms); // replaces the hour, as 1 ms
    EXPECT_TRUE(ticks.WaitFor(stopped + 2));
}

TEST(WaitableTimerTest, StopUnderALockOfTheCallbackDoesNotWait) {
    std::mutex poolLock;
    Ticks entered;
    Ticks ticks;
    WaitableTimer timer([&] {
        entered.Add();
        const std::scoped_lock lock(poolLock);
        ticks.Add();
    });
    std::unique_lock lock(poolLock);
    timer.StartPeriodic(1ms);
    ASSERT_TRUE(entered.WaitFor(1));
    timer.Stop(); // a deadlock here ends in the runner's time limit
    EXPECT_EQ(ticks.Get(), 0);
    lock.unlock();
    EXPECT_TRUE(ticks.WaitFor(1));
}

TEST(WaitableTimerTest, CallbacksThatThrowAreCalledAgainAndNeverOverlap) {
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    Ticks ticks;
    WaitableTimer timer([&] {
        most = std::max(most.load(), ++inside);
        std::this_thread::sleep_for(15ms);
        --inside;
        ticks.Add();
        throw std::runtime_error("spill");
    });
    timer.StartPeriodic(1ms);
    ASSERT_TRUE(ticks.WaitFor(4));
    EXPECT_EQ(most, 1);
}

TEST(WaitableTimerTest, ACallbackMayStopRestartAndDestroyItsTimer) {
    Ticks ticks;
    Ticks destroyed;
    std::optional<WaitableTimer> timer;
    timer.emplace([&] {
        timer->Stop();
        if (ticks.Get() == 2) {
            timer->StartPeriodic(1ms);
            std::this_thread::sleep_for(10ms); // the next tick falls due, and is dropped
            timer.reset();
            destroyed.Add();
        } else {
            timer->StartPeriodic(1ms);
            ticks.Add();
        }
    });
    timer->StartPeriodic(1ms);
    ASSERT_TRUE(destroyed.WaitFor(1)) << "the destructor waits for the callback that it runs in";
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(ticks.Get(), 2);
    EXPECT_EQ(destroyed.Get(), 1);
}

TEST(WaitableTimerTest, DestructorWaitsForTheCallbackThatRestartsIt) {
    std::atomic<bool> isInside{false};
    Ticks ticks;
    std::optional<WaitableTimer> timer;
    WaitableTimer* self = nullptr;
    timer.emplace([&] {
        isInside = true;
        ticks.Add();
        std::this_thread::sleep_for(50ms);
        self->StartPeriodic(1ms);
        isInside = false;
    });
    self = &*timer;
    timer->StartPeriodic(1ms);
    ASSERT_TRUE(ticks.WaitFor(1));
    timer.reset();
    EXPECT_FALSE(isInside);
    const int atEnd = ticks.Get();
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(ticks.Get(), atEnd);
}

TEST(WaitableTimerTest, RefusesWhatCannotTick) {
    const auto expectFailure = [](std::function<void()> callback, const char* sentence) {
        try {
            const WaitableTimer timer(std::move(callback));
            ADD_FAILURE() << "no exception";
        } catch (const CoreException& e) {
            EXPECT_EQ(*boost::get_error_info<ErrorDescription>(e), sentence);
            EXPECT_STREQ(*boost::get_error_info<boost::throw_function>(e), "WaitableTimer");
        }
    };
    expectFailure(nullptr, "Timer callback not set");
    const Norvex::Test::ImportPatch none(
        L"NorvexHost.dll", "CreateThreadpoolTimer",
        [](PTP_TIMER_CALLBACK, void*, PTP_CALLBACK_ENVIRON) -> PTP_TIMER { return nullptr; });
    expectFailure([] {}, "Failed to create timer");
}

} // namespace
} // namespace Norvex::Core
