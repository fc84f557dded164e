#include <ZuCore/ConditionVariable.h>

#include <system_error>

namespace Varkel {
namespace Zu {

bool ConditionVariable::waitUntil(std::unique_lock<std::mutex>& lock,
                                  const Clock::time_point& deadline) {
    bool notified = false;
    {
        EntryManager registration(*this, getWaitEntry());
        if (!lock.owns_lock()) {
            throw std::system_error(std::make_error_code(std::errc::operation_not_permitted),
                                    "ConditionVariable::waitUntil: lock not owned");
        }
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
