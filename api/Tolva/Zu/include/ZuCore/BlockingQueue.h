/// @class Varkel::Zu::BlockingQueue
/// A bounded FIFO queue with deadlines, epochs, pausing, an enabled switch and interrupts.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include <boost/assert.hpp>

#include <ZuCore/BlockingQueueBase.h>
#include <ZuCore/CommonUtil.h>
#include <ZuCore/ConditionVariable.h>
#include <ZuCore/Constants.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/Logger.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/ThrowException.h>

namespace Varkel {
namespace Zu {

/// A bounded FIFO of T (front = oldest).
///
/// Locking: the operations whose names end in NoLock, and the state accessors (getEpoch,
/// setEpoch, nextEpoch, clearAndNextEpoch, keepNewestNoLock, dequeueObjectNoLock,
/// isEnabled, setEnabled, isInterrupted, setInterrupted, empty, size, setPaused, isPaused,
/// clear), must be called with getMutex() locked by the caller; the waiting ones take the
/// caller's std::unique_lock and release it while they wait. The conveniences without
/// NoLock (putObject, getObject, tryPutObject, tryGetObject, shutdown, ...) lock it
/// themselves and must be called without it. Any thread.
///
/// Epochs: an operation given epoch 0 (Epoch{}) matches every epoch; a non-zero epoch that
/// differs from the queue's makes the operation stale (result 2). Changing the epoch clears
/// the interrupted flag and wakes every waiter, so stale producers and consumers leave.
///
/// One ConditionVariable serves producers and consumers; every change that can unblock
/// someone notifies all waiters. Deadlines are steady-clock points, checked before each
/// wait, so a deadline in the past never blocks. A waiting operation whose wait is ended by
/// a core thread interrupt (Thread::interrupt) reports it like a time-out.
///
/// LoggerT supplies getLogger, getTraceLevel, getErrorLevel, isEnabledFor and log as
/// Logger does. The queue's logger is named "ZuCore.BlockingQueue<" + the readable name of
/// T + ">".
template <class T, class Epoch = int, class LoggerT = Logger>
class BlockingQueue : public BlockingQueueBase {
  public:
    /// The lock the waiting operations take and release while they wait.
    using Lock = std::unique_lock<std::mutex>;
    /// The clock of every deadline.
    using Clock = std::chrono::steady_clock;
    /// A deadline.
    using TimePoint = Clock::time_point;

    /// An enabled, unpaused, empty queue holding at most `capacity` elements, at epoch
    /// `epoch`. Throws InvalidArgumentException for capacity 0.
    explicit BlockingQueue(std::size_t capacity = ZU_MAXUINT32, const Epoch& epoch = Epoch{})
        : _capacity(capacity), _epoch(epoch) {
        if (capacity == 0) {
            ZU_THROW(InvalidArgumentException, L"A blocking queue needs a capacity above 0");
        }
    }

    /// Must not run while anyone holds or waits on the mutex: asserts "lock.try_lock()"
    /// (an assertion failure in a destructor ends the process). Logs at error level the
    /// number of elements still queued, then "~Dtor end" at trace level.
    ~BlockingQueue() override {
        {
            Lock lock(_mutex, std::defer_lock);
            BOOST_ASSERT(lock.try_lock());
        }
        if (!_queue.empty()) {
            logAt(LoggerT::getErrorLevel(), ZU_LOCATION, [this] {
                return L"BlockingQueue is not empty : " + std::to_wstring(_queue.size());
            });
        }
        logAt(LoggerT::getTraceLevel(), ZU_LOCATION, [] { return std::wstring(L"~Dtor end"); });
    }

    /// Waiting put: appends `obj` when the queue is not paused, not full and `epoch` is 0
    /// or current; otherwise waits until that holds or the deadline passes (1). A non-zero
    /// epoch older than the current one is stale (2); a newer one waits for the queue to
    /// reach it. Disabled: 3, also when disabled during the wait.
    virtual PutResult putObjectNoLock(Lock& lock, const T& obj, const TimePoint& deadline,
                                      const Epoch& epoch) {
        if (!_enabled) {
            return PutDisabled;
        }
        while (isZero(epoch) || !(epoch < _epoch)) {
            if (!_paused && _queue.size() < _capacity && (isZero(epoch) || epoch == _epoch)) {
                appendAndNotify(obj);
                return PutStored;
            }
            if (Clock::now() >= deadline) {
                return PutTimedOut;
            }
            if (!_condition.waitUntil(lock, deadline)) {
                return PutTimedOut;
            }
            if (!_enabled) {
                return PutDisabled;
            }
        }
        return PutStaleEpoch;
    }

    /// Non-waiting put: 3 disabled, 2 stale, 5 paused, 4 full, else 0.
    virtual PutResult tryPutObjectNoLock(Lock& lock, const T& obj, const Epoch& epoch) {
        if (!_enabled) {
            return PutDisabled;
        }
        if (isStale(epoch)) {
            return PutStaleEpoch;
        }
        if (_paused) {
            return PutPaused;
        }
        if (_queue.size() >= _capacity) {
            return PutFull;
        }
        appendAndNotify(obj);
        return PutStored;
    }

    /// Put that makes room: on a full queue drops the oldest element first (6); else as
    /// tryPutObjectNoLock without the full case.
    virtual PutResult tryPutObjectDropFrontNoLock(Lock& lock, const T& obj, const Epoch& epoch) {
        if (!_enabled) {
            return PutDisabled;
        }
        if (isStale(epoch)) {
            return PutStaleEpoch;
        }
        if (_paused) {
            return PutPaused;
        }
        PutResult result = PutStored;
        if (_queue.size() == _capacity) {
            _queue.pop_front();
            result = PutDroppedFront;
        }
        BOOST_ASSERT(_queue.size() < _capacity);
        appendAndNotify(obj);
        return result;
    }

    /// As putObjectNoLock, ignoring the paused state; any non-zero epoch differing from the
    /// current one (also while waiting) is stale (2).
    virtual PutResult putObjectIgnorePauseNoLock(Lock& lock, const T& obj,
                                                 const TimePoint& deadline, const Epoch& epoch) {
        if (!_enabled) {
            return PutDisabled;
        }
        while (isZero(epoch) || epoch == _epoch) {
            if (_queue.size() < _capacity) {
                appendAndNotify(obj);
                return PutStored;
            }
            if (Clock::now() >= deadline) {
                return PutTimedOut;
            }
            if (!_condition.waitUntil(lock, deadline)) {
                return PutTimedOut;
            }
            if (!_enabled) {
                return PutDisabled;
            }
        }
        return PutStaleEpoch;
    }

    /// The queue's current epoch.
    virtual Epoch getEpoch() { return _epoch; }

    /// Sets the epoch, clears the interrupted flag and wakes every waiter.
    virtual void setEpoch(const Epoch& epoch) {
        _epoch = epoch;
        _interrupted = false;
        _condition.notifyAll();
    }

    /// Advances the epoch by one, clears the interrupted flag and wakes every waiter.
    virtual void nextEpoch() {
        ++_epoch;
        _interrupted = false;
        _condition.notifyAll();
    }

    /// clear(), then nextEpoch().
    virtual void clearAndNextEpoch() {
        clear();
        nextEpoch();
    }

    /// Waiting take: copies the front element to `out` and, unless `peek`, removes it (0).
    /// Waits while the queue is empty, or paused and not peeking. Checked in order on each
    /// round: interrupted (6), stale epoch (2). Disabled: 3, also when disabled during the
    /// wait. When the deadline passes it logs "Blocking queue getObject() timed out" at
    /// trace level and returns 1.
    virtual GetResult getObjectNoLock(Lock& lock, T& out, const TimePoint& deadline,
                                      const Epoch& epoch, bool peek) {
        if (!_enabled) {
            return GetDisabled;
        }
        for (;;) {
            if (_interrupted) {
                return GetInterrupted;
            }
            if (isStale(epoch)) {
                return GetStaleEpoch;
            }
            if ((!_paused || peek) && !_queue.empty()) {
                const std::size_t sizeBefore = _queue.size();
                out = _queue.front();
                if (!peek) {
                    _queue.pop_front();
                }
                // Only a queue that was full has producers to wake, and only an emptied one
                // matters to waiters of "empty"; otherwise nobody can be waiting.
                if (sizeBefore < _capacity && !_queue.empty()) {
                    return GetDelivered;
                }
                _condition.notifyAll();
                return GetDelivered;
            }
            if (Clock::now() >= deadline || !_condition.waitUntil(lock, deadline)) {
                break;
            }
            if (!_enabled) {
                return GetDisabled;
            }
        }
        logAt(LoggerT::getTraceLevel(), ZU_LOCATION,
              [] { return std::wstring(L"Blocking queue getObject() timed out"); });
        return GetTimedOut;
    }

    /// Non-waiting take: 6 interrupted, 3 disabled, 2 stale, 5 paused (unless peeking),
    /// 4 empty, else 0.
    virtual GetResult tryGetObjectNoLock(T& out, const Epoch& epoch, bool peek) {
        if (_interrupted) {
            return GetInterrupted;
        }
        if (!_enabled) {
            return GetDisabled;
        }
        if (isStale(epoch)) {
            return GetStaleEpoch;
        }
        if (_paused && !peek) {
            return GetPaused;
        }
        if (_queue.empty()) {
            return GetEmpty;
        }
        const bool wasFull = _queue.size() >= _capacity;
        out = _queue.front();
        if (!peek) {
            _queue.pop_front();
        }
        if (wasFull || _queue.empty()) {
            _condition.notifyAll();
        }
        return GetDelivered;
    }

    /// When enabled and not empty: copies the newest element to `out`, empties the queue
    /// and, when `reput`, puts that element back with tryPutObjectNoLock (epoch 0; a paused
    /// queue refuses it). Returns whether there was an element.
    virtual bool keepNewestNoLock(Lock& lock, T& out, bool reput) {
        if (!_enabled || _queue.empty()) {
            return false;
        }
        const bool wasFull = _queue.size() >= _capacity;
        out = _queue.back();
        _queue.clear();
        if (reput) {
            tryPutObjectNoLock(lock, out, Epoch{});
        }
        if (wasFull) {
            _condition.notifyAll();
        }
        return true;
    }

    /// Removes the first element equal to `obj` (every one when `all`), keeping the order
    /// of the rest. Returns whether anything was removed.
    virtual bool dequeueObjectNoLock(const T& obj, bool all) {
        const bool wasFull = _queue.size() >= _capacity;
        std::deque<T> newQueue;
        bool removed = false;
        for (const T& element : _queue) {
            if ((all || !removed) && element == obj) {
                removed = true;
                continue;
            }
            BOOST_ASSERT(newQueue.size() < _capacity);
            newQueue.push_back(element);
        }
        if (removed) {
            _queue.swap(newQueue);
            if (wasFull) {
                _condition.notifyAll();
            }
        }
        return removed;
    }

    /// Whether the queue is enabled (a disabled queue answers every operation with 3).
    virtual bool isEnabled() { return _enabled; }

    /// Disabling wakes every waiter, which then returns 3.
    virtual void setEnabled(bool enabled) {
        _enabled = enabled;
        if (!enabled) {
            _condition.notifyAll();
        }
    }

    /// Whether the interrupted flag is set.
    virtual bool isInterrupted() { return _interrupted; }

    /// Setting the flag wakes every waiter; waiting takes then return 6 until the flag is
    /// cleared (setInterrupted(false), setEpoch, nextEpoch).
    virtual void setInterrupted(bool interrupted) {
        _interrupted = interrupted;
        if (interrupted) {
            _condition.notifyAll();
        }
    }

    /// Whether no element is queued.
    virtual bool empty() { return _queue.empty(); }
    /// The number of elements queued.
    virtual std::size_t size() { return _queue.size(); }

    /// 3 when disabled; 1 when pausing a paused queue, 2 when unpausing a running one;
    /// else changes the state and returns 0 (unpausing wakes every waiter).
    virtual PauseResult setPaused(bool paused) {
        if (!_enabled) {
            return PauseDisabled;
        }
        if (paused == _paused) {
            return _paused ? PauseAlreadyPaused : PauseAlreadyRunning;
        }
        _paused = paused;
        if (!paused) {
            _condition.notifyAll();
        }
        return PauseChanged;
    }

    /// Whether the queue is paused.
    virtual bool isPaused() { return _paused; }

    /// Empties the queue and wakes every waiter.
    virtual void clear() {
        _queue.clear();
        _condition.notifyAll();
    }

    /// --- Conveniences: each locks the mutex itself. ---

    /// The queue's mutex, to be locked around the NoLock operations and state accessors.
    std::mutex& getMutex() { return _mutex; }

    /// putObjectNoLock with a deadline `timeoutMs` from now (ZU_TIMEOUT_INFINITE: none).
    PutResult putObject(const T& obj, unsigned int timeoutMs = ZU_TIMEOUT_INFINITE,
                        const Epoch& epoch = Epoch{}) {
        Lock lock(_mutex);
        return putObjectNoLock(lock, obj, deadlineAfter(timeoutMs), epoch);
    }

    /// tryPutObjectNoLock under the queue's mutex.
    PutResult tryPutObject(const T& obj, const Epoch& epoch = Epoch{}) {
        Lock lock(_mutex);
        return tryPutObjectNoLock(lock, obj, epoch);
    }

    /// tryPutObjectDropFrontNoLock under the queue's mutex.
    PutResult tryPutObjectDropFront(const T& obj, const Epoch& epoch = Epoch{}) {
        Lock lock(_mutex);
        return tryPutObjectDropFrontNoLock(lock, obj, epoch);
    }

    /// getObjectNoLock with a deadline `timeoutMs` from now (ZU_TIMEOUT_INFINITE: none).
    GetResult getObject(T& out, unsigned int timeoutMs = ZU_TIMEOUT_INFINITE,
                        const Epoch& epoch = Epoch{}, bool peek = false) {
        Lock lock(_mutex);
        return getObjectNoLock(lock, out, deadlineAfter(timeoutMs), epoch, peek);
    }

    /// tryGetObjectNoLock under the queue's mutex.
    GetResult tryGetObject(T& out, const Epoch& epoch = Epoch{}, bool peek = false) {
        Lock lock(_mutex);
        return tryGetObjectNoLock(out, epoch, peek);
    }

    /// Disables the queue if it is enabled, which wakes every waiter with the disabled
    /// result; used when the owner shuts down. (The queue has no parent-queue link to
    /// inform; link mutex and link were left out as nothing links queues.)
    void shutdown() {
        Lock lock(_mutex);
        if (_enabled) {
            setEnabled(false);
        }
    }

    /// Diagnostics: waits registered on the queue's condition since it last woke everyone
    /// (see ConditionVariableBase::getWaiterCount). Needs no lock.
    std::uint32_t getWaiterCount() const { return _condition.getWaiterCount(); }

    /// The logger of this instantiation.
    static const std::shared_ptr<LoggerT>& getLogger() {
        static const std::shared_ptr<LoggerT> logger =
            LoggerT::getLogger("ZuCore.BlockingQueue<" + CommonUtil::getNiceTypeName<T>() + ">");
        return logger;
    }

  private:
    static bool isZero(const Epoch& epoch) { return epoch == Epoch{}; }
    bool isStale(const Epoch& epoch) const { return !isZero(epoch) && !(epoch == _epoch); }

    static TimePoint deadlineAfter(unsigned int timeoutMs) {
        return timeoutMs == ZU_TIMEOUT_INFINITE
                   ? TimePoint::max()
                   : Clock::now() + std::chrono::milliseconds(timeoutMs);
    }

    void appendAndNotify(const T& obj) {
        const bool wasEmpty = _queue.empty();
        _queue.push_back(obj);
        if (wasEmpty) {
            _condition.notifyAll();
        }
    }

    template <class MakeText>
    static void logAt(const typename LoggerT::Level& level, const LoggerLocationInfo& where,
                      MakeText makeText) {
        const std::shared_ptr<LoggerT>& logger = getLogger();
        if (logger && logger->isEnabledFor(level)) {
            logger->log(makeText(), where, level);
        }
    }

    std::deque<T> _queue;
    std::mutex _mutex;
    ConditionVariable _condition;
    bool _enabled = true;
    bool _interrupted = false;
    std::size_t _capacity;
    bool _paused = false;
    Epoch _epoch;
};

}  // namespace Zu
}  // namespace Varkel
