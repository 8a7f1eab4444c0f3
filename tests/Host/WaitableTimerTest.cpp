#include "Host/WaitableTimer.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "Host/CoreException.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::Core {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Count = std::atomic<int>;

// The limit is far beyond what a loaded machine needs.
bool IsReached(const Count& count, int value) {
    for (const auto end = Clock::now() + 10s; count < value && Clock::now() < end;) {
        std::this_thread::sleep_for(1ms);
    }
    return count >= value;
}

// Nothing more comes than what may be under way.
void ExpectRest(const Count& count) {
    std::this_thread::sleep_for(30ms);
    const int before = count;
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(count, before);
}

TEST(WaitableTimerTest, RunsPeriodicallyStopsRestartsAndMayEndInItsCallback) {
    EXPECT_THROW(WaitableTimer(nullptr), CoreException);
    Count ticks = 0;
    Count ended = 0;
    std::atomic<bool> mustEnd = false;
    std::optional<WaitableTimer> timer;
    timer.emplace([&] {
        ++ticks;
        if (mustEnd) {
            std::this_thread::sleep_for(10ms); // the next tick falls due, and is dropped
            timer.reset();
            ++ended;
        }
    });
    const auto start = Clock::now();
    timer->StartPeriodic(20ms);
    ASSERT_TRUE(IsReached(ticks, 3));
    EXPECT_GE(Clock::now() - start, 45ms) << "three periods, less the clock's granularity";
    timer->Stop();
    ExpectRest(ticks);
    const int before = ticks;
    mustEnd = true;
    timer->StartPeriodic(1h);
    timer->StartPeriodic(0ms); // replaces the hour, as 1 ms
    ASSERT_TRUE(IsReached(ended, 1)) << "the destructor waits for the callback it runs in";
    ExpectRest(ticks);
    EXPECT_EQ(ticks, before + 1);
}

TEST(WaitableTimerTest, CallbacksMayBlockAndThrowButNeverOverlap) {
    std::mutex poolLock;
    Count inside = 0;
    Count most = 0;
    Count ticks = 0;
    std::optional<WaitableTimer> timer;
    timer.emplace([&] {
        most = std::max(most.load(), ++inside);
        const std::scoped_lock lock(poolLock);
        std::this_thread::sleep_for(15ms);
        ++ticks;
        --inside;
        throw 0;
    });
    std::unique_lock lock(poolLock);
    timer->StartPeriodic(1ms);
    ASSERT_TRUE(IsReached(inside, 1));
    std::this_thread::sleep_for(10ms); // more ticks fall due, and are dropped
    timer->Stop();                     // a deadlock here ends in the runner's time limit
    EXPECT_EQ(ticks, 0);
    lock.unlock();
    timer->StartPeriodic(1ms);
    ASSERT_TRUE(IsReached(ticks, 4) && IsReached(inside, 1));
    timer.reset();
    EXPECT_EQ(inside, 0) << "the destructor waits";
    EXPECT_EQ(most, 1);
    ExpectRest(ticks);
}

TEST(WaitableTimerTest, ATickThatIsUnderWayWhenTheTimerStopsDoesNothing) {
    std::function<void()> tick;
    const Norvex::Test::MethodPatch<0, decltype(CreateThreadpoolTimer)> patch(
        Norvex::Test::FindImport(L"NorvexHost.dll", "CreateThreadpoolTimer"),
        [&](auto original, auto onTick, auto* context, auto* environment) {
            tick = [=] { onTick(nullptr, context, nullptr); };
            return original(onTick, context, environment);
        });
    int ticks = 0;
    WaitableTimer timer([&] { ++ticks; });
    timer.StartPeriodic(1h);
    tick();
    timer.Stop();
    tick();
    EXPECT_EQ(ticks, 1);
}

} // namespace
} // namespace Norvex::Core
