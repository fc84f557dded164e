#include <ZuCore/Thread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include <ZuCore/ConditionVariableHelper.h>
#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/Logger.h>

#include "ConcurrencyTestSupport.h"
#include "ZuTestSupport.h"

using Varkel::Zu::ConditionVariableHelper;
using Varkel::Zu::Thread;
using Varkel::Zu::ThreadEnum;
using ZuTest::Clock;

namespace {

struct SemaphoreGuard {
    SemaphoreGuard() : handle(ConditionVariableHelper::createAnonymousSemaphore(0, 100)) {}
    ~SemaphoreGuard() { ConditionVariableHelper::deleteHandle(&handle); }
    ConditionVariableHelper::Handle handle;
};

}  // namespace

TEST(ThreadTest, CreateRunsTheFunctionAndJoinWaitsForIt) {
    std::atomic<bool> ran{false};
    auto thread = Thread::create(L"runner", [&] { ran = true; });
    EXPECT_TRUE(thread->isStarted());
    thread->join();
    EXPECT_TRUE(ran.load());
}

TEST(ThreadTest, CurrentIdInsideTheThreadIsItsId) {
    std::promise<std::thread::id> inside;
    auto thread = Thread::create(L"ids", [&] { inside.set_value(Thread::getCurrentID()); });
    const std::thread::id seen = inside.get_future().get();
    thread->join();
    EXPECT_EQ(seen, thread->getID());
    EXPECT_NE(seen, Thread::getCurrentID());
}

TEST(ThreadTest, NameAndPriorityAreKeptAndTheSystemNameIsShortened) {
    std::promise<std::string> systemName;
    auto thread = Thread::create(
        L"worker-with-a-long-name",
        [&] {
            char buffer[32] = {};
            pthread_getname_np(pthread_self(), buffer, sizeof buffer);
            systemName.set_value(buffer);
        },
        ThreadEnum::Priority::AboveNormal);
    const std::string name = systemName.get_future().get();
    thread->join();
    EXPECT_EQ(thread->getName(), L"worker-with-a-long-name");
    EXPECT_EQ(thread->getPriority(), ThreadEnum::Priority::AboveNormal);
    EXPECT_EQ(name, "worker-with-a-l");
    thread->setName(L"renamed");
    EXPECT_EQ(thread->getName(), L"renamed");
}

TEST(ThreadTest, JoinIsIdempotentAndMayBeCalledConcurrently) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> finished{false};
    auto thread = Thread::create(L"joined", [released, &finished] {
        released.wait();
        finished = true;
    });
    // Every joiner returns only once the function has ended, and none of them throws.
    std::atomic<int> sawItFinished{0};
    std::atomic<int> threw{0};
    std::atomic<int> joining{0};
    std::vector<std::thread> joiners;
    for (int i = 0; i < 3; ++i) {
        joiners.emplace_back([&] {
            try {
                ++joining;
                thread->join();
                if (finished) {
                    ++sawItFinished;
                }
            } catch (...) {
                ++threw;
            }
        });
    }
    // Released once every joiner is on its way into join(), so that they overlap.
    EXPECT_TRUE(ZuTest::eventually([&] { return joining.load() == 3; }));
    release.set_value();
    for (auto& joiner : joiners) {
        joiner.join();
    }
    EXPECT_NO_THROW(thread->join());
    EXPECT_EQ(threw.load(), 0);
    EXPECT_EQ(sawItFinished.load(), 3);
}

TEST(ThreadTest, JoiningItselfThrowsIllegalState) {
    // A plain pointer: a shared one captured by the function would keep the thread alive.
    std::promise<Thread*> self;
    std::shared_future<Thread*> selfFuture = self.get_future().share();
    std::atomic<bool> threw{false};
    auto thread = Thread::create(L"self-joiner", [&, selfFuture] {
        try {
            selfFuture.get()->join();
        } catch (const Varkel::Zu::IllegalStateException&) {
            threw = true;
        }
    });
    self.set_value(thread.get());
    thread->join();
    EXPECT_TRUE(threw.load());
}

TEST(ThreadTest, StartingTwiceThrowsIllegalState) {
    auto thread = Thread::create(L"twice", [] {});
    EXPECT_THROW(thread->start(), Varkel::Zu::IllegalStateException);
    thread->join();
}

TEST(ThreadTest, EmptyFunctionIsRejected) {
    EXPECT_THROW(Thread::create(L"empty", std::function<void()>()),
                 Varkel::Zu::InvalidArgumentException);
}

TEST(ThreadTest, EscapingExceptionIsLoggedAndSwallowed) {
    ZuTest::LoggingConfigGuard config;
    ZuTest::RecordCollector collector;
    auto thread = Thread::create(L"thrower", [] { throw std::runtime_error("boom"); });
    thread->join();
    const auto records = collector.recordsOf("ZuCore.Thread");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, "error");
    EXPECT_NE(records[0].message.find(L"thrower"), std::wstring::npos);
    EXPECT_NE(records[0].message.find(L"boom"), std::wstring::npos);
}

TEST(ThreadTest, DestructorJoinsARunningThread) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> finished{false};
    auto thread = Thread::create(L"joined-by-dtor", [released, &finished] {
        released.wait();
        finished = true;
    });
    release.set_value();
    thread.reset();
    EXPECT_TRUE(finished.load());
}

TEST(ThreadTest, InterruptBeforeTheWaitEndsTheNextWait) {
    SemaphoreGuard semaphore;
    std::promise<void> interrupted;
    std::shared_future<void> interruptedFuture = interrupted.get_future().share();
    std::atomic<int> result{-1};
    std::atomic<long long> waitedMs{-1};
    auto thread = Thread::create(L"pre-interrupted", [&, interruptedFuture] {
        interruptedFuture.wait();
        const auto start = Clock::now();
        result = ConditionVariableHelper::interruptibleWait(semaphore.handle,
                                                            Clock::now() + std::chrono::seconds(30))
                     ? 1
                     : 0;
        waitedMs = ZuTest::elapsedMs(start);
    });
    thread->interrupt();
    EXPECT_TRUE(thread->isInterruptRequested());
    interrupted.set_value();
    thread->join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_LT(waitedMs.load(), 5000);
    EXPECT_FALSE(thread->isInterruptRequested());
}

TEST(ThreadTest, InterruptEndsAWaitInProgress) {
    SemaphoreGuard semaphore;
    std::promise<void> waiting;
    std::atomic<int> result{-1};
    auto thread = Thread::create(L"interrupted", [&] {
        waiting.set_value();
        result = ConditionVariableHelper::interruptibleWait(semaphore.handle,
                                                            Clock::now() + std::chrono::seconds(30))
                     ? 1
                     : 0;
    });
    waiting.get_future().wait();
    const auto start = Clock::now();
    thread->interrupt();
    thread->join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);
}

TEST(ThreadTest, InterruptIsConsumedByTheWaitThatReportsIt) {
    SemaphoreGuard semaphore;
    ConditionVariableHelper::releaseSemaphore(semaphore.handle, 1);
    std::promise<void> interrupted;
    std::shared_future<void> interruptedFuture = interrupted.get_future().share();
    std::atomic<int> first{-1};
    std::atomic<int> second{-1};
    auto thread = Thread::create(L"not-sticky", [&, interruptedFuture] {
        interruptedFuture.wait();
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        // The pending interrupt wins over the available token...
        first = ConditionVariableHelper::interruptibleWait(semaphore.handle, deadline) ? 1 : 0;
        // ...and, consumed, no longer stops the next wait, which takes the token.
        second = ConditionVariableHelper::interruptibleWait(semaphore.handle, deadline) ? 1 : 0;
    });
    thread->interrupt();
    interrupted.set_value();
    thread->join();
    EXPECT_EQ(first.load(), 0);
    EXPECT_EQ(second.load(), 1);
}

TEST(ThreadTest, RenamingARunningThreadRenamesItInTheSystem) {
    std::promise<void> renamed;
    std::shared_future<void> renamedFuture = renamed.get_future().share();
    std::promise<std::string> systemName;
    auto thread = Thread::create(L"first", [&, renamedFuture] {
        renamedFuture.wait();
        char buffer[32] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        systemName.set_value(buffer);
    });
    thread->setName(L"second");
    renamed.set_value();
    EXPECT_EQ(systemName.get_future().get(), "second");
    thread->join();
}
