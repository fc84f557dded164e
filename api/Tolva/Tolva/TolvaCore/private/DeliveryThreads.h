// DeliveryThreads: the threads on which an API object runs host code, that is its mailboxes'
// listeners, and on which it lets go of references that may be the host's last.
//
// The HTTP library runs socket I/O and every continuation on one small shared pool. A listener
// may block, post, wait for a reply or end the API object; on a pool thread any of those holds
// a thread the answers it waits for need, and a few of them stop the process for good. So the
// pool only parses a poll's answer and hands the mail here.
//
// Threads are made on demand, up to a limit, and end after an idle spell: a listener that
// blocks holds one thread and delays only the jobs queued behind it once the limit is reached.
// Jobs start in the order they were posted; each mailbox has at most one job at a time (its
// next poll starts when its job has ended), so a mailbox's mail stays in order.
//
//   DeliveryThreads threads(DeliveryThreads::limitFromEnvironment());
//   threads.post([mailbox, mail] { ... mailbox->receiveMail(...) ... });
//   threads.stop();  // from the owner's destructor, on any thread, even one of these
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace Varkel {
namespace Tolva {
namespace Rest {

class DeliveryThreads {
  public:
    // The default limit of threads, and how long an idle thread waits for work before it ends.
    static constexpr std::size_t kDefaultLimit = 64;
    static constexpr std::chrono::milliseconds kIdleTime{10000};
    // "TOLVA_DELIVERY_THREADS" (1 to 4096) when set and valid, otherwise kDefaultLimit.
    static std::size_t limitFromEnvironment();

    // `threadName` names every thread (cut to 15 characters).
    explicit DeliveryThreads(std::size_t limit = kDefaultLimit,
                             std::chrono::milliseconds idleTime = kIdleTime,
                             const char* threadName = "QXP delivery");
    // stop().
    ~DeliveryThreads();
    DeliveryThreads(const DeliveryThreads&) = delete;
    DeliveryThreads& operator=(const DeliveryThreads&) = delete;

    // Runs `job` on a delivery thread. Returns false, without running it, once stopped; the
    // job is then destroyed on the calling thread. Never blocks beyond a short lock.
    bool post(std::function<void()> job);

    // Lets go of `held` on a delivery thread (or here, once stopped): for a reference whose
    // release may run host code, such as a mailbox whose listener holds the API object.
    template <class T>
    void release(std::shared_ptr<T> held) {
        if (held) {
            post([held = std::move(held)]() mutable { held.reset(); });
        }
    }

    // Stops taking jobs, drops those not started yet, and waits until every thread has
    // ended, except the calling thread when it is one of these: that one ends by itself once
    // its current job returns, and touches nothing of this object meanwhile. Any thread; later
    // calls do nothing more.
    void stop();

    // Threads alive now, and threads running a job now (diagnostics and tests).
    std::size_t threadCount() const;
    std::size_t busyCount() const;
    // Jobs posted and not started yet (waiting for a free thread).
    std::size_t queuedCount() const;

    // Whether the calling thread is one of these.
    bool isDeliveryThread() const;

  private:
    struct State;
    static void run(const std::shared_ptr<State>& state);
    std::shared_ptr<State> state_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
