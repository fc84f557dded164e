/// @class Varkel::Tolva::Rest::ApiStatistics
/// ApiStatistics: a snapshot of what one QxPlatformApi has sent, received, retried and lost
/// since it was made, taken by QxPlatformApi::statistics() at any time, from any thread,
/// without stopping the object's work.
///
/// Counters only grow; gauges are values at the moment of the snapshot; latencies summarise
/// the most recent kLatencyWindow samples. Counters are read one at a time, each after the
/// counters that depend on it, so a snapshot taken while the object works never shows more
/// outcomes than requests: postsFailed <= postsSent, and the poll outcomes (withMail, empty,
/// transportFailures, statusFailures, unreadable, cancelled, endedByDeletion) add up to at
/// most pollsSent.
/// When no request is under way, pollsSent equals those outcomes plus pollsInFlight.
///
/// toJson() gives the same snapshot as one JSON document (the field names and units are
/// listed there). No secret is in it: mailbox ids and service ids may be, never a token, an
/// API key, a mailbox secret or a service secret.
///
///   const ApiStatistics stats = api->statistics();
///   std::wcout << stats.postsSent << L" posts, " << stats.postsFailed << L" failed\n";
///   std::wcout << stats.toJson() << L"\n";
#pragma once

#include <TolvaCore/MailboxState.h>
#include <TolvaCore/TolvaExport.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Varkel {
namespace Tolva {
namespace Rest {

class TOLVA_EXPORT ApiStatistics {
  public:
    /// Latency percentiles are taken over this many most recent samples of each kind.
    static constexpr std::size_t kLatencyWindow = 1024;

    /// Percentiles of one kind of latency over the recent window (all zero without samples).
    struct Latency {
        std::uint64_t samples = 0;         ///< Samples in the window (at most kLatencyWindow).
        std::chrono::microseconds p50{0};  ///< Median.
        std::chrono::microseconds p90{0};  ///< 90th percentile (nearest rank).
        std::chrono::microseconds p99{0};  ///< 99th percentile (nearest rank).
        std::chrono::microseconds max{0};  ///< Longest sample in the window.
    };

    /// Heartbeats of one service, kept for every service this object registered, also after
    /// it was unregistered.
    struct ServiceHeartbeats {
        std::wstring serviceId;  ///< The id the platform returned at registration.
        std::uint64_t sent = 0;  ///< Heartbeats sent.
        /// Heartbeats answered by anything but 204 or failed in transport (a platform slower
        /// than the client's 30-second time-out included).
        std::uint64_t failed = 0;
        bool registered = false;  ///< Whether the service is registered now.
    };

    /// One mailbox as its API object sees it: those in its table, and the most recent ones
    /// dropped after a poll's status (up to 256).
    struct MailboxView {
        std::wstring mailboxId;                     ///< The mailbox id's text form.
        MailboxState state = MailboxState::Queued;  ///< Where it stands now.
        unsigned int consecutiveFailures = 0;       ///< Failed polls since the last answer.
        int lastHttpStatus = 0;  ///< The status of the last failure, 0 when none or none had one.
        std::wstring lastError;  ///< The text of the last failure, "" when none.
    };

    std::chrono::system_clock::time_point takenAt;  ///< When the snapshot was taken.
    std::chrono::milliseconds uptime{0};            ///< How long the object had lived then.

    /// Notifications posted (postNotification, request and reply, the notifier): requests
    /// sent.
    std::uint64_t postsSent = 0;
    /// Posts that failed: a status other than 204, or a transport failure.
    std::uint64_t postsFailed = 0;
    /// Round trip of the posts the platform accepted, from sending to the 204.
    Latency postRoundTrip;

    /// Long polls sent. Each ends in one of the outcomes below, or is still in flight.
    std::uint64_t pollsSent = 0;
    std::uint64_t pollsWithMail = 0;  ///< Answered 200 with at least one notification.
    std::uint64_t pollsEmpty = 0;     ///< Answered 204, or 200 with no notification.
    /// Failed in transport (connection refused or lost, the client's time-out); polled again
    /// after a back-off.
    std::uint64_t pollsTransportFailures = 0;
    /// Answered with another status; the mailbox is dropped.
    std::uint64_t pollsStatusFailures = 0;
    /// Answered with a body that cannot be read; the mailbox is dropped.
    std::uint64_t pollsUnreadable = 0;
    std::uint64_t pollsCancelled = 0;  ///< Cancelled because the object ended.
    /// Ended because the host deleted (or created again) their mailbox while they were out;
    /// whatever they brought is not delivered. Not a failure.
    std::uint64_t pollsEndedByDeletion = 0;
    /// Polls not sent because there was no token yet (resilient mode); the mailbox backs off
    /// and the token is renewed. Not counted in pollsSent.
    std::uint64_t pollsWaitingForToken = 0;
    /// Polls answered 401, 429, 502, 503 or 504 and polled again after a back-off (resilient
    /// mode; counted among pollsStatusFailures too).
    std::uint64_t statusRetries = 0;
    /// Requests sent again after a transport failure: a poll that failed in transport is
    /// polled again after its back-off. Posts, registrations and token requests are never
    /// sent again by the library.
    std::uint64_t transportRetries = 0;
    /// Requests of any kind sent once more, on a new connection, because they could not be
    /// written on a kept-alive connection that the server had closed while it was idle (a
    /// request that was not written cannot have been processed). Counted by the library
    /// itself; the HTTP library also sends a request again, uncounted, when such a connection
    /// is closed before the answer's status line.
    std::uint64_t requestsSentAgain = 0;

    /// Notifications handed to listeners (each counted once per mailbox, however many
    /// listeners it has).
    std::uint64_t mailDelivered = 0;
    /// Exceptions the listeners threw (caught and logged by the mailbox).
    std::uint64_t listenerExceptions = 0;
    /// From a poll's answer having arrived whole (its body read) to its mailbox's listeners
    /// being called: the library's own part of a delivery.
    Latency pollAnswerToListener;

    std::uint64_t heartbeatsSent = 0;         ///< Heartbeats sent, over all services.
    std::uint64_t heartbeatsFailed = 0;       ///< Heartbeats failed, over all services.
    std::vector<ServiceHeartbeats> services;  ///< Heartbeats per service, in id order.

    /// Tokens obtained (at construction and on every renewal).
    std::uint64_t tokenRenewals = 0;
    /// Token requests that failed (the token or the key set request).
    std::uint64_t tokenFailures = 0;

    std::uint64_t mailboxesCreated = 0;  ///< Mailboxes created through this object.
    std::uint64_t mailboxesDeleted = 0;  ///< Mailboxes deleted through this object.
    /// Mailboxes dropped because a poll was answered with a status other than 200 or 204
    /// (404 after the platform lost the mailbox, say).
    std::uint64_t mailboxesDroppedByStatus = 0;
    /// Mailboxes dropped because a poll's answer could not be read.
    std::uint64_t mailboxesDroppedUnreadable = 0;
    /// Mailboxes dropped because a poll could not be started.
    std::uint64_t mailboxesDroppedNotStarted = 0;

    /// Mailboxes the platform had lost (a poll answered 404) and that were created again
    /// (resilient mode).
    std::uint64_t mailboxesRecreated = 0;
    /// Services registered again after a heartbeat answered 404 (resilient mode).
    std::uint64_t servicesRegisteredAgain = 0;
    /// Every mailbox's state and last failure, in id order (table first, then stopped ones).
    std::vector<MailboxView> mailboxes;

    /// Gauge: mailboxes in this object's table.
    std::uint64_t mailboxesLive = 0;
    /// Gauge: polls whose task has not ended (deleted mailboxes' last polls included).
    std::uint64_t pollsInFlight = 0;
    /// Gauge: services registered.
    std::uint64_t servicesRegistered = 0;
    /// Gauge: delivery jobs waiting for a free delivery thread.
    std::uint64_t deliveryBacklog = 0;

    /// The snapshot as one JSON document (schema "tolva.statistics/1"); durations in
    /// milliseconds (names ending "Ms") or microseconds ("Us"):
    /// {"schema", "takenAt" (ISO 8601 UTC), "uptimeMs",
    ///  "posts": {"sent", "failed", "roundTripUs": LATENCY},
    ///  "polls": {"sent", "withMail", "empty", "transportFailures", "statusFailures",
    ///            "unreadable", "cancelled", "endedByDeletion", "waitingForToken",
    ///            "statusRetries", "inFlight"},
    ///  "transportRetries",
    ///  "mail": {"delivered", "listenerExceptions", "backlog", "answerToListenerUs": LATENCY},
    ///  "heartbeats": {"sent", "failed",
    ///                 "services": [{"serviceId", "sent", "failed", "registered"}]},
    ///  "services": {"registered", "registeredAgain"},
    ///  "tokens": {"renewals", "failures"},
    ///  "mailboxes": {"live", "created", "deleted", "recreated",
    ///                "dropped": {"status", "unreadable", "notStarted"},
    ///                "each": [{"mailboxId", "state" (mailboxStateName), "consecutiveFailures",
    ///                          "lastHttpStatus", "lastError"}]}}
    /// where LATENCY is {"samples", "p50", "p90", "p99", "max"}. Counts are JSON numbers
    /// (integers). Never throws except std::bad_alloc. Any thread.
    std::wstring toJson() const;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
