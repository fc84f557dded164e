// Stress tests of BlockingQueue, meant above all for ThreadSanitizer runs: many producers
// and consumers with deadlines, epochs, interrupts and pausing. Each test is bounded both
// in work and in time.
#include <ZuCore/BlockingQueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ZuCore/Logger.h>

#include "ConcurrencyTestSupport.h"

using Varkel::Zu::BlockingQueueBase;
using ZuTest::Clock;

namespace {

using Queue = Varkel::Zu::BlockingQueue<int, int, Varkel::Zu::Logger>;
using Lock = std::unique_lock<std::mutex>;

constexpr auto kGiveUp = std::chrono::seconds(30);
// A wait may overrun its deadline by scheduling delays only; this bound is generous for a
// loaded machine under a sanitizer, yet far below the 30 s waits a lost notify would cause.
constexpr long long kOverrunLimitMs = 4000;

// Keeps the longest overrun of any timed operation past its time-out.
struct OverrunMeter {
    std::atomic<long long> worstMs{0};
    void record(Clock::time_point start, unsigned int timeoutMs) {
        const long long overrun = ZuTest::elapsedMs(start) - static_cast<long long>(timeoutMs);
        long long seen = worstMs.load();
        while (overrun > seen && !worstMs.compare_exchange_weak(seen, overrun)) {
        }
    }
};

// Checks that `delivered` holds every element of `stored` exactly once and nothing else.
void expectExactlyOnce(const std::vector<int>& stored, const std::vector<int>& delivered) {
    std::multiset<int> deliveredSet(delivered.begin(), delivered.end());
    std::set<int> storedSet(stored.begin(), stored.end());
    EXPECT_EQ(storedSet.size(), stored.size()) << "a producer stored a value twice";
    EXPECT_EQ(deliveredSet.size(), delivered.size());
    for (int value : deliveredSet) {
        EXPECT_EQ(deliveredSet.count(value), 1u) << "delivered twice: " << value;
        if (deliveredSet.count(value) != 1) {
            break;
        }
    }
    EXPECT_EQ(std::set<int>(delivered.begin(), delivered.end()), storedSet);
}

}  // namespace

TEST(BlockingQueueStressTest, ManyProducersAndConsumersDeliverEveryElementExactlyOnce) {
    constexpr int kProducers = 4;
    constexpr int kConsumers = 4;
    constexpr int kEach = 5000;
    constexpr int kTotal = kProducers * kEach;
    Queue queue(16);
    std::atomic<int> received{0};
    OverrunMeter overrun;
    const auto giveUp = Clock::now() + kGiveUp;

    std::vector<std::vector<int>> stored(kProducers);
    std::vector<std::vector<int>> delivered(kConsumers);
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < kEach && Clock::now() < giveUp;) {
                const int value = p * kEach + i;
                const auto start = Clock::now();
                const auto result = queue.putObject(value, 50);
                overrun.record(start, 50);
                if (result == BlockingQueueBase::PutStored) {
                    stored[p].push_back(value);
                    ++i;
                } else {
                    ASSERT_EQ(result, BlockingQueueBase::PutTimedOut);
                }
            }
        });
    }
    for (int c = 0; c < kConsumers; ++c) {
        threads.emplace_back([&, c] {
            while (received.load() < kTotal && Clock::now() < giveUp) {
                int value = -1;
                const auto start = Clock::now();
                const auto result = queue.getObject(value, 20);
                overrun.record(start, 20);
                if (result == BlockingQueueBase::GetDelivered) {
                    delivered[c].push_back(value);
                    ++received;
                } else {
                    ASSERT_EQ(result, BlockingQueueBase::GetTimedOut);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    std::vector<int> allStored;
    std::vector<int> allDelivered;
    for (const auto& values : stored) {
        allStored.insert(allStored.end(), values.begin(), values.end());
    }
    for (const auto& values : delivered) {
        // One queue, FIFO: each consumer sees any one producer's values in rising order.
        std::vector<int> lastOfProducer(kProducers, -1);
        for (int value : values) {
            EXPECT_GT(value, lastOfProducer[value / kEach]);
            lastOfProducer[value / kEach] = value;
        }
        allDelivered.insert(allDelivered.end(), values.begin(), values.end());
    }
    EXPECT_EQ(allStored.size(), static_cast<std::size_t>(kTotal));
    expectExactlyOnce(allStored, allDelivered);
    EXPECT_LT(overrun.worstMs.load(), kOverrunLimitMs);
}

TEST(BlockingQueueStressTest, EpochsInterruptsAndPausingNeitherLoseNorDuplicate) {
    constexpr int kProducers = 3;
    constexpr int kConsumers = 3;
    constexpr int kEach = 1000;  // at least this many stored per producer
    constexpr int kSteps = 600;  // state changes made by the controller
    constexpr int kValueStride = 10000000;
    Queue queue(8, 1);
    OverrunMeter overrun;
    const auto giveUp = Clock::now() + kGiveUp;
    std::atomic<bool> producersDone{false};
    std::atomic<bool> controlling{true};

    std::vector<std::vector<int>> stored(kProducers);
    std::vector<std::vector<int>> delivered(kConsumers);
    std::vector<std::thread> producers;
    std::vector<std::thread> consumers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            // Producers go on while the controller works, so every change meets traffic.
            for (int i = 0; (i < kEach || controlling.load()) && Clock::now() < giveUp;) {
                const int value = p * kValueStride + i;
                Lock lock(queue.getMutex());
                // Producers use the epoch they read (it may move on before they put), or 0.
                const int epoch = (i % 3 == 0) ? 0 : queue.getEpoch();
                const auto start = Clock::now();
                const auto deadline = start + std::chrono::milliseconds(10);
                const auto result =
                    (i % 5 == 0) ? queue.putObjectIgnorePauseNoLock(lock, value, deadline, epoch)
                                 : queue.putObjectNoLock(lock, value, deadline, epoch);
                lock.unlock();
                overrun.record(start, 10);
                if (result == BlockingQueueBase::PutStored) {
                    stored[p].push_back(value);
                    ++i;
                } else {
                    ASSERT_TRUE(result == BlockingQueueBase::PutTimedOut ||
                                result == BlockingQueueBase::PutStaleEpoch)
                        << result;
                }
            }
        });
    }
    for (int c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&, c] {
            for (int iteration = 0; Clock::now() < giveUp; ++iteration) {
                int value = -1;
                Lock lock(queue.getMutex());
                const int epoch = (c == 0) ? queue.getEpoch() : 0;
                const bool peek = (c == 1) && (iteration % 7 == 0);
                const auto start = Clock::now();
                const auto result = queue.getObjectNoLock(
                    lock, value, start + std::chrono::milliseconds(10), epoch, peek);
                const bool drained = producersDone.load() && !controlling.load() && queue.empty();
                lock.unlock();
                overrun.record(start, 10);
                if (result == BlockingQueueBase::GetDelivered) {
                    if (!peek) {
                        delivered[c].push_back(value);
                    }
                } else if (result == BlockingQueueBase::GetInterrupted) {
                    std::this_thread::yield();  // until the controller clears the flag
                } else {
                    ASSERT_TRUE(result == BlockingQueueBase::GetTimedOut ||
                                result == BlockingQueueBase::GetStaleEpoch)
                        << result;
                }
                if (drained) {
                    return;
                }
            }
        });
    }
    std::thread controller([&] {
        for (int step = 0; step < kSteps && Clock::now() < giveUp; ++step) {
            {
                Lock lock(queue.getMutex());
                switch (step % 6) {
                    case 0:
                        queue.nextEpoch();
                        break;
                    case 1:
                        queue.setPaused(true);
                        break;
                    case 2:
                        queue.setPaused(false);
                        break;
                    case 3:
                        queue.setInterrupted(true);
                        break;
                    case 4:
                        queue.setInterrupted(false);
                        break;
                    default:
                        queue.setEpoch(queue.getEpoch() + 2);
                        break;
                }
            }
            // Pacing only: lets the other threads run between state changes.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        Lock lock(queue.getMutex());
        queue.setPaused(false);
        queue.setInterrupted(false);
        controlling = false;
    });

    controller.join();
    for (auto& producer : producers) {
        producer.join();
    }
    producersDone = true;
    for (auto& consumer : consumers) {
        consumer.join();
    }

    std::vector<int> allStored;
    std::vector<int> allDelivered;
    for (const auto& values : stored) {
        allStored.insert(allStored.end(), values.begin(), values.end());
    }
    for (const auto& values : delivered) {
        allDelivered.insert(allDelivered.end(), values.begin(), values.end());
    }
    EXPECT_GE(allStored.size(), static_cast<std::size_t>(kProducers * kEach));
    expectExactlyOnce(allStored, allDelivered);
    EXPECT_LT(overrun.worstMs.load(), kOverrunLimitMs);
}

TEST(BlockingQueueStressTest, DeadlinesHoldWhileWaitersAreWokenConstantly) {
    constexpr int kWaiters = 4;
    constexpr int kRounds = 15;
    Queue queue(4);
    OverrunMeter overrun;
    std::atomic<int> early{0};
    std::atomic<int> unexpected{0};
    std::atomic<bool> waiting{true};

    std::vector<std::thread> waiters;
    for (int w = 0; w < kWaiters; ++w) {
        waiters.emplace_back([&, w] {
            for (int round = 0; round < kRounds; ++round) {
                const unsigned int timeoutMs = 10 + 10 * static_cast<unsigned int>((w + round) % 3);
                int value = 0;
                const auto start = Clock::now();
                const auto result = queue.getObject(value, timeoutMs);
                if (result != BlockingQueueBase::GetTimedOut) {
                    ++unexpected;
                }
                if (ZuTest::elapsedMs(start) < static_cast<long long>(timeoutMs)) {
                    ++early;
                }
                overrun.record(start, timeoutMs);
            }
        });
    }
    // Wakes every waiter again and again without ever giving them an element.
    std::thread waker([&] {
        for (int i = 0; waiting.load() && i < 1000000; ++i) {
            Lock lock(queue.getMutex());
            if (i % 2 == 0) {
                queue.setPaused(true);
                queue.setPaused(false);
            } else {
                queue.clear();
            }
            lock.unlock();
            std::this_thread::yield();
        }
    });
    for (auto& waiter : waiters) {
        waiter.join();
    }
    waiting = false;
    waker.join();
    EXPECT_EQ(unexpected.load(), 0);
    EXPECT_EQ(early.load(), 0);
    EXPECT_LT(overrun.worstMs.load(), kOverrunLimitMs);
}
