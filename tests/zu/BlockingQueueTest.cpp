#include <ZuCore/BlockingQueue.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/Logger.h>
#include <ZuCore/Thread.h>

#include "ConcurrencyTestSupport.h"
#include "ZuTestSupport.h"

using Varkel::Zu::BlockingQueueBase;
using Varkel::Zu::Logger;
using ZuTest::Clock;

namespace {

using Queue = Varkel::Zu::BlockingQueue<int, int, Logger>;
using Lock = std::unique_lock<std::mutex>;

const auto kPast = [] { return Clock::now() - std::chrono::seconds(1); };
const auto kFar = [] { return Clock::now() + std::chrono::seconds(30); };

std::vector<int> contents(Queue& queue) {
    std::vector<int> values;
    Lock lock(queue.getMutex());
    int value = 0;
    while (queue.tryGetObjectNoLock(value, 0, false) == BlockingQueueBase::GetDelivered) {
        values.push_back(value);
    }
    return values;
}

// Captures the queue's records at trace level.
class QueueLogCapture {
  public:
    QueueLogCapture() { Queue::getLogger()->setLevel(Logger::getTraceLevel()); }
    std::vector<ZuTest::CapturedRecord> records() const {
        return collector_.recordsOf(Queue::getLogger()->getName());
    }

  private:
    ZuTest::LoggingConfigGuard config_;
    ZuTest::RecordCollector collector_;
};

// Runs `operation` on another thread and keeps its result.
struct Async {
    std::atomic<int> result{-1};
    std::thread thread;
    template <class Operation>
    explicit Async(Operation operation) : thread([this, operation] { result = operation(); }) {}
    int get() {
        thread.join();
        return result.load();
    }
};

}  // namespace

TEST(BlockingQueueTest, LoggerNameNamesTheElementType) {
    const std::string name = Queue::getLogger()->getName();
    EXPECT_EQ(name.rfind("ZuCore.BlockingQueue<", 0), 0u) << name;
    EXPECT_NE(name.find("int"), std::string::npos) << name;
    EXPECT_EQ(name.back(), '>');
}

TEST(BlockingQueueTest, ZeroCapacityIsRejected) {
    EXPECT_THROW(Queue(0), Varkel::Zu::InvalidArgumentException);
}

TEST(BlockingQueueTest, ElementsComeOutInFifoOrder) {
    Queue queue(10);
    for (int i = 1; i <= 5; ++i) {
        EXPECT_EQ(queue.putObject(i, 0), BlockingQueueBase::PutStored);
    }
    EXPECT_EQ(contents(queue), (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST(BlockingQueueTest, GetWithPastDeadlineOnEmptyQueueTimesOutAtOnceAndLogsAtTrace) {
    QueueLogCapture capture;
    Queue queue(4);
    Lock lock(queue.getMutex());
    int out = 0;
    const auto start = Clock::now();
    EXPECT_EQ(queue.getObjectNoLock(lock, out, kPast(), 0, false), BlockingQueueBase::GetTimedOut);
    EXPECT_LT(ZuTest::elapsedMs(start), 1000);
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, "trace");
    EXPECT_EQ(records[0].message, L"Blocking queue getObject() timed out");
}

TEST(BlockingQueueTest, TimedOutLineIsNotBuiltWhenTraceIsOff) {
    ZuTest::LoggingConfigGuard config;
    ZuTest::RecordCollector collector;
    Queue queue(4);
    int out = 0;
    EXPECT_EQ(queue.getObject(out, 0), BlockingQueueBase::GetTimedOut);
    EXPECT_TRUE(collector.recordsOf(Queue::getLogger()->getName()).empty());
}

TEST(BlockingQueueTest, SettingInterruptedWakesABlockedGetterAndNextEpochClearsIt) {
    Queue queue(4);
    Async getter([&] {
        int out = 0;
        return static_cast<int>(queue.getObject(out, 30000));
    });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    const auto start = Clock::now();
    {
        Lock lock(queue.getMutex());
        queue.setInterrupted(true);
    }
    EXPECT_EQ(getter.get(), BlockingQueueBase::GetInterrupted);
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);

    int out = 0;
    EXPECT_EQ(queue.tryGetObject(out), BlockingQueueBase::GetInterrupted);
    Lock lock(queue.getMutex());
    EXPECT_TRUE(queue.isInterrupted());
    queue.nextEpoch();
    EXPECT_FALSE(queue.isInterrupted());
    EXPECT_EQ(queue.getEpoch(), 1);
    EXPECT_EQ(queue.tryGetObjectNoLock(out, 0, false), BlockingQueueBase::GetEmpty);
}

TEST(BlockingQueueTest, PutWithOlderEpochIsStaleAndEpochZeroIsAccepted) {
    Queue queue(4, 5);
    EXPECT_EQ(queue.putObject(1, 1000, 3), BlockingQueueBase::PutStaleEpoch);
    EXPECT_EQ(queue.tryPutObject(1, 3), BlockingQueueBase::PutStaleEpoch);
    EXPECT_EQ(queue.tryPutObjectDropFront(1, 3), BlockingQueueBase::PutStaleEpoch);
    EXPECT_EQ(queue.putObject(10, 1000, 0), BlockingQueueBase::PutStored);
    EXPECT_EQ(queue.putObject(11, 1000, 5), BlockingQueueBase::PutStored);
    EXPECT_EQ(contents(queue), (std::vector<int>{10, 11}));
}

TEST(BlockingQueueTest, GetWithDifferentEpochIsStale) {
    Queue queue(4, 5);
    queue.putObject(1, 0);
    int out = 0;
    EXPECT_EQ(queue.getObject(out, 0, 4), BlockingQueueBase::GetStaleEpoch);
    EXPECT_EQ(queue.getObject(out, 0, 6), BlockingQueueBase::GetStaleEpoch);
    EXPECT_EQ(queue.tryGetObject(out, 6), BlockingQueueBase::GetStaleEpoch);
    EXPECT_EQ(queue.getObject(out, 0, 5), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(out, 1);
}

TEST(BlockingQueueTest, PutWithNewerEpochWaitsUntilTheQueueReachesIt) {
    Queue queue(4, 1);
    Async putter([&] { return static_cast<int>(queue.putObject(7, 30000, 2)); });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    {
        Lock lock(queue.getMutex());
        EXPECT_TRUE(queue.empty());
        queue.setEpoch(2);
    }
    EXPECT_EQ(putter.get(), BlockingQueueBase::PutStored);
    EXPECT_EQ(contents(queue), (std::vector<int>{7}));
}

TEST(BlockingQueueTest, WaitingPutBecomesStaleWhenTheEpochMovesOn) {
    Queue queue(1, 1);
    queue.putObject(1, 0);
    Async putter([&] { return static_cast<int>(queue.putObject(2, 30000, 1)); });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    {
        Lock lock(queue.getMutex());
        queue.nextEpoch();
    }
    EXPECT_EQ(putter.get(), BlockingQueueBase::PutStaleEpoch);
}

TEST(BlockingQueueTest, DropFrontOnAFullQueueDropsTheOldest) {
    Queue queue(2);
    EXPECT_EQ(queue.tryPutObject(1), BlockingQueueBase::PutStored);
    EXPECT_EQ(queue.tryPutObject(2), BlockingQueueBase::PutStored);
    EXPECT_EQ(queue.tryPutObjectDropFront(3), BlockingQueueBase::PutDroppedFront);
    EXPECT_EQ(contents(queue), (std::vector<int>{2, 3}));
    EXPECT_EQ(queue.tryPutObjectDropFront(4), BlockingQueueBase::PutStored);
}

TEST(BlockingQueueTest, PausedQueueStillLetsPeekAtTheFront) {
    Queue queue(4);
    queue.putObject(1, 0);
    queue.putObject(2, 0);
    Lock lock(queue.getMutex());
    EXPECT_EQ(queue.setPaused(true), BlockingQueueBase::PauseChanged);
    int out = 0;
    EXPECT_EQ(queue.tryGetObjectNoLock(out, 0, true), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(queue.tryGetObjectNoLock(out, 0, false), BlockingQueueBase::GetPaused);
    EXPECT_EQ(queue.size(), 2u);
    out = 0;
    EXPECT_EQ(queue.getObjectNoLock(lock, out, kPast(), 0, true), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(queue.getObjectNoLock(lock, out, kPast(), 0, false), BlockingQueueBase::GetTimedOut);
    EXPECT_EQ(queue.size(), 2u);
}

TEST(BlockingQueueTest, PutResultsForDisabledFullPausedAndTimedOut) {
    Queue queue(1);
    EXPECT_EQ(queue.tryPutObject(1), BlockingQueueBase::PutStored);
    EXPECT_EQ(queue.tryPutObject(2), BlockingQueueBase::PutFull);
    const auto start = Clock::now();
    EXPECT_EQ(queue.putObject(2, 30), BlockingQueueBase::PutTimedOut);
    EXPECT_GE(ZuTest::elapsedMs(start), 30);
    {
        Lock lock(queue.getMutex());
        queue.clear();
        queue.setPaused(true);
    }
    EXPECT_EQ(queue.tryPutObject(2), BlockingQueueBase::PutPaused);
    EXPECT_EQ(queue.tryPutObjectDropFront(2), BlockingQueueBase::PutPaused);
    EXPECT_EQ(queue.putObject(2, 0), BlockingQueueBase::PutTimedOut);
    {
        Lock lock(queue.getMutex());
        queue.setEnabled(false);
        EXPECT_FALSE(queue.isEnabled());
        EXPECT_EQ(queue.putObjectIgnorePauseNoLock(lock, 3, kFar(), 0),
                  BlockingQueueBase::PutDisabled);
    }
    EXPECT_EQ(queue.tryPutObject(2), BlockingQueueBase::PutDisabled);
    EXPECT_EQ(queue.tryPutObjectDropFront(2), BlockingQueueBase::PutDisabled);
    EXPECT_EQ(queue.putObject(2, 1000), BlockingQueueBase::PutDisabled);
}

TEST(BlockingQueueTest, GetResultsForDisabledAndEmpty) {
    Queue queue(2);
    int out = 0;
    EXPECT_EQ(queue.tryGetObject(out), BlockingQueueBase::GetEmpty);
    queue.shutdown();
    queue.shutdown();  // a second shutdown is harmless
    EXPECT_EQ(queue.tryGetObject(out), BlockingQueueBase::GetDisabled);
    EXPECT_EQ(queue.getObject(out, 1000), BlockingQueueBase::GetDisabled);
}

TEST(BlockingQueueTest, SetPausedResults) {
    Queue queue(2);
    Lock lock(queue.getMutex());
    EXPECT_EQ(queue.setPaused(false), BlockingQueueBase::PauseAlreadyRunning);
    EXPECT_EQ(queue.setPaused(true), BlockingQueueBase::PauseChanged);
    EXPECT_TRUE(queue.isPaused());
    EXPECT_EQ(queue.setPaused(true), BlockingQueueBase::PauseAlreadyPaused);
    EXPECT_EQ(queue.setPaused(false), BlockingQueueBase::PauseChanged);
    queue.setEnabled(false);
    EXPECT_EQ(queue.setPaused(true), BlockingQueueBase::PauseDisabled);
    EXPECT_FALSE(queue.isPaused());
}

TEST(BlockingQueueTest, PutIgnoringPauseStoresWhilePausedAndIsStaleOnAnyOtherEpoch) {
    Queue queue(2, 4);
    Lock lock(queue.getMutex());
    queue.setPaused(true);
    EXPECT_EQ(queue.putObjectIgnorePauseNoLock(lock, 1, kPast(), 0), BlockingQueueBase::PutStored);
    EXPECT_EQ(queue.putObjectIgnorePauseNoLock(lock, 2, kPast(), 4), BlockingQueueBase::PutStored);
    EXPECT_EQ(queue.putObjectIgnorePauseNoLock(lock, 3, kPast(), 5),
              BlockingQueueBase::PutStaleEpoch);
    EXPECT_EQ(queue.putObjectIgnorePauseNoLock(lock, 3, kPast(), 0),
              BlockingQueueBase::PutTimedOut);
    EXPECT_EQ(queue.size(), 2u);
}

TEST(BlockingQueueTest, KeepNewestEmptiesTheQueueAndCanPutTheNewestBack) {
    Queue queue(4);
    for (int i = 1; i <= 3; ++i) {
        queue.putObject(i, 0);
    }
    Lock lock(queue.getMutex());
    int out = 0;
    EXPECT_TRUE(queue.keepNewestNoLock(lock, out, false));
    EXPECT_EQ(out, 3);
    EXPECT_TRUE(queue.empty());
    EXPECT_FALSE(queue.keepNewestNoLock(lock, out, true));
    queue.tryPutObjectNoLock(lock, 4, 0);
    queue.tryPutObjectNoLock(lock, 5, 0);
    EXPECT_TRUE(queue.keepNewestNoLock(lock, out, true));
    EXPECT_EQ(out, 5);
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_EQ(queue.tryGetObjectNoLock(out, 0, false), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(out, 5);
}

TEST(BlockingQueueTest, DequeueObjectRemovesTheFirstOrEveryMatchKeepingOrder) {
    Queue queue(4);
    for (int value : {1, 2, 1, 3}) {
        queue.putObject(value, 0);
    }
    {
        Lock lock(queue.getMutex());
        EXPECT_TRUE(queue.dequeueObjectNoLock(1, false));
        EXPECT_FALSE(queue.dequeueObjectNoLock(9, true));
    }
    EXPECT_EQ(contents(queue), (std::vector<int>{2, 1, 3}));
    for (int value : {1, 2, 1, 3}) {
        queue.putObject(value, 0);
    }
    {
        Lock lock(queue.getMutex());
        EXPECT_TRUE(queue.dequeueObjectNoLock(1, true));
    }
    EXPECT_EQ(contents(queue), (std::vector<int>{2, 3}));
}

TEST(BlockingQueueTest, DequeueFromAFullQueueWakesAWaitingProducer) {
    Queue queue(2);
    queue.putObject(1, 0);
    queue.putObject(2, 0);
    Async putter([&] { return static_cast<int>(queue.putObject(3, 30000)); });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    {
        Lock lock(queue.getMutex());
        queue.dequeueObjectNoLock(1, false);
    }
    EXPECT_EQ(putter.get(), BlockingQueueBase::PutStored);
    EXPECT_EQ(contents(queue), (std::vector<int>{2, 3}));
}

TEST(BlockingQueueTest, ClearAndNextEpochEmptiesAdvancesAndClearsInterrupted) {
    Queue queue(4, 2);
    queue.putObject(1, 0);
    Lock lock(queue.getMutex());
    queue.setInterrupted(true);
    queue.clearAndNextEpoch();
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.getEpoch(), 3);
    EXPECT_FALSE(queue.isInterrupted());
}

TEST(BlockingQueueTest, BlockedGetterWakesOnPut) {
    Queue queue(4);
    std::atomic<int> value{0};
    Async getter([&] {
        int out = 0;
        const int result = queue.getObject(out, 30000);
        value = out;
        return result;
    });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    const auto start = Clock::now();
    EXPECT_EQ(queue.putObject(42, 0), BlockingQueueBase::PutStored);
    EXPECT_EQ(getter.get(), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(value.load(), 42);
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);
}

TEST(BlockingQueueTest, BlockedPutterWakesWhenAConsumerMakesRoom) {
    Queue queue(1);
    queue.putObject(1, 0);
    Async putter([&] { return static_cast<int>(queue.putObject(2, 30000)); });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    int out = 0;
    EXPECT_EQ(queue.tryGetObject(out), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(putter.get(), BlockingQueueBase::PutStored);
    EXPECT_EQ(contents(queue), (std::vector<int>{2}));
}

TEST(BlockingQueueTest, WaitingGetFromAFullQueueWakesABlockedPutter) {
    Queue queue(2);
    queue.putObject(1, 0);
    queue.putObject(2, 0);
    Async putter([&] { return static_cast<int>(queue.putObject(3, 30000)); });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    int out = 0;
    EXPECT_EQ(queue.getObject(out, 0), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(putter.get(), BlockingQueueBase::PutStored);
    EXPECT_EQ(contents(queue), (std::vector<int>{2, 3}));
}

TEST(BlockingQueueTest, KeepNewestOnAFullQueueWakesABlockedPutter) {
    Queue queue(2);
    queue.putObject(1, 0);
    queue.putObject(2, 0);
    Async putter([&] { return static_cast<int>(queue.putObject(3, 30000)); });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    {
        Lock lock(queue.getMutex());
        int out = 0;
        // Without reput nothing is appended, so only the had-been-full notify can wake it.
        EXPECT_TRUE(queue.keepNewestNoLock(lock, out, false));
        EXPECT_EQ(out, 2);
    }
    EXPECT_EQ(putter.get(), BlockingQueueBase::PutStored);
    EXPECT_EQ(contents(queue), (std::vector<int>{3}));
}

TEST(BlockingQueueTest, KeepNewestOnADisabledQueueKeepsEverything) {
    Queue queue(4);
    queue.putObject(1, 0);
    queue.putObject(2, 0);
    Lock lock(queue.getMutex());
    queue.setEnabled(false);
    int out = 0;
    EXPECT_FALSE(queue.keepNewestNoLock(lock, out, false));
    EXPECT_EQ(out, 0);
    EXPECT_EQ(queue.size(), 2u);
    queue.setEnabled(true);
}

TEST(BlockingQueueTest, UnpausingWakesABlockedGetter) {
    Queue queue(4);
    queue.putObject(5, 0);
    {
        Lock lock(queue.getMutex());
        queue.setPaused(true);
    }
    Async getter([&] {
        int out = 0;
        return static_cast<int>(queue.getObject(out, 30000));
    });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    {
        Lock lock(queue.getMutex());
        queue.setPaused(false);
    }
    EXPECT_EQ(getter.get(), BlockingQueueBase::GetDelivered);
}

TEST(BlockingQueueTest, ShutdownWakesBlockedGettersAndPuttersWithDisabled) {
    Queue full(1);
    full.putObject(1, 0);
    Queue empty(1);
    Async putter([&] { return static_cast<int>(full.putObject(2, 30000)); });
    Async getter([&] {
        int out = 0;
        return static_cast<int>(empty.getObject(out, 30000));
    });
    ASSERT_TRUE(ZuTest::eventually(
        [&] { return full.getWaiterCount() == 1 && empty.getWaiterCount() == 1; }));
    const auto start = Clock::now();
    full.shutdown();
    empty.shutdown();
    EXPECT_EQ(putter.get(), BlockingQueueBase::PutDisabled);
    EXPECT_EQ(getter.get(), BlockingQueueBase::GetDisabled);
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);
}

TEST(BlockingQueueTest, CoreThreadInterruptEndsAWaitingGetLikeATimeOut) {
    Queue queue(4);
    std::atomic<int> result{-1};
    auto thread = Varkel::Zu::Thread::create(L"queue getter", [&] {
        int out = 0;
        result = queue.getObject(out, 30000);
    });
    ASSERT_TRUE(ZuTest::eventually([&] { return queue.getWaiterCount() == 1; }));
    thread->interrupt();
    thread->join();
    EXPECT_EQ(result.load(), BlockingQueueBase::GetTimedOut);
}

TEST(BlockingQueueTest, DestructorReportsLeftoverElementsAndItsEnd) {
    QueueLogCapture capture;
    {
        Queue queue(4);
        queue.putObject(1, 0);
        queue.putObject(2, 0);
    }
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].level, "error");
    EXPECT_EQ(records[0].message, L"BlockingQueue is not empty : 2");
    EXPECT_EQ(records[1].level, "trace");
    EXPECT_EQ(records[1].message, L"~Dtor end");
}

TEST(BlockingQueueTest, SharedPointerElementsAsTheMailQueueUsesThem) {
    Varkel::Zu::BlockingQueue<std::shared_ptr<std::wstring>, int, Logger> queue(ZU_MAXUINT32);
    auto first = std::make_shared<std::wstring>(L"first");
    auto second = std::make_shared<std::wstring>(L"second");
    queue.putObject(first, ZU_TIMEOUT_INFINITE);
    queue.putObject(second, ZU_TIMEOUT_INFINITE);
    {
        std::unique_lock<std::mutex> lock(queue.getMutex());
        EXPECT_TRUE(queue.dequeueObjectNoLock(first, false));
    }
    std::shared_ptr<std::wstring> out;
    EXPECT_EQ(queue.getObject(out, 0), BlockingQueueBase::GetDelivered);
    EXPECT_EQ(out, second);
}

TEST(BlockingQueueDeathTest, DestroyingWhileTheMutexIsHeldFailsTheAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto* queue = new Queue(2);
            std::mutex& mutex = queue->getMutex();
            std::promise<void> locked;
            // Holds the mutex until the process ends.
            std::thread([&mutex, &locked] {
                mutex.lock();
                locked.set_value();
                std::promise<void>().get_future().wait();
            }).detach();
            locked.get_future().wait();
            delete queue;
        },
        "lock.try_lock\\(\\)");
}
