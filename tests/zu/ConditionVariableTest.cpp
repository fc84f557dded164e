#include <ZuCore/ConditionVariable.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ZuCore/Thread.h>

#include "ConcurrencyTestSupport.h"

using Varkel::Zu::ConditionVariable;
using Varkel::Zu::Thread;
using ZuTest::Clock;

namespace {

constexpr auto kLongWait = std::chrono::seconds(30);

// One waiting thread and what its wait returned.
struct Waiter {
    std::atomic<int> result{-1};  // -1 while waiting, then 1 (notified) or 0
    std::thread thread;

    void start(ConditionVariable& condition, std::mutex& mutex, Clock::duration timeout) {
        thread = std::thread([this, &condition, &mutex, timeout] {
            std::unique_lock<std::mutex> lock(mutex);
            const bool notified = condition.waitUntil(lock, Clock::now() + timeout);
            EXPECT_TRUE(lock.owns_lock());
            result = notified ? 1 : 0;
        });
    }
};

}  // namespace

TEST(ConditionVariableTest, NotifyWithoutWaitersDoesNothingAndCreatesNothing) {
    ConditionVariable condition;
    condition.notifyAll();
    condition.interruptAll();
    EXPECT_FALSE(condition.hasWakeSemaphore());
    EXPECT_EQ(condition.getWaiterCount(), 0u);
}

TEST(ConditionVariableTest, PastDeadlineReturnsFalseAndLeavesNoTokenForLaterWaiters) {
    ConditionVariable condition;
    std::mutex mutex;
    std::unique_lock<std::mutex> lock(mutex);
    const auto start = Clock::now();
    EXPECT_FALSE(condition.waitUntil(lock, Clock::now() - std::chrono::seconds(1)));
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_LT(ZuTest::elapsedMs(start), 1000);
    // The expired waiter still counts for the next notify, whose tokens must not reach a
    // waiter that registers after it.
    condition.notifyAll();
    EXPECT_FALSE(condition.waitUntil(lock, Clock::now() + std::chrono::milliseconds(100)));
    EXPECT_FALSE(condition.waitUntil(lock, Clock::now() + std::chrono::milliseconds(50)));
}

TEST(ConditionVariableTest, ExpiredWaiterSharingAGenerationLeavesNothingForTheNextOne) {
    ConditionVariable condition;
    std::mutex mutex;
    Waiter live;
    live.start(condition, mutex, kLongWait);
    ASSERT_TRUE(ZuTest::eventually([&] { return condition.getWaiterCount() == 1; }));
    {
        // Joins the live waiter's generation and gives up at once.
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_FALSE(condition.waitUntil(lock, Clock::now() - std::chrono::seconds(1)));
        EXPECT_EQ(condition.getWaiterCount(), 2u);
        condition.notifyAll();
    }
    live.thread.join();
    EXPECT_EQ(live.result.load(), 1);
    // The notify counted the expired waiter too; its unused tokens must not wake anyone of a
    // later generation.
    Waiter later;
    later.start(condition, mutex, std::chrono::milliseconds(200));
    later.thread.join();
    EXPECT_EQ(later.result.load(), 0);
}

TEST(ConditionVariableTest, NotifyWakesTheWaitersRegisteredBeforeItOnly) {
    ConditionVariable condition;
    std::mutex mutex;
    Waiter first;
    Waiter second;
    first.start(condition, mutex, kLongWait);
    second.start(condition, mutex, kLongWait);
    ASSERT_TRUE(ZuTest::eventually([&] { return condition.getWaiterCount() == 2; }));
    const auto start = Clock::now();
    {
        std::lock_guard<std::mutex> guard(mutex);
        condition.notifyAll();
    }
    Waiter third;
    third.start(condition, mutex, std::chrono::milliseconds(300));
    first.thread.join();
    second.thread.join();
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);
    third.thread.join();
    EXPECT_EQ(first.result.load(), 1);
    EXPECT_EQ(second.result.load(), 1);
    EXPECT_EQ(third.result.load(), 0);  // it kept waiting until its deadline
}

TEST(ConditionVariableTest, WaitersOfOneGenerationShareAnEntryAndNotifyReleasesTheirTokens) {
    using Varkel::Zu::ConditionVariableHelper;
    ConditionVariable condition;
    const auto first = condition.getWaitEntry();
    const auto second = condition.getWaitEntry();
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->count.load(), 2u);
    EXPECT_FALSE(first->signalled);
    EXPECT_TRUE(condition.hasWakeSemaphore());
    EXPECT_EQ(condition.getWaiterCount(), 2u);
    const auto wake = first->wakeSemaphore;
    ASSERT_TRUE(wake && *wake);

    condition.notifyAll();
    EXPECT_TRUE(first->signalled);
    EXPECT_FALSE(condition.hasWakeSemaphore());
    EXPECT_EQ(condition.getWaiterCount(), 0u);
    // One token per registered waiter on the generation's semaphore and on the wake one.
    for (auto handle : {first->semaphore.get(), wake->get()}) {
        EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(handle, 0),
                  ConditionVariableHelper::WaitObject0);
        EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(handle, 0),
                  ConditionVariableHelper::WaitObject0);
        EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(handle, 0),
                  ConditionVariableHelper::WaitTimeout);
    }

    // The next registration starts a new generation with a fresh wake semaphore.
    const auto third = condition.getWaitEntry();
    EXPECT_NE(third, first);
    EXPECT_EQ(third->count.load(), 1u);
    EXPECT_NE(third->wakeSemaphore, wake);
    condition.notifyAll();
}

TEST(ConditionVariableTest, SemaphoresStartEmptyWithTheLargestMaximum) {
    using Varkel::Zu::ConditionVariableHelper;
    ConditionVariable::HandleManager semaphore;
    ASSERT_TRUE(semaphore);
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.get(), 0),
              ConditionVariableHelper::WaitTimeout);
    EXPECT_TRUE(ConditionVariableHelper::releaseSemaphore(semaphore.get(), 0x7fffffffu));
    EXPECT_FALSE(ConditionVariableHelper::releaseSemaphore(semaphore.get(), 1));
}

TEST(ConditionVariableTest, InterruptedCoreThreadReturnsFalse) {
    ConditionVariable condition;
    std::mutex mutex;
    std::atomic<int> result{-1};
    auto thread = Thread::create(L"cv waiter", [&] {
        std::unique_lock<std::mutex> lock(mutex);
        result = condition.waitUntil(lock, Clock::now() + kLongWait) ? 1 : 0;
    });
    ASSERT_TRUE(ZuTest::eventually([&] { return condition.getWaiterCount() == 1; }));
    const auto start = Clock::now();
    thread->interrupt();
    thread->join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);
}

TEST(ConditionVariableTest, InterruptAllEndsEveryRegisteredWaitWithFalse) {
    ConditionVariable condition;
    std::mutex mutex;
    std::vector<std::unique_ptr<Waiter>> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(std::make_unique<Waiter>());
        waiters.back()->start(condition, mutex, kLongWait);
    }
    ASSERT_TRUE(ZuTest::eventually([&] { return condition.getWaiterCount() == 3; }));
    const auto start = Clock::now();
    {
        std::lock_guard<std::mutex> guard(mutex);
        condition.interruptAll();
    }
    for (auto& waiter : waiters) {
        waiter->thread.join();
        EXPECT_EQ(waiter->result.load(), 0);
    }
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);

    // Later waiters are not affected and are notified normally.
    Waiter later;
    later.start(condition, mutex, kLongWait);
    ASSERT_TRUE(ZuTest::eventually([&] { return condition.getWaiterCount() == 1; }));
    {
        std::lock_guard<std::mutex> guard(mutex);
        condition.notifyAll();
    }
    later.thread.join();
    EXPECT_EQ(later.result.load(), 1);
}

TEST(ConditionVariableTest, WaitWithoutOwningTheLockThrowsSystemError) {
    ConditionVariable condition;
    std::mutex mutex;
    std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
    // The same error as std::unique_lock raises for it.
    std::string standardText;
    try {
        std::unique_lock<std::mutex> unowned(mutex, std::defer_lock);
        unowned.unlock();
    } catch (const std::system_error& error) {
        standardText = error.what();
    }
    ASSERT_FALSE(standardText.empty());
    try {
        condition.waitUntil(lock, Clock::now() + std::chrono::seconds(1));
        ADD_FAILURE() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::make_error_code(std::errc::operation_not_permitted));
        EXPECT_EQ(std::string(error.what()), standardText);
    }
    EXPECT_FALSE(lock.owns_lock());
}

TEST(ConditionVariableTest, WaitWithoutDeadlineEndsOnNotify) {
    ConditionVariable condition;
    std::mutex mutex;
    bool ready = false;
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(mutex);
        result = condition.waitUntil(lock, Clock::time_point::max(), [&] { return ready; });
    });
    {
        std::lock_guard<std::mutex> guard(mutex);
        ready = true;
        condition.notifyAll();
    }
    waiter.join();
    EXPECT_EQ(result.load(), 1);
}

TEST(ConditionVariableTest, PredicateWaitReturnsFalseOnDeadlineWhenNeverReady) {
    ConditionVariable condition;
    std::mutex mutex;
    std::unique_lock<std::mutex> lock(mutex);
    const auto start = Clock::now();
    EXPECT_FALSE(condition.waitUntil(lock, Clock::now() + std::chrono::milliseconds(50),
                                     [] { return false; }));
    EXPECT_GE(ZuTest::elapsedMs(start), 50);
    EXPECT_TRUE(lock.owns_lock());
}

// Rounds of notify: every waiter must see every round's change, each wait ending promptly
// after its notify; core threads are also interrupted at random and simply wait again.
TEST(ConditionVariableTest, StressNoWaiterSleepsPastANotify) {
    ConditionVariable condition;
    std::mutex mutex;
    int generation = 0;  // guarded by mutex
    int acknowledged = 0;
    constexpr int kWaiters = 6;
    constexpr int kRounds = 150;
    std::atomic<long long> slowestMs{0};
    std::vector<std::shared_ptr<Thread>> threads;
    for (int w = 0; w < kWaiters; ++w) {
        threads.push_back(Thread::create(L"cv stress", [&] {
            std::unique_lock<std::mutex> lock(mutex);
            const auto giveUp = Clock::now() + std::chrono::seconds(30);
            for (int seen = 0; seen < kRounds && Clock::now() < giveUp;) {
                const auto start = Clock::now();
                const int target = seen + 1;
                if (condition.waitUntil(lock, Clock::now() + std::chrono::seconds(20),
                                        [&] { return generation >= target; })) {
                    seen = target;
                    ++acknowledged;
                    condition.notifyAll();
                }
                const long long waited = ZuTest::elapsedMs(start);
                if (waited > slowestMs.load()) {
                    slowestMs = waited;
                }
            }
        }));
    }
    std::atomic<bool> interrupting{true};
    std::thread interrupter([&] {
        for (int i = 0; interrupting.load() && i < 100000; ++i) {
            threads[i % kWaiters]->interrupt();
            std::this_thread::yield();
        }
    });
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (int round = 1; round <= kRounds; ++round) {
            generation = round;
            condition.notifyAll();
            // On failure the waiters still end: each gives up after its own deadline.
            const bool allSeen =
                condition.waitUntil(lock, Clock::now() + std::chrono::seconds(20),
                                    [&] { return acknowledged == round * kWaiters; });
            EXPECT_TRUE(allSeen) << "round " << round;
            if (!allSeen) {
                break;
            }
        }
    }
    interrupting = false;
    interrupter.join();
    for (auto& thread : threads) {
        thread->join();
    }
    EXPECT_LT(slowestMs.load(), 5000);
}
