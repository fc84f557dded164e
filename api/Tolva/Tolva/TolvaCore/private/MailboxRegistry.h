// MailboxRegistry: the one owner of the life of every mailbox an API object created. Whatever
// would poll a mailbox again, hand it mail, back it off, stop it, delete it or create it again
// asks here, under one lock, so the answer cannot depend on who asks:
// - a mailbox is in exactly one MailboxState, and at most one poll of it is outstanding;
// - a stopped or deleted mailbox is never polled or fed again;
// - every change the host did not cause itself is published as an ApiEvent.
//
// Shared by the API object with the delivery jobs, which may outlive it; close() ends its use.
// Its lock is a leaf below the API object's lock: it is never held across a request, a queue
// wait or host code.
#pragma once

#include "MailboxLife.h"

#include <TolvaCore/ApiEvent.h>
#include <TolvaCore/ApiStatistics.h>
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/RecoveryMode.h>

#include <ZuCore/BlockingQueue.h>
#include <ZuCore/Logger.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <pplx/pplxtasks.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

class DeliveryThreads;
class EventDispatcher;
class StatisticsRecorder;

class MailboxRegistry {
  public:
    using Queue = Varkel::Zu::BlockingQueue<std::shared_ptr<Mailbox>, int, Varkel::Zu::Logger>;
    using Clock = std::chrono::steady_clock;

    // How a poll ended.
    enum class Outcome {
        Mail,              // 200 with notifications (to be delivered)
        Empty,             // 204, or 200 with none
        TransportFailure,  // no answer (refused, reset, timed out, cancelled)
        Status,            // answered with another status
        Unreadable,        // 200 whose body could not be read
        NotStarted,        // the request could not be built or sent
        NoToken            // not sent: there is no token yet (resilient mode)
    };

    // What the API object must do after a poll's outcome; everything else (queueing, backing
    // off, stopping, the logs and events) the registry has done.
    enum class Action {
        None,
        Deliver,     // post the mail to a delivery thread, then call afterDelivery
        RenewToken,  // the token is missing or was refused: get a new one
        Recreate     // the platform lost the mailbox: create it again, then call recreated
    };

    MailboxRegistry(std::shared_ptr<Queue> queue, std::shared_ptr<StatisticsRecorder> statistics,
                    std::shared_ptr<EventDispatcher> events,
                    std::shared_ptr<DeliveryThreads> deliveryThreads, RecoveryMode mode);

    void setMode(RecoveryMode mode) { mode_ = mode; }
    RecoveryMode mode() const { return mode_; }

    // A mailbox the platform has just created: a new record, queued for its first poll. A
    // record the same id had is replaced (its poll cancelled, its cycle ended).
    void enter(const std::shared_ptr<Mailbox>& mailbox, const std::wstring& id,
               const std::wstring& subscription);

    // A subscription changed on the platform (kept for creating the mailbox again).
    void subscriptionChanged(const std::wstring& id, const std::wstring& topic, bool subscribed);

    // deleteMailbox: the record leaves the table before the request is sent and is polled no
    // more (its outstanding poll is cancelled, its retry forgotten). Returns false when the
    // table has no such mailbox; with `stoppedToo`, a mailbox stopped by a status counts.
    bool beginDelete(const std::wstring& id, bool stoppedToo);

    // The polling thread took `mailbox` from the queue: its record, now Polling, when it is
    // current and queued (the reference taken is then let go of here, where it cannot be the
    // last); otherwise null, and `mailbox` is left to the caller (a stale queue entry).
    std::shared_ptr<MailboxLife> takeForPoll(std::shared_ptr<Mailbox>& mailbox);

    // Lets go of a reference to a record: here when the table still holds the record, else on
    // a delivery thread (the record's mailbox may be the host's last reference, and its
    // listener may hold the API object, which must not end on a pool or polling thread).
    void letGo(std::shared_ptr<MailboxLife>&& life);

    // The poll of `life` was sent: its task and cancellation. A record deleted meanwhile has
    // its poll cancelled at once.
    void pollStarted(const std::shared_ptr<MailboxLife>& life, const pplx::task<void>& task,
                     const pplx::cancellation_token_source& cancellation);

    // A poll of `life` ended with `outcome` (`status` and `text` describe a failure).
    Action afterPoll(const std::shared_ptr<MailboxLife>& life, Outcome outcome, int status = 0,
                     const std::wstring& text = L"");

    // Whether mail of `life` may still reach its listeners (not deleted or replaced).
    bool mayDeliver(const std::shared_ptr<MailboxLife>& life);

    // The listeners of `life` have returned: queue it for its next poll if it is still current.
    void afterDelivery(const std::shared_ptr<MailboxLife>& life);

    // Recreation of a lost mailbox succeeded (queued again, the host told; returns false when
    // the record was deleted meanwhile, so the new platform mailbox is unwanted) or failed
    // (returns whether to go on trying: while the record is current and recovering).
    bool recreated(const std::shared_ptr<MailboxLife>& life, bool succeeded,
                   const std::wstring& failure = L"");
    // The topics `life` is subscribed to, the creation's first.
    std::vector<std::wstring> subscriptions(const std::shared_ptr<MailboxLife>& life);
    // Whether `life` is still the current, recovering record.
    bool isRecovering(const std::shared_ptr<MailboxLife>& life);

    // Queues the mailboxes whose back-off has passed; the next such instant (far future when
    // none).
    void queueDueRetries();
    Clock::time_point nextRetryDeadline();

    // True once a mailbox was created and every one created has since left the table.
    bool hasDeletedMailboxes();

    // Every mailbox's id, state and last failure, the table's and the stopped ones.
    std::vector<ApiStatistics::MailboxView> views();

    // The object ends: nothing is queued, delivered or published any more. Cancels every
    // outstanding poll and returns their tasks to wait for.
    std::vector<pplx::task<void>> close();

    // The oldest stopped mailboxes are forgotten beyond this many.
    static constexpr std::size_t kStoppedKept = 256;

  private:
    bool isCurrentLocked(const std::shared_ptr<MailboxLife>& life) const;
    // The record as the statistics show it; the lock is held.
    static ApiStatistics::MailboxView viewOf(const MailboxLife& life);
    // Returns the delay before the next poll.
    std::chrono::milliseconds backOffLocked(const std::shared_ptr<MailboxLife>& life, int status,
                                            const std::wstring& text, bool tellAtOnce);
    void stopLocked(const std::shared_ptr<MailboxLife>& life, int status, const std::wstring& text,
                    bool dropFromTable);
    // Takes the record out of the cycle; returns its outstanding poll's source to cancel.
    std::vector<pplx::cancellation_token_source> endRecordLocked(
        const std::shared_ptr<MailboxLife>& life);
    static void cancel(const std::vector<pplx::cancellation_token_source>& polls);
    void queue(const std::shared_ptr<MailboxLife>& life);
    void publish(ApiEvent::Kind kind, const std::wstring& subject, int status,
                 const std::wstring& reason);
    void updateLiveGauge();

    const std::shared_ptr<Queue> queue_;
    const std::shared_ptr<StatisticsRecorder> statistics_;
    const std::shared_ptr<EventDispatcher> events_;
    const std::shared_ptr<DeliveryThreads> deliveryThreads_;
    std::atomic<RecoveryMode> mode_;

    std::mutex mutex_;
    bool closed_ = false;
    bool created_ = false;
    std::uint64_t generations_ = 0;
    std::map<std::wstring, std::shared_ptr<MailboxLife>> table_;
    // What is known of the mailboxes dropped after a status, newest last: for the statistics
    // and, in resilient mode, for deleteMailbox. Not the records themselves: a dropped mailbox
    // (and its listeners) is let go of as it always was.
    std::deque<ApiStatistics::MailboxView> stopped_;
    // Backing-off mailboxes by the instant they may be polled again.
    std::multimap<Clock::time_point, std::weak_ptr<MailboxLife>> retries_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
