/// @class Varkel::Zu::ConditionVariableBase
/// Bookkeeping of ConditionVariable: wait generations built on counting semaphores.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <ZuCore/ConditionVariableHelper.h>
#include <ZuCore/NonNewable.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// The machinery of a broadcast condition variable whose waits can be interrupted.
///
/// Waiters that register between two notifies form one generation and share one Entry.
/// A notify releases, for each registered waiter, one token on the generation's own
/// semaphore (which wakes it) and one on the shared wake semaphore (which it must take to
/// count as notified), then starts a new generation. So a notify wakes exactly the threads
/// registered before it, and a waiter that gave up (deadline or interruption) leaves its
/// tokens behind only in a generation nobody waits on any more.
///
/// All members may be called from any thread. The internal mutex is never held while
/// waiting.
class ZU_EXPORT ConditionVariableBase {
  public:
    /// Owns one semaphore handle.
    class ZU_EXPORT HandleManager : public NonNewable {
      public:
        /// Creates a semaphore with count 0 and maximum 0x7fffffff.
        HandleManager();
        /// Takes the handle out atomically and closes it.
        ~HandleManager();
        HandleManager(const HandleManager&) = delete;
        HandleManager& operator=(const HandleManager&) = delete;

        /// The handle; null once closed.
        ConditionVariableHelper::Handle get() const { return handle_.load(); }
        /// Whether a handle is held.
        explicit operator bool() const { return handle_.load() != nullptr; }

      private:
        std::atomic<ConditionVariableHelper::Handle> handle_;
    };

    /// One wait generation.
    struct ZU_EXPORT Entry {
        /// A generation with one waiter, woken through `wake`.
        explicit Entry(std::shared_ptr<HandleManager> wake);

        HandleManager semaphore;                       ///< wakes the generation
        std::shared_ptr<HandleManager> wakeSemaphore;  ///< the wake semaphore of its time
        std::atomic<std::uint32_t> count{1};           ///< waiters still using it
        bool signalled = false;    ///< notified or interrupted; guarded by the mutex
        bool interrupted = false;  ///< ended by interruptAll; guarded by the mutex
    };

    /// Scope guard of one wait: unregisters the waiter from its entry.
    class ZU_EXPORT EntryManager : public NonNewable {
      public:
        /// Guards one waiter's registration with `entry` of `owner`.
        EntryManager(ConditionVariableBase& owner, std::shared_ptr<Entry> entry);
        /// Locks the mutex, decrements the entry's count, releases the entry.
        ~EntryManager();
        EntryManager(const EntryManager&) = delete;
        EntryManager& operator=(const EntryManager&) = delete;

        /// The guarded entry.
        Entry& entry() const { return *entry_; }

      private:
        ConditionVariableBase& owner_;
        std::shared_ptr<Entry> entry_;
    };

    ConditionVariableBase();
    virtual ~ConditionVariableBase();
    ConditionVariableBase(const ConditionVariableBase&) = delete;
    ConditionVariableBase& operator=(const ConditionVariableBase&) = delete;

    /// Registers the calling thread as a waiter of the current generation and returns its
    /// entry. Throws what semaphore creation throws.
    std::shared_ptr<Entry> getWaitEntry();

    /// Wakes every thread registered before the call; their waits return true. Does
    /// nothing (and takes no lock) when nobody is registered.
    void notifyAll();

    /// Ends the wait of every thread registered before the call; their waits return false,
    /// as on a deadline. Threads registering afterwards wait normally. Like notifyAll, call
    /// it after changing (under the waiters' mutex) the state they test, so that a thread
    /// about to wait sees the change instead of missing the interrupt.
    void interruptAll();

    /// Diagnostics: whether a wake semaphore exists right now (one is made by the first
    /// waiter after a notify), and how many waits were registered since the last notify or
    /// interrupt (including ones that have already ended by deadline).
    bool hasWakeSemaphore();
    /// How many waits were registered since the last notify or interrupt.
    std::uint32_t getWaiterCount() const { return _waiters.load(); }

  protected:
    /// Waits on `entry` until notified (true), or until the deadline or an interruption
    /// (false). The caller's lock must already be released.
    bool waitOnEntry(Entry& entry, const std::chrono::steady_clock::time_point& deadline);

  private:
    void signalAll(bool interrupted);

    std::mutex _mutex;
    std::shared_ptr<HandleManager> _wakeSemaphore;
    std::vector<std::shared_ptr<Entry>> _entries;
    std::atomic<std::uint32_t> _waiters{0};
};

}  // namespace Zu
}  // namespace Varkel
