#include <ZuCore/ConditionVariableHelper.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include <ZuCore/Constants.h>
#include <ZuCore/InvalidArgumentException.h>

#include "ConcurrencyTestSupport.h"

using Varkel::Zu::ConditionVariableHelper;
using ZuTest::Clock;

namespace {

// Closes the handle at the end of a test.
struct SemaphoreGuard {
    SemaphoreGuard(int initial, int maximum)
        : handle(ConditionVariableHelper::createAnonymousSemaphore(initial, maximum)) {}
    ~SemaphoreGuard() { ConditionVariableHelper::deleteHandle(&handle); }
    ConditionVariableHelper::Handle handle;
};

}  // namespace

TEST(ConditionVariableHelperTest, InitialCountGivesThatManyTokens) {
    SemaphoreGuard semaphore(2, 5);
    ASSERT_NE(semaphore.handle, nullptr);
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 0),
              ConditionVariableHelper::WaitObject0);
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 0),
              ConditionVariableHelper::WaitObject0);
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 0),
              ConditionVariableHelper::WaitTimeout);
}

TEST(ConditionVariableHelperTest, ReleaseRaisesCountUpToMaximumOnly) {
    SemaphoreGuard semaphore(0, 2);
    EXPECT_TRUE(ConditionVariableHelper::releaseSemaphore(semaphore.handle, 2));
    EXPECT_FALSE(ConditionVariableHelper::releaseSemaphore(semaphore.handle, 1));
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 0), 0u);
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 0), 0u);
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 0),
              ConditionVariableHelper::WaitTimeout);
}

TEST(ConditionVariableHelperTest, InvalidCountsThrow) {
    EXPECT_THROW(ConditionVariableHelper::createAnonymousSemaphore(-1, 5),
                 Varkel::Zu::InvalidArgumentException);
    EXPECT_THROW(ConditionVariableHelper::createAnonymousSemaphore(3, 2),
                 Varkel::Zu::InvalidArgumentException);
    EXPECT_THROW(ConditionVariableHelper::createAnonymousSemaphore(0, 0),
                 Varkel::Zu::InvalidArgumentException);
}

TEST(ConditionVariableHelperTest, TimedWaitTimesOutAfterItsDelay) {
    SemaphoreGuard semaphore(0, 1);
    const auto start = Clock::now();
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 50),
              ConditionVariableHelper::WaitTimeout);
    EXPECT_GE(ZuTest::elapsedMs(start), 50);
}

TEST(ConditionVariableHelperTest, InfiniteWaitEndsOnRelease) {
    SemaphoreGuard semaphore(0, 1);
    std::atomic<unsigned int> result{99};
    std::thread waiter([&] {
        result =
            ConditionVariableHelper::waitForSingleObject(semaphore.handle, ZU_TIMEOUT_INFINITE);
    });
    EXPECT_TRUE(ConditionVariableHelper::releaseSemaphore(semaphore.handle, 1));
    waiter.join();
    EXPECT_EQ(result.load(), ConditionVariableHelper::WaitObject0);
}

TEST(ConditionVariableHelperTest, InterruptibleWaitWithPastDeadlineReturnsFalseAtOnce) {
    SemaphoreGuard semaphore(0, 1);
    const auto start = Clock::now();
    EXPECT_FALSE(ConditionVariableHelper::interruptibleWait(
        semaphore.handle, Clock::now() - std::chrono::seconds(1)));
    EXPECT_LT(ZuTest::elapsedMs(start), 1000);
}

TEST(ConditionVariableHelperTest, InterruptibleWaitTakesAvailableToken) {
    SemaphoreGuard semaphore(1, 1);
    EXPECT_TRUE(ConditionVariableHelper::interruptibleWait(semaphore.handle,
                                                           Clock::now() - std::chrono::seconds(1)));
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(semaphore.handle, 0),
              ConditionVariableHelper::WaitTimeout);
}

TEST(ConditionVariableHelperTest, InterruptibleWaitWakesOnReleaseFromAnotherThread) {
    SemaphoreGuard semaphore(0, 1);
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        result = ConditionVariableHelper::interruptibleWait(semaphore.handle,
                                                            Clock::now() + std::chrono::seconds(30))
                     ? 1
                     : 0;
    });
    const auto start = Clock::now();
    ConditionVariableHelper::releaseSemaphore(semaphore.handle, 1);
    waiter.join();
    EXPECT_EQ(result.load(), 1);
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);
}

TEST(ConditionVariableHelperTest, DeleteHandleClearsItAndToleratesNull) {
    ConditionVariableHelper::Handle handle =
        ConditionVariableHelper::createAnonymousSemaphore(0, 1);
    ConditionVariableHelper::deleteHandle(&handle);
    EXPECT_EQ(handle, nullptr);
    ConditionVariableHelper::deleteHandle(&handle);
    ConditionVariableHelper::deleteHandle(nullptr);
    EXPECT_EQ(handle, nullptr);
}

TEST(ConditionVariableHelperTest, NullHandleFailsEveryOperation) {
    EXPECT_FALSE(ConditionVariableHelper::releaseSemaphore(nullptr, 1));
    EXPECT_EQ(ConditionVariableHelper::waitForSingleObject(nullptr, 0),
              ConditionVariableHelper::WaitFailed);
    EXPECT_FALSE(ConditionVariableHelper::interruptibleWait(nullptr, Clock::now()));
}
