// The pool of background threads. Plain C++: built for Windows, and for the building machine under
// sanitizers, so the cases are written to interleave as much as to check.

#include <atomic>
#include <latch>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

#include "Core/Threading/DispatchQueue.h"
#include "Host/CoreException.h"
#include "tests/support/Threads.h"

namespace {

using namespace std::chrono_literals;
using Norvex::Core::CoreException;
using Norvex::Core::DispatchQueue;
using Norvex::Test::RunThreads;

struct Probe : Norvex::RefCountImpl {
    Probe(std::shared_ptr<int> held, const DispatchQueue* asked)
        : token(std::move(held)),
          queue(asked) {}
    ~Probe() override { queue->GetCounts(); } // under the mutex it would never return

    std::shared_ptr<int> token;
    const DispatchQueue* queue;
};

void Start(DispatchQueue& queue) {
    queue.SetPoolFunction([&queue] { queue.RunTasks(); });
}

void ExpectCounts(const DispatchQueue& queue, unsigned threads, unsigned queued) {
    EXPECT_EQ(queue.GetCounts().threads, threads);
    EXPECT_EQ(queue.GetCounts().queued, queued);
}

void ExpectSoon(const std::function<bool()>& holds, const char* what) {
    for (int i = 0; !holds() && i < 20'000; ++i) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(holds()) << what;
}

// A thread counts as idle until it has woken, so an empty queue belongs to it.
void ExpectOneIdle(const DispatchQueue& queue) {
    const auto isIdle = [&] {
        const DispatchQueue::Counts counts = queue.GetCounts();
        return counts.idle == 1 && counts.queued == 0;
    };
    ExpectSoon(isIdle, "the thread waits for work");
}

class DispatchQueueTest : public testing::Test {
protected:
    DispatchQueueTest() { Start(m_queue); }
    ~DispatchQueueTest() override { EXPECT_EQ(CountObjects(), 0); }

    long CountObjects() const { return m_token.use_count() - 1; }
    void Push(DispatchQueue& queue, std::function<void()> work) {
        queue.Push(DispatchQueue::Object(new Probe(m_token, &m_queue)),
                   [task = std::move(work)](auto&) { task(); });
    }
    void PushCounted(DispatchQueue& queue) {
        Push(queue, [this] { ++m_calls; });
    }
    // Returns when so many tasks run, each of which goes on until the latch opens.
    void Block(DispatchQueue& queue, int count, std::latch& mayEnd) {
        const auto started = std::make_shared<std::latch>(count);
        for (int task = 0; task < count; ++task) {
            Push(queue, [this, started, &mayEnd] {
                started->count_down();
                mayEnd.wait();
                ++m_calls;
            });
        }
        started->wait();
    }

    std::shared_ptr<int> m_token = std::make_shared<int>(); // held by every object
    std::atomic<int> m_calls{0};
    std::atomic<int> m_errors{0};
    DispatchQueue m_queue{[this](const std::exception_ptr& error) {
        m_errors += error != nullptr ? 1 : 0;
        throw std::runtime_error("the handler itself fails");
    }};
};

TEST_F(DispatchQueueTest, DrainReturnsWhenEveryTaskHasRunAndEveryThreadHasEnded) {
    const std::function<void(int)> spread = [&](int depth) { // 255 tasks, of which some push two
        ++m_calls;
        for (int child = 0; child < 2 && depth > 0; ++child) {
            Push(m_queue, [&, depth] { spread(depth - 1); });
        }
    };
    for (int round = 1; round <= 3; ++round) {
        RunThreads(4, [&](unsigned) { spread(7); });
        m_queue.Drain();
        EXPECT_EQ(m_calls, round * 4 * 255);
        EXPECT_EQ(CountObjects(), 0);
        ExpectCounts(m_queue, 0, 0);
    }
}

TEST_F(DispatchQueueTest, ThreadsStartOnlyWhenNoneIsFreeAndNeverMoreThanTwo) {
    // Many rounds, for the moment after the first push when the idle thread has not woken yet.
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        PushCounted(m_queue);
        ExpectOneIdle(m_queue);
        PushCounted(m_queue);
        ExpectOneIdle(m_queue);
        EXPECT_EQ(m_queue.GetCounts().threads, 1U) << "a free thread takes the task";
        std::latch mayEnd{1};
        Block(m_queue, 2, mayEnd); // returns: one idle thread is not free for two tasks
        PushCounted(m_queue);
        ExpectCounts(m_queue, 2, 1); // both busy
        mayEnd.count_down();
        m_queue.Drain();
    }
}

TEST_F(DispatchQueueTest, IdleThreadsEndAndLoseNoTaskThatArrivesThen) {
    DispatchQueue queue({}, 1ms);
    Start(queue);
    RunThreads(3, [&](unsigned pusher) {
        for (int task = 0; task < 200; ++task) {
            PushCounted(queue);
            std::this_thread::sleep_for(std::chrono::microseconds(700 + 150 * pusher));
        }
    });
    ExpectSoon([&] { return m_calls == 600; }, "every task runs without a drain");
    ExpectSoon([&] { return queue.GetCounts().threads == 0; }, "idle threads end");
    PushCounted(queue);
    ExpectSoon([&] { return m_calls == 601; }, "a new one starts");
}

TEST_F(DispatchQueueTest, EveryDrainWaitsForTheTasksButNotForTheIdleTime) {
    std::latch mayEnd{1};
    Block(m_queue, 1, mayEnd);
    const auto start = std::chrono::steady_clock::now();
    RunThreads(4, [&](unsigned thread) {
        if (thread < 3) {
            m_queue.Drain();
            EXPECT_GE(m_calls, 1) << "one thread ends for all drains, not for the first alone";
            return;
        }
        std::this_thread::sleep_for(20ms);
        PushCounted(m_queue); // the queue runs again, while the drains still wait
        std::this_thread::sleep_for(5ms);
        mayEnd.count_down();
    });
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s) << "the idle time is 30 s";
    EXPECT_EQ(m_calls, 2);
    EXPECT_EQ(m_queue.GetCounts().threads, 0U);
}

TEST_F(DispatchQueueTest, WhatTasksThrowIsReportedAndNoneWaitsForThePool) {
    Push(m_queue, [] { throw 7; });
    Push(m_queue, [&] { EXPECT_THROW(m_queue.Drain(), std::system_error); });
    PushCounted(m_queue);
    m_queue.Drain();
    EXPECT_EQ(m_errors, 1);
    EXPECT_EQ(m_calls, 1);
}

TEST_F(DispatchQueueTest, StopLeavesWhatHasNotStartedToTheOneWhoDrains) {
    DispatchQueue queue;
    Start(queue);
    std::latch mayEnd{1};
    Block(queue, 2, mayEnd);
    PushCounted(queue);
    {
        const std::jthread stopper([&] { queue.Stop(); });
        std::this_thread::sleep_for(20ms);
        mayEnd.count_down();
    }
    for (const int turn : {3, 4}) { // Stop drops the pool function
        EXPECT_THROW(Push(queue, [&, turn] { EXPECT_EQ(m_calls++, turn); }), CoreException);
    }
    ExpectCounts(queue, 0, 3);
    queue.Drain();
    EXPECT_EQ(m_calls, 5);
    EXPECT_THROW(PushCounted(queue), CoreException); // dropped at the queue's end
    EXPECT_THROW(m_queue.Push({}, [](auto&) {}), CoreException);
    ExpectCounts(m_queue, 0, 0); // tasks need an object
}

} // namespace
