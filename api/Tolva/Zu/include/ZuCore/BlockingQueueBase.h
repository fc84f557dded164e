/// @class Varkel::Zu::BlockingQueueBase
/// Result codes shared by every BlockingQueue instantiation.
#pragma once

namespace Varkel {
namespace Zu {

/// Non-template base of BlockingQueue: the result enums, whose values are part of the
/// interface (callers store and compare them as numbers).
class BlockingQueueBase {
  public:
    /// Outcome of a put.
    enum PutResult : int {
        PutStored = 0,        ///< the element was appended
        PutTimedOut = 1,      ///< the deadline passed while the queue stayed full
        PutStaleEpoch = 2,    ///< the given epoch is not the queue's (older, or differing)
        PutDisabled = 3,      ///< the queue is disabled
        PutFull = 4,          ///< non-waiting put on a full queue
        PutPaused = 5,        ///< the queue is paused
        PutDroppedFront = 6,  ///< appended after dropping the oldest element
    };

    /// Outcome of a get.
    enum GetResult : int {
        GetDelivered = 0,    ///< an element was copied out
        GetTimedOut = 1,     ///< the deadline passed while the queue stayed empty
        GetStaleEpoch = 2,   ///< the given epoch differs from the queue's
        GetDisabled = 3,     ///< the queue is disabled
        GetEmpty = 4,        ///< non-waiting get on an empty queue
        GetPaused = 5,       ///< non-waiting get (not peeking) on a paused queue
        GetInterrupted = 6,  ///< the queue's interrupted flag is set
    };

    /// Outcome of setPaused.
    enum PauseResult : int {
        PauseChanged = 0,         ///< the state was changed as requested
        PauseAlreadyPaused = 1,   ///< pausing a paused queue
        PauseAlreadyRunning = 2,  ///< unpausing a queue that is not paused
        PauseDisabled = 3,        ///< the queue is disabled
    };

    virtual ~BlockingQueueBase() = default;

  protected:
    BlockingQueueBase() = default;
    BlockingQueueBase(const BlockingQueueBase&) = delete;
    BlockingQueueBase& operator=(const BlockingQueueBase&) = delete;
};

}  // namespace Zu
}  // namespace Varkel
