// The delivery threads on which listeners run: made on demand up to a limit, retired when idle,
// jobs started in order, and stopping from any thread, one of their own included.
#include "RestTestSupport.h"

#include <TolvaCore/private/DeliveryThreads.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::Rest::DeliveryThreads;
using namespace std::chrono_literals;

// A gate jobs wait at until the test opens it.
class Gate {
  public:
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return open_; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool waitForWaiting(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 20s, [&] { return waiting_ >= count; });
    }
    int waiting() {
        std::lock_guard<std::mutex> lock(mutex_);
        return waiting_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};

TEST(DeliveryThreadsTest, JobsRunOffTheCallingThreadInTheOrderPosted) {
    DeliveryThreads threads(1);
    std::mutex mutex;
    std::vector<int> order;
    std::vector<std::thread::id> ran;
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(threads.post([&, i] {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(i);
            ran.push_back(std::this_thread::get_id());
        }));
    }
    ASSERT_TRUE(waitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(mutex);
            return order.size() == 50;
        },
        20s));
    std::lock_guard<std::mutex> lock(mutex);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
        EXPECT_NE(ran[static_cast<std::size_t>(i)], std::this_thread::get_id());
    }
}

TEST(DeliveryThreadsTest, BlockedJobsGetAThreadEachUpToTheLimitAndTheRestWait) {
    DeliveryThreads threads(4);
    Gate gate;
    std::atomic<int> done{0};
    for (int i = 0; i < 6; ++i) {
        threads.post([&] {
            gate.wait();
            ++done;
        });
    }
    ASSERT_TRUE(gate.waitForWaiting(4));
    EXPECT_EQ(threads.threadCount(), 4u);
    EXPECT_EQ(threads.busyCount(), 4u);
    // The two beyond the limit wait for a thread to come free, not for a fifth thread.
    EXPECT_EQ(gate.waiting(), 4);
    gate.open();
    EXPECT_TRUE(waitUntil([&] { return done == 6; }, 20s));
    EXPECT_EQ(gate.waiting(), 6);
}

TEST(DeliveryThreadsTest, AnIdleThreadRetiresAndANewOneComesForTheNextJob) {
    DeliveryThreads threads(2, 100ms);
    std::atomic<int> done{0};
    threads.post([&] { ++done; });
    ASSERT_TRUE(waitUntil([&] { return done == 1; }, 20s));
    EXPECT_TRUE(waitUntil([&] { return threads.threadCount() == 0; }, 20s));
    threads.post([&] { ++done; });
    EXPECT_TRUE(waitUntil([&] { return done == 2; }, 20s));
}

TEST(DeliveryThreadsTest, StopWaitsForRunningJobsDropsQueuedOnesAndRefusesNewOnes) {
    auto threads = std::make_unique<DeliveryThreads>(1);
    Gate gate;
    std::atomic<bool> firstEnded{false};
    std::atomic<bool> secondRan{false};
    threads->post([&] {
        gate.wait();
        firstEnded = true;
    });
    threads->post([&] { secondRan = true; });
    ASSERT_TRUE(gate.waitForWaiting(1));
    std::thread opener([&] {
        // Opened only once stop() is under way, so stop() must wait for the running job.
        waitUntil([&] { return !threads->post([] {}); }, 20s);
        gate.open();
    });
    threads->stop();
    EXPECT_TRUE(firstEnded);
    EXPECT_FALSE(secondRan);
    EXPECT_EQ(threads->threadCount(), 0u);
    opener.join();
}

TEST(DeliveryThreadsTest, StoppedFromOneOfItsOwnJobsItDoesNotWaitForThatJob) {
    // The owner lets go from inside a job, as a listener that drops the last reference to its
    // API object does; the job then goes on after the object has gone.
    auto owner = std::make_shared<DeliveryThreads>(2);
    Gate posted;
    std::atomic<bool> jobGoesOn{false};
    std::atomic<bool> wasDeliveryThread{false};
    owner->post([&owner, &posted, &jobGoesOn, &wasDeliveryThread] {
        posted.wait();
        wasDeliveryThread = owner->isDeliveryThread();
        owner.reset();  // ~DeliveryThreads: stop() on its own thread
        jobGoesOn = true;
    });
    posted.open();
    EXPECT_TRUE(waitUntil([&] { return jobGoesOn.load(); }, 20s));
    EXPECT_TRUE(wasDeliveryThread);
}

TEST(DeliveryThreadsTest, ReleaseLetsGoOnADeliveryThread) {
    // Records on which thread it was destroyed.
    struct Held {
        explicit Held(std::atomic<bool>& onDelivery, DeliveryThreads& threads)
            : onDelivery_(onDelivery), threads_(threads) {}
        ~Held() { onDelivery_ = threads_.isDeliveryThread(); }
        std::atomic<bool>& onDelivery_;
        DeliveryThreads& threads_;
    };
    DeliveryThreads threads(1);
    std::atomic<bool> onDelivery{false};
    threads.release(std::make_shared<Held>(onDelivery, threads));
    EXPECT_TRUE(waitUntil([&] { return onDelivery.load(); }, 20s));
}

}  // namespace
}  // namespace TolvaRestTest
