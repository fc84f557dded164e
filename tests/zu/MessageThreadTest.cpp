#include <ZuCore/MessageThread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ZuCore/ConditionVariableHelper.h>
#include <ZuCore/Constants.h>
#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/MakeShared.h>

#include "ConcurrencyTestSupport.h"
#include "ZuTestSupport.h"

using Varkel::Zu::MakeShared;
using Varkel::Zu::Message;
using Varkel::Zu::MessageThread;
using Varkel::Zu::ThreadEnum;
using ZuTest::Clock;

namespace {

// Runs a function as its work.
class TaskMessage : public Message {
  public:
    explicit TaskMessage(std::function<void()> work)
        : Message(L"TaskMessage"), work_(std::move(work)) {}
    void process() override { work_(); }

  private:
    std::function<void()> work_;
};

std::shared_ptr<TaskMessage> task(std::function<void()> work) {
    return std::make_shared<TaskMessage>(std::move(work));
}

std::shared_ptr<MessageThread> makeWorker(std::size_t maxQueued = ZU_MAXUINT32) {
    return MakeShared::create<MessageThread>(L"test worker", ThreadEnum::Priority::Normal,
                                             maxQueued);
}

// A message that reports when it starts and then waits until released.
struct Blocker {
    std::promise<void> started;
    std::promise<void> release;
    std::shared_future<void> released{release.get_future().share()};
    std::shared_ptr<TaskMessage> message;

    Blocker() {
        message = task([this] {
            started.set_value();
            released.wait();
        });
    }
};

// Starts the worker, lets `blocker` occupy it, and queues `count` counting messages behind
// it; returns the queued messages.
std::vector<std::shared_ptr<Message>> occupyAndQueue(MessageThread& worker, Blocker& blocker,
                                                     std::atomic<int>& ran, int count) {
    worker.start();
    worker.postMessage(blocker.message);
    blocker.started.get_future().wait();
    std::vector<std::shared_ptr<Message>> queued;
    for (int i = 0; i < count; ++i) {
        queued.push_back(task([&ran] { ++ran; }));
        worker.postMessage(queued.back());
    }
    return queued;
}

// Posts counting messages until the worker refuses them, which shows that stop() has
// begun; returns how many were accepted.
int postUntilRefused(MessageThread& worker, std::atomic<int>& ran,
                     std::vector<std::shared_ptr<Message>>& accepted) {
    for (int attempt = 0; attempt < 100000; ++attempt) {
        auto message = task([&ran] { ++ran; });
        try {
            worker.postMessage(message);
            accepted.push_back(message);
        } catch (const Varkel::Zu::IllegalStateException&) {
            return static_cast<int>(accepted.size());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ADD_FAILURE() << "the worker kept accepting messages";
    return static_cast<int>(accepted.size());
}

}  // namespace

TEST(MessageThreadTest, RunsMessagesInPostingOrder) {
    auto worker = makeWorker();
    worker->start();
    std::vector<int> order;  // touched by the worker only until stop() has joined it
    std::vector<std::shared_ptr<Message>> messages;
    for (int i = 0; i < 100; ++i) {
        messages.push_back(task([&order, i] { order.push_back(i); }));
        worker->postMessage(messages.back());
    }
    EXPECT_EQ(worker->stop(false), nullptr);
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[i], i);
        EXPECT_TRUE(messages[i]->isCompleted());
        EXPECT_TRUE(messages[i]->wasProcessed());
    }
}

TEST(MessageThreadTest, MessagesPostedBeforeStartRunAfterIt) {
    auto worker = makeWorker();
    std::atomic<bool> ran{false};
    auto message = task([&] { ran = true; });
    worker->postMessage(message);
    EXPECT_EQ(worker->getQueuedCount(), 1u);
    worker->start();
    EXPECT_TRUE(message->waitForCompletion());
    EXPECT_TRUE(ran.load());
    worker->stop(false);
}

TEST(MessageThreadTest, WaitForCompletionTimesOutWhileTheMessageRuns) {
    auto worker = makeWorker();
    worker->start();
    Blocker blocker;
    worker->postMessage(blocker.message);
    blocker.started.get_future().wait();
    const auto start = Clock::now();
    EXPECT_FALSE(blocker.message->waitForCompletion(30));
    EXPECT_GE(ZuTest::elapsedMs(start), 30);
    EXPECT_FALSE(blocker.message->isCompleted());
    blocker.release.set_value();
    EXPECT_TRUE(blocker.message->waitForCompletion(ZU_TIMEOUT_INFINITE));
    EXPECT_TRUE(blocker.message->wasProcessed());
    worker->stop(false);
}

TEST(MessageThreadTest, GracefulStopRunsEveryQueuedMessage) {
    auto worker = makeWorker();
    Blocker blocker;
    std::atomic<int> ran{0};
    std::vector<std::shared_ptr<Message>> accepted = occupyAndQueue(*worker, blocker, ran, 5);
    std::shared_ptr<Message> returned = std::make_shared<TaskMessage>([] {});
    std::thread stopper([&] { returned = worker->stop(false); });
    const int posted = postUntilRefused(*worker, ran, accepted);
    blocker.release.set_value();
    stopper.join();
    EXPECT_EQ(returned, nullptr);
    EXPECT_EQ(ran.load(), posted);
    for (const auto& message : accepted) {
        EXPECT_TRUE(message->isCompleted());
        EXPECT_TRUE(message->wasProcessed());
    }
}

TEST(MessageThreadTest, ImmediateStopDiscardsQueuedMessagesAndReturnsTheRunningOne) {
    auto worker = makeWorker();
    Blocker blocker;
    std::atomic<int> ran{0};
    std::vector<std::shared_ptr<Message>> accepted = occupyAndQueue(*worker, blocker, ran, 5);
    std::shared_ptr<Message> returned;
    std::thread stopper([&] { returned = worker->stop(true); });
    postUntilRefused(*worker, ran, accepted);
    // Every queued message is completed, unprocessed, while the running one still runs.
    for (const auto& message : accepted) {
        EXPECT_TRUE(message->waitForCompletion(10000));
        EXPECT_FALSE(message->wasProcessed());
    }
    EXPECT_FALSE(blocker.message->isCompleted());
    blocker.release.set_value();
    stopper.join();
    EXPECT_EQ(returned, blocker.message);
    EXPECT_TRUE(blocker.message->isCompleted());
    EXPECT_TRUE(blocker.message->wasProcessed());
    EXPECT_EQ(ran.load(), 0);
    EXPECT_EQ(worker->getQueuedCount(), 0u);
}

TEST(MessageThreadTest, ImmediateStopWithNothingRunningReturnsNull) {
    auto worker = makeWorker();
    worker->start();
    auto message = task([] {});
    worker->postMessage(message);
    ASSERT_TRUE(message->waitForCompletion());
    EXPECT_EQ(worker->stop(true), nullptr);
}

TEST(MessageThreadTest, ImmediateStopInterruptsARunningMessageWaitingInterruptibly) {
    using Varkel::Zu::ConditionVariableHelper;
    ConditionVariableHelper::Handle semaphore =
        ConditionVariableHelper::createAnonymousSemaphore(0, 1);
    auto worker = makeWorker();
    worker->start();
    std::promise<void> started;
    std::atomic<int> waitResult{-1};
    auto message = task([&] {
        started.set_value();
        waitResult = ConditionVariableHelper::interruptibleWait(
                         semaphore, Clock::now() + std::chrono::seconds(30))
                         ? 1
                         : 0;
    });
    worker->postMessage(message);
    started.get_future().wait();
    const auto start = Clock::now();
    EXPECT_EQ(worker->stop(true), message);
    EXPECT_LT(Clock::now() - start, ZuTest::kPromptly);
    EXPECT_EQ(waitResult.load(), 0);
    ConditionVariableHelper::deleteHandle(&semaphore);
}

TEST(MessageThreadTest, PostingAfterStopThrowsIllegalStateAndLeavesTheMessageAlone) {
    auto worker = makeWorker();
    worker->start();
    worker->stop(false);
    auto message = task([] {});
    EXPECT_THROW(worker->postMessage(message), Varkel::Zu::IllegalStateException);
    EXPECT_FALSE(message->isCompleted());
    EXPECT_EQ(worker->stop(true), nullptr);  // a second stop is harmless
}

TEST(MessageThreadTest, PostingNullThrowsInvalidArgument) {
    auto worker = makeWorker();
    EXPECT_THROW(worker->postMessage(nullptr), Varkel::Zu::InvalidArgumentException);
}

TEST(MessageThreadTest, StopBeforeStartDiscardsQueuedMessagesAndForbidsStart) {
    auto worker = makeWorker();
    auto message = task([] {});
    worker->postMessage(message);
    EXPECT_EQ(worker->stop(false), nullptr);
    EXPECT_TRUE(message->isCompleted());
    EXPECT_FALSE(message->wasProcessed());
    EXPECT_THROW(worker->start(), Varkel::Zu::IllegalStateException);
}

TEST(MessageThreadTest, BoundedQueueMakesPostersWaitForRoom) {
    auto worker = makeWorker(1);
    worker->start();
    Blocker blocker;
    worker->postMessage(blocker.message);
    blocker.started.get_future().wait();
    std::atomic<std::size_t> largestQueue{0};
    std::atomic<int> ran{0};
    auto counting = [&] {
        largestQueue = std::max<std::size_t>(largestQueue.load(), worker->getQueuedCount());
        ++ran;
    };
    worker->postMessage(task(counting));  // fills the queue
    std::atomic<bool> posterDone{false};
    std::thread poster([&] {
        for (int i = 0; i < 5; ++i) {
            worker->postMessage(task(counting));
        }
        posterDone = true;
    });
    // The poster cannot get past the full queue while the blocker runs.
    EXPECT_TRUE(ZuTest::eventually([&] { return worker->getQueuedCount() == 1; }));
    EXPECT_FALSE(posterDone.load());
    blocker.release.set_value();
    poster.join();
    worker->stop(false);
    EXPECT_EQ(ran.load(), 6);
    EXPECT_LE(largestQueue.load(), 1u);
}

TEST(MessageThreadTest, ThrowingMessageIsLoggedCompletedAndTheWorkerGoesOn) {
    ZuTest::LoggingConfigGuard config;
    ZuTest::RecordCollector collector;
    auto worker = makeWorker();
    worker->start();
    auto thrower = task([] { throw std::runtime_error("message failure"); });
    std::atomic<bool> nextRan{false};
    auto next = task([&] { nextRan = true; });
    worker->postMessage(thrower);
    worker->postMessage(next);
    worker->stop(false);
    EXPECT_TRUE(thrower->isCompleted());
    EXPECT_TRUE(thrower->wasProcessed());
    EXPECT_TRUE(nextRan.load());
    const auto records = collector.recordsOf("ZuCore.MessageThread");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, "error");
    EXPECT_NE(records[0].message.find(L"message failure"), std::wstring::npos);
}

TEST(MessageThreadTest, DestructorStopsImmediately) {
    auto worker = makeWorker();
    worker->start();
    Blocker blocker;
    worker->postMessage(blocker.message);
    blocker.started.get_future().wait();
    auto queued = task([] {});
    worker->postMessage(queued);
    std::thread destroyer([&] { worker.reset(); });
    EXPECT_TRUE(queued->waitForCompletion(10000));
    EXPECT_FALSE(queued->wasProcessed());
    blocker.release.set_value();
    destroyer.join();
    EXPECT_TRUE(blocker.message->wasProcessed());
}

TEST(MessageThreadTest, StopFromInsideAMessageEndsTheWorkerAfterTheQueue) {
    auto worker = makeWorker();
    std::weak_ptr<MessageThread> weakWorker = worker;
    std::atomic<bool> laterRan{false};
    auto stopper = task([weakWorker] {
        if (auto self = weakWorker.lock()) {
            self->stop(false);
        }
    });
    auto later = task([&] { laterRan = true; });
    worker->postMessage(stopper);
    worker->postMessage(later);
    worker->start();
    worker->join();
    EXPECT_TRUE(laterRan.load());
    EXPECT_THROW(worker->postMessage(task([] {})), Varkel::Zu::IllegalStateException);
}

TEST(MessageThreadTest, ConcurrentPostersKeepTheirOwnOrder) {
    auto worker = makeWorker();
    worker->start();
    constexpr int kPosters = 4;
    constexpr int kEach = 300;
    std::vector<std::pair<int, int>> seen;  // worker only, read after stop()
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p) {
        posters.emplace_back([&, p] {
            for (int i = 0; i < kEach; ++i) {
                worker->postMessage(task([&seen, p, i] { seen.emplace_back(p, i); }));
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    worker->stop(false);
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kPosters * kEach));
    std::vector<int> next(kPosters, 0);
    for (const auto& [poster, index] : seen) {
        EXPECT_EQ(index, next[poster]);
        next[poster] = index + 1;
    }
}

// Posters keep posting and waiting while the worker is stopped immediately under them:
// every accepted message completes (run or discarded), every refused one throws, and no
// waiter hangs.
TEST(MessageThreadTest, StressImmediateStopUnderConcurrentPostersLeavesNoWaiterHanging) {
    for (int round = 0; round < 20; ++round) {
        auto worker = makeWorker(4);
        worker->start();
        std::atomic<int> processed{0};
        std::atomic<int> incomplete{0};
        std::atomic<int> acceptedCount{0};
        std::atomic<bool> stopping{false};
        std::vector<std::thread> posters;
        for (int p = 0; p < 3; ++p) {
            posters.emplace_back([&] {
                for (int i = 0; i < 200; ++i) {
                    auto message = task([&processed] { ++processed; });
                    try {
                        worker->postMessage(message);
                    } catch (const Varkel::Zu::IllegalStateException&) {
                        EXPECT_TRUE(stopping.load());
                        return;
                    }
                    ++acceptedCount;
                    if (!message->waitForCompletion(10000)) {
                        ++incomplete;
                    }
                }
            });
        }
        EXPECT_TRUE(ZuTest::eventually([&] { return acceptedCount.load() > 10 * round; }));
        stopping = true;
        worker->stop(true);
        for (auto& poster : posters) {
            poster.join();
        }
        EXPECT_EQ(incomplete.load(), 0);
        EXPECT_LE(processed.load(), acceptedCount.load());
    }
}
