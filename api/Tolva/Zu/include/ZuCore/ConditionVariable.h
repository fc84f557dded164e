/// @class Varkel::Zu::ConditionVariable
/// A broadcast condition variable with deadlines and interruptible waits.
#pragma once

#include <chrono>
#include <mutex>

#include <ZuCore/ConditionVariableBase.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Used like std::condition_variable with a std::unique_lock<std::mutex>, broadcast only.
/// A wait ends with true when a notifyAll() made after the waiter registered reaches it,
/// and with false on its deadline, on interruptAll(), or when the waiting thread is a core
/// Thread whose interrupt() was called (see ConditionVariableHelper::interruptibleWait).
/// There are no spurious true results, but callers should still test their condition.
/// Like std::condition_variable it must outlive every wait on it; an owner that goes away
/// first ends the waits with interruptAll() and waits for the waiting threads to leave.
class ZU_EXPORT ConditionVariable : public ConditionVariableBase {
  public:
    /// The clock of every deadline.
    using Clock = std::chrono::steady_clock;

    /// Releases `lock` while waiting and re-acquires it before returning, also when
    /// throwing. Returns true when notified, false on deadline or interruption. Throws
    /// std::system_error (operation not permitted) when `lock` does not own its mutex. Any
    /// thread.
    bool waitUntil(std::unique_lock<std::mutex>& lock, const Clock::time_point& deadline);

    /// Waits until `ready()` holds (true) or the wait ends without it (false: deadline or
    /// interruption). `ready` is called with the lock held.
    template <class Predicate>
    bool waitUntil(std::unique_lock<std::mutex>& lock, const Clock::time_point& deadline,
                   Predicate ready) {
        while (!ready()) {
            if (!waitUntil(lock, deadline)) {
                return ready();
            }
        }
        return true;
    }
};

}  // namespace Zu
}  // namespace Varkel
