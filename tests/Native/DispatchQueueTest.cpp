// The pool of background threads. Plain C++: built for Windows, and for the building machine under
// sanitizers, so the cases are written to interleave as much as to check.

#include <atomic>
#include <latch>
#include <memory>
#include <set>
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
using Object = Norvex::IRefCountable;
using Work = std::function<void()>;

constexpr auto kPatience = 20s; // for what must come; far below the idle time of 30 s

struct Probe : Norvex::RefCountImpl {
    Probe(std::shared_ptr<int> held, Work work)
        : token(std::move(held)),
          onDestroy(std::move(work)) {}
    ~Probe() override { onDestroy(); }

    std::shared_ptr<int> token;
    Work onDestroy;
};

void Start(DispatchQueue& queue) {
    queue.SetPoolFunction([&queue] { queue.RunTasks(); });
}

void ExpectSoon(const std::function<bool()>& holds, const char* what) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!holds() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(holds()) << what;
}

class DispatchQueueTest : public testing::Test {
protected:
    DispatchQueueTest() { Start(m_queue); }
    ~DispatchQueueTest() override { EXPECT_EQ(CountObjects(), 0); }

    long CountObjects() const { return m_token.use_count() - 1; }
    DispatchQueue::Object MakeObject(Work onDestroy = [] {}) {
        return DispatchQueue::Object(new Probe(m_token, std::move(onDestroy)));
    }
    void Push(DispatchQueue& queue, Work work) {
        queue.Push(MakeObject(), [task = std::move(work)](Object&) { task(); });
    }
    void Push(Work work) { Push(m_queue, std::move(work)); }
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

    // A thread counts as idle until it has woken, so an empty queue belongs to it.
    void ExpectOneIdle() {
        const auto isIdle = [&] {
            const DispatchQueue::Counts counts = m_queue.GetCounts();
            return counts.idle == 1 && counts.queued == 0;
        };
        ExpectSoon(isIdle, "the thread waits for work");
    }
    static void ExpectCounts(const DispatchQueue& queue, unsigned threads, unsigned queued) {
        EXPECT_EQ(queue.GetCounts().threads, threads);
        EXPECT_EQ(queue.GetCounts().queued, queued);
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
    const std::function<void(int)> spread = [&](int depth) { // 63 tasks, of which some push two
        ++m_calls;
        for (int child = 0; child < 2 && depth > 0; ++child) {
            Push([&, depth] { spread(depth - 1); });
        }
    };
    for (int round = 1; round <= 3; ++round) {
        RunThreads(4, [&](unsigned) {
            for (int task = 0; task < 10; ++task) {
                Push([&] { spread(5); });
            }
        });
        m_queue.Drain();
        EXPECT_EQ(m_calls, round * 40 * 63);
        EXPECT_EQ(CountObjects(), 0);
        ExpectCounts(m_queue, 0, 0);
    }
}

TEST_F(DispatchQueueTest, TaskReceivesItsObjectAndReleasesItOutsideTheMutex) {
    auto object = MakeObject([&] { // a release under the mutex would never return
        m_calls += m_queue.GetCounts().threads > 0 ? 1 : 0;
    });
    const Object* const expected = object.get();
    m_queue.Push(std::move(object), [&](Object& given) { EXPECT_EQ(&given, expected); });
    m_queue.Drain();
    EXPECT_EQ(m_calls, 1);
}

TEST_F(DispatchQueueTest, ThreadsStartOnlyWhenNoneIsFreeAndNeverMoreThanTwo) {
    // Many rounds, for the moment after the first push when the idle thread has not woken yet.
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        for (int task = 0; task < 2; ++task) {
            PushCounted(m_queue);
            ExpectOneIdle();
            EXPECT_EQ(m_queue.GetCounts().threads, 1U) << "a free thread takes the task";
        }
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
    for (int round = 1; round <= 3; ++round) {
        ExpectSoon([&] { return queue.GetCounts().threads == 0; }, "idle threads end");
        PushCounted(queue);
        ExpectSoon([&] { return m_calls == 600 + round; }, "a new one starts");
    }
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
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience);
    EXPECT_EQ(m_calls, 2);
    EXPECT_EQ(m_queue.GetCounts().threads, 0U);
}

TEST_F(DispatchQueueTest, StopLeavesWhatHasNotStarted) {
    {
        DispatchQueue queue;
        Start(queue);
        std::latch mayEnd{1};
        Block(queue, 2, mayEnd);
        PushCounted(queue);
        std::jthread stopper([&] { queue.Stop(); });
        std::this_thread::sleep_for(20ms);
        mayEnd.count_down();
        stopper.join();
        ExpectCounts(queue, 0, 1);
        EXPECT_THROW(PushCounted(queue), CoreException) << "Stop drops the pool function";
    }
    EXPECT_EQ(m_calls, 2);
    EXPECT_EQ(CountObjects(), 0) << "the queue's end releases the objects";
}

TEST_F(DispatchQueueTest, WhatTasksThrowIsReportedAndTheThreadGoesOn) {
    std::set<std::thread::id> threads;
    for (const Work& work : {Work([] { throw std::runtime_error("spill"); }), Work([] { throw 7; }),
                             Work([&] { EXPECT_THROW(m_queue.Drain(), std::system_error); }),
                             Work([&] { EXPECT_THROW(m_queue.Stop(), std::system_error); })}) {
        Push([&, work] {
            threads.insert(std::this_thread::get_id());
            work(); // threads of the pool cannot wait for the pool
        });
        ExpectOneIdle();
    }
    m_queue.Drain();
    EXPECT_EQ(m_errors, 2);
    EXPECT_EQ(threads.size(), 1U);
}

TEST_F(DispatchQueueTest, PushWithoutPoolFunctionThrowsAndTheTaskWaits) {
    EXPECT_THROW(m_queue.Push({}, [](Object&) {}), CoreException);
    EXPECT_THROW(m_queue.Push(MakeObject(), {}), CoreException);
    ExpectCounts(m_queue, 0, 0); // tasks need an object and a function
    DispatchQueue queue;
    for (const int turn : {0, 1, 2}) {
        EXPECT_THROW(Push(queue, [&, turn] { EXPECT_EQ(m_calls++, turn); }), CoreException);
    }
    ExpectCounts(queue, 0, 3);
    queue.Drain();
    EXPECT_EQ(m_calls, 3) << "the one who drains runs what has no thread";
    Start(queue);
    PushCounted(queue);
    queue.Drain();
    EXPECT_EQ(m_calls, 4);
}

} // namespace
