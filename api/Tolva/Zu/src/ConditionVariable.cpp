#include <ZuCore/ConditionVariable.h>

namespace Varkel {
namespace Zu {

bool ConditionVariable::waitUntil(std::unique_lock<std::mutex>& lock,
                                  const Clock::time_point& deadline) {
    bool notified = false;
    {
        EntryManager registration(*this, getWaitEntry());
        // Throws std::unique_lock's own std::system_error when the lock is not owned.
        lock.unlock();
        try {
            notified = waitOnEntry(registration.entry(), deadline);
        } catch (...) {
            lock.lock();
            throw;
        }
    }
    lock.lock();
    return notified;
}

}  // namespace Zu
}  // namespace Varkel
