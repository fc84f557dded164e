// Internal plumbing shared by ConditionVariableHelper.cpp and Thread.cpp: the state behind a
// semaphore handle and the per-thread interruption state. Not installed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include <ZuCore/ConditionVariableHelper.h>

namespace Varkel {
namespace Zu {

namespace detail {

// The counting semaphore itself. Shared ownership lets a waiter, and an interrupter that
// wakes it, keep the state alive even when the handle is closed meanwhile.
struct SemaphoreState {
    SemaphoreState(long initialCount, long maximumCount)
        : count(initialCount), maximum(maximumCount) {}

    std::mutex mutex;
    std::condition_variable available;
    long count;
    const long maximum;
};

// Interruption state of one core Thread.
//
// interrupt() sets the request first and then wakes the semaphore the thread is registered
// on; a waiter registers before it checks the request under the semaphore's mutex. Either
// the waiter sees the request, or the interrupter finds the registration and its notify
// reaches the waiter inside the condition wait, so no interrupt is lost.
class InterruptState {
  public:
    void request();
    // Returns whether a request was pending and clears it.
    bool consume() { return requested_.exchange(false); }
    bool pending() const { return requested_.load(); }

    void beginWait(const std::shared_ptr<SemaphoreState>& semaphore);
    void endWait();

    // State of the calling thread, or null when the thread was not started by Thread.
    static InterruptState* current();
    static void setCurrent(InterruptState* state);

  private:
    std::atomic<bool> requested_{false};
    std::mutex mutex_;
    std::shared_ptr<SemaphoreState> waitingOn_;
};

}  // namespace detail

// The object an opaque ConditionVariableHelper::Handle points to.
class ZuSemaphoreObject {
  public:
    explicit ZuSemaphoreObject(std::shared_ptr<detail::SemaphoreState> s) : state(std::move(s)) {}
    const std::shared_ptr<detail::SemaphoreState> state;
};

}  // namespace Zu
}  // namespace Varkel
