/// @class Varkel::Zu::ConditionVariableHelper
/// Counting semaphores with timed and interruptible waits: the waiting primitive beneath
/// ConditionVariable.
#pragma once

#include <chrono>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

class ZuSemaphoreObject;

/// Unnamed counting semaphores behind opaque handles.
///
/// Every function may be called from any thread, concurrently on the same handle, except
/// deleteHandle, which must not race with other calls on the same handle variable (waits
/// already under way on the semaphore finish safely; they keep the semaphore alive).
class ZU_EXPORT ConditionVariableHelper {
  public:
    /// Opaque semaphore handle; null means "no semaphore".
    using Handle = ZuSemaphoreObject*;

    /// waitForSingleObject results.
    static constexpr unsigned int WaitObject0 = 0;          ///< a token was taken
    static constexpr unsigned int WaitTimeout = 0x102;      ///< the time ran out first
    static constexpr unsigned int WaitFailed = 0xFFFFFFFF;  ///< null handle

    /// Largest maximum count a semaphore can have.
    static constexpr int MaximumCount = 0x7fffffff;

    /// Creates a semaphore holding `initial` tokens that never holds more than `maximum`.
    /// Throws InvalidArgumentException unless 0 <= initial <= maximum and maximum > 0.
    static Handle createAnonymousSemaphore(int initial, int maximum);

    /// Adds `count` tokens and wakes waiters. Returns false, leaving the count unchanged,
    /// when the handle is null or the count would exceed the maximum.
    static bool releaseSemaphore(Handle handle, unsigned int count);

    /// Takes one token, waiting at most `milliseconds` (ZU_TIMEOUT_INFINITE: no limit, 0: do
    /// not wait). Returns WaitObject0 when a token was taken, WaitTimeout when none came in
    /// time, WaitFailed for a null handle. Not interruptible.
    static unsigned int waitForSingleObject(Handle handle, unsigned int milliseconds);

    /// Takes one token, waiting until `deadline` (steady_clock::time_point::max(): no limit).
    /// Returns true when a token was taken; false when the deadline passed first, when the
    /// handle is null, or when the calling thread is a core Thread and Thread::interrupt()
    /// was called for it (before or during the wait). A pending interrupt wins over an
    /// available token and is consumed by the wait that reports it: the interrupt request is
    /// not sticky, so the next wait on that thread blocks normally. Threads not started
    /// through Thread cannot be interrupted; for them this is a plain timed wait.
    static bool interruptibleWait(Handle handle,
                                  const std::chrono::steady_clock::time_point& deadline);

    /// Closes the semaphore *handle refers to (if any) and sets *handle to null. Null
    /// `handle` or *handle is allowed and does nothing.
    static void deleteHandle(Handle* handle);
};

}  // namespace Zu
}  // namespace Varkel
