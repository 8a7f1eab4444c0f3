// The pool of background threads. Plain C++: built for Windows, and for the building machine under
// sanitizers, so the cases are written to interleave as much as to check.

#include <atomic>
#include <future>
#include <latch>
#include <set>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "Core/Threading/DispatchQueue.h"
#include "Host/CoreException.h"

namespace {

using namespace std::chrono_literals;
using Norvex::Core::CoreException;
using Norvex::Core::DispatchQueue;

constexpr auto kPatience = 20s; // for what must come; far below the idle time of 30 s

class Probe : public Norvex::RefCountImpl {
public:
    Probe(std::atomic<int>& alive, std::function<void()> onDestroy)
        : m_alive(alive),
          m_onDestroy(onDestroy) {
        ++m_alive;
    }
    ~Probe() override {
        if (m_onDestroy) {
            m_onDestroy();
        }
        --m_alive;
    }

private:
    std::atomic<int>& m_alive;
    std::function<void()> m_onDestroy;
};

class DispatchQueueTest : public testing::Test {
protected:
    DispatchQueueTest() { Start(m_queue); }
    ~DispatchQueueTest() override { EXPECT_EQ(m_alive, 0); }

    static void Start(DispatchQueue& queue) {
        queue.SetPoolFunction([&queue] { queue.RunTasks(); });
    }
    DispatchQueue::Object MakeObject(std::function<void()> onDestroy = {}) {
        return DispatchQueue::Object(new Probe(m_alive, std::move(onDestroy)));
    }
    void Push(DispatchQueue& queue, std::function<void()> work) {
        queue.Push(MakeObject(), [task = std::move(work)](Norvex::IRefCountable&) { task(); });
    }
    static void ExpectSoon(const std::function<bool()>& holds, const char* what) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!holds() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_TRUE(holds()) << what;
    }

    // A thread counts as idle until it has woken, so an empty queue belongs to it.
    void ExpectOneIdle() {
        const auto isIdle = [&] {
            const DispatchQueue::Counts counts = m_queue.GetCounts();
            return counts.idle == 1 && counts.queued == 0;
        };
        ExpectSoon(isIdle, "the thread waits for work");
    }

    std::atomic<int> m_alive{0};
    std::vector<std::string>
        m_errors; // written by one pool thread at a time in the cases that use it
    DispatchQueue m_queue{[this](const std::exception_ptr& error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& exception) {
            m_errors.emplace_back(exception.what());
        } catch (...) {
            m_errors.emplace_back("unknown");
        }
        throw std::runtime_error("the handler itself fails");
    }};
};

TEST_F(DispatchQueueTest, DrainReturnsWhenEveryTaskHasRunAndEveryThreadHasEnded) {
    std::atomic<int> calls{0};
    for (int round = 0; round < 3; ++round) {
        std::vector<std::jthread> pushers;
        for (int pusher = 0; pusher < 4; ++pusher) {
            pushers.emplace_back([&] {
                for (int task = 0; task < 250; ++task) {
                    Push(m_queue, [&] { ++calls; });
                }
            });
        }
        pushers.clear();
        m_queue.Drain();
        EXPECT_EQ(calls, (round + 1) * 1000);
        EXPECT_EQ(m_alive, 0);
        EXPECT_EQ(m_queue.GetCounts().threads, 0U);
        EXPECT_EQ(m_queue.GetCounts().queued, 0U);
    }
}

TEST_F(DispatchQueueTest, TaskReceivesItsObjectAndReleasesItOutsideTheMutex) {
    const auto mainThread = std::this_thread::get_id();
    std::atomic<bool> isReleasedByPool{false};
    auto object = MakeObject([&] {
        m_queue.GetCounts(); // takes the mutex: a release under it would never return
        isReleasedByPool = std::this_thread::get_id() != mainThread;
    });
    const Norvex::IRefCountable* const expected = object.get();
    std::promise<const Norvex::IRefCountable*> received;
    std::latch mayEnd{1};
    m_queue.Push(std::move(object), [&](Norvex::IRefCountable& given) {
        received.set_value(&given);
        mayEnd.wait();
    });
    EXPECT_EQ(received.get_future().get(), expected);
    EXPECT_EQ(m_alive, 1);
    mayEnd.count_down();
    m_queue.Drain();
    EXPECT_TRUE(isReleasedByPool);
}

TEST_F(DispatchQueueTest, ThreadsStartOnlyWhenNoneIsFreeAndNeverMoreThanTwo) {
    // Many rounds, for the moment after the first push when the idle thread has not woken yet.
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        std::latch mayEnd{1};
        const auto block = [&](Norvex::IRefCountable&) { mayEnd.wait(); };
        const DispatchQueue::Object object = MakeObject();

        Push(m_queue, [] {});
        ExpectOneIdle();
        Push(m_queue, [] {});
        ExpectOneIdle();
        EXPECT_EQ(m_queue.GetCounts().threads, 1U) << "a free thread takes the task";

        m_queue.Push(object, block);
        m_queue.Push(object, block);
        EXPECT_EQ(m_queue.GetCounts().threads, 2U) << "one idle thread is not free for two tasks";
        ExpectSoon([&] { return m_queue.GetCounts().queued == 0; }, "both are taken");
        m_queue.Push(object, block);
        EXPECT_EQ(m_queue.GetCounts().threads, 2U) << "both busy";
        EXPECT_EQ(m_queue.GetCounts().queued, 1U);
        mayEnd.count_down();
        m_queue.Drain();
    }
}

TEST_F(DispatchQueueTest, CreateThreadStartsOneAtATimeUpToTheTarget) {
    const unsigned hardware = std::max(1U, std::thread::hardware_concurrency());
    for (unsigned call = 1; call <= hardware + 1; ++call) {
        m_queue.CreateThread(0);
        EXPECT_EQ(m_queue.GetCounts().threads, std::min(call, hardware));
    }
}

TEST_F(DispatchQueueTest, IdleThreadsEndAndTheNextTaskStartsOneAgain) {
    DispatchQueue queue({}, 5ms);
    Start(queue);
    for (int round = 0; round < 3; ++round) {
        std::promise<std::thread::id> ran;
        Push(queue, [&] { ran.set_value(std::this_thread::get_id()); });
        ASSERT_NE(ran.get_future().get(), std::this_thread::get_id());
        ExpectSoon([&] { return queue.GetCounts().threads == 0; }, "idle threads end");
    }
}

TEST_F(DispatchQueueTest, EveryDrainWaitsForTheTasksButNotForTheIdleTime) {
    std::latch started{1};
    std::latch mayEnd{1};
    std::atomic<int> calls{0};
    Push(m_queue, [&] {
        started.count_down();
        mayEnd.wait();
        ++calls;
    });
    started.wait();
    const auto start = std::chrono::steady_clock::now();
    {
        std::vector<std::jthread> drainers;
        for (int drainer = 0; drainer < 3; ++drainer) {
            drainers.emplace_back([&] {
                m_queue.Drain();
                EXPECT_GE(calls, 1) << "one thread ends for all drains, not for the first alone";
            });
        }
        std::this_thread::sleep_for(20ms);
        Push(m_queue, [&] { ++calls; }); // the queue runs again, while the drains still wait
        std::this_thread::sleep_for(5ms);
        mayEnd.count_down();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(m_queue.GetCounts().threads, 0U);
}

TEST_F(DispatchQueueTest, StopLeavesWhatHasNotStarted) {
    std::atomic<int> calls{0};
    {
        DispatchQueue queue;
        Start(queue);
        std::latch started{2};
        std::latch mayEnd{1};
        for (int task = 0; task < 2; ++task) {
            Push(queue, [&] {
                started.count_down();
                mayEnd.wait();
                ++calls;
            });
        }
        started.wait();
        for (int task = 0; task < 5; ++task) {
            Push(queue, [&] { ++calls; });
        }
        std::jthread stopper([&] { queue.Stop(); });
        std::this_thread::sleep_for(20ms);
        mayEnd.count_down();
        stopper.join();
        EXPECT_EQ(calls, 2);
        EXPECT_EQ(queue.GetCounts().threads, 0U);
        EXPECT_EQ(queue.GetCounts().queued, 5U);
        EXPECT_THROW(Push(queue, [&] { ++calls; }), CoreException)
            << "Stop drops the pool function";
    }
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(m_alive, 0) << "the queue's end releases the objects";
}

TEST_F(DispatchQueueTest, FailingTasksAreReportedAndTheThreadGoesOn) {
    std::set<std::thread::id> threads;
    const auto fail = [&](const std::function<void()>& doThrow) {
        Push(m_queue, [&, doThrow] {
            threads.insert(std::this_thread::get_id());
            doThrow();
        });
        ExpectOneIdle();
    };
    fail([] { throw std::runtime_error("first"); });
    fail([] { throw 7; });
    fail([] {});
    m_queue.Drain();
    EXPECT_EQ(m_errors, (std::vector<std::string>{"first", "unknown"}));
    EXPECT_EQ(threads.size(), 1U);

    DispatchQueue silent;
    Start(silent);
    Push(silent, [] { throw std::runtime_error("nobody listens"); });
    silent.Drain();
}

TEST_F(DispatchQueueTest, PoolThreadsCannotWaitForThePool) {
    for (void (DispatchQueue::*operation)() : {&DispatchQueue::Drain, &DispatchQueue::Stop}) {
        std::promise<std::error_code> code;
        Push(m_queue, [&] {
            try {
                (m_queue.*operation)();
                code.set_value({});
            } catch (const std::system_error& error) {
                code.set_value(error.code());
            }
        });
        EXPECT_EQ(code.get_future().get(), std::errc::resource_deadlock_would_occur);
    }
    bool isRunning = false;
    Push(m_queue, [&] { isRunning = true; });
    m_queue.Drain();
    EXPECT_TRUE(isRunning);
}

TEST_F(DispatchQueueTest, TasksMayPushTasks) {
    std::atomic<int> calls{0};
    std::function<void(int)> spread = [&](int depth) {
        ++calls;
        for (int child = 0; child < 2 && depth > 0; ++child) {
            Push(m_queue, [&, depth] { spread(depth - 1); });
        }
    };
    Push(m_queue, [&] { spread(9); });
    m_queue.Drain();
    EXPECT_EQ(calls, 1023);
}

TEST_F(DispatchQueueTest, PushWithoutPoolFunctionThrowsAndTheTaskWaits) {
    DispatchQueue queue;
    std::atomic<int> calls{0};
    try {
        Push(queue, [&] { ++calls; });
        ADD_FAILURE() << "no exception";
    } catch (const CoreException& error) {
        const std::string* const sentence = boost::get_error_info<Norvex::ErrorDescription>(error);
        ASSERT_NE(sentence, nullptr);
        EXPECT_EQ(*sentence, "Thread pool function not set");
        const char* const* const function = boost::get_error_info<boost::throw_function>(error);
        ASSERT_NE(function, nullptr);
        EXPECT_STREQ(*function, "CreateThread");
    }
    EXPECT_EQ(queue.GetCounts().queued, 1U);
    EXPECT_EQ(queue.GetCounts().threads, 0U);
    queue.Drain();
    EXPECT_EQ(calls, 1) << "the one who drains runs what has no thread";
    EXPECT_THROW(Push(queue, [&] { ++calls; }), CoreException);
    Start(queue);
    Push(queue, [&] { ++calls; });
    queue.Drain();
    EXPECT_EQ(calls, 3);
}

TEST_F(DispatchQueueTest, TasksNeedAnObjectAndAFunction) {
    EXPECT_THROW(m_queue.Push({}, [](Norvex::IRefCountable&) {}), CoreException);
    EXPECT_THROW(m_queue.Push(MakeObject(), {}), CoreException);
    EXPECT_EQ(m_queue.GetCounts().queued, 0U);
}

TEST_F(DispatchQueueTest, ThreadsThatEndWhileTasksArriveLoseNone) {
    DispatchQueue queue({}, 1ms);
    Start(queue);
    std::atomic<int> calls{0};
    std::vector<std::jthread> pushers;
    for (int pusher = 0; pusher < 3; ++pusher) {
        pushers.emplace_back([&, pusher] {
            for (int task = 0; task < 200; ++task) {
                Push(queue, [&] { ++calls; });
                std::this_thread::sleep_for(std::chrono::microseconds(700 + 150 * pusher));
            }
        });
    }
    pushers.clear();
    ExpectSoon([&] { return calls == 600; }, "every task runs without a drain");
}

} // namespace
