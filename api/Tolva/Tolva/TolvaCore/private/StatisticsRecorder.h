// StatisticsRecorder: the counters, gauges and latency windows behind
// QxPlatformApi::statistics(). The API object's operations record into it as they go; a
// snapshot can be taken from any thread at any time.
//
// Counters are atomics, bumped where the event happens, so recording costs one atomic add and
// never waits for a reader; the snapshot reads each outcome before the request it counts. Latencies
// go into small rings under a lock of their own, held for one store. The recorder is shared:
// delivery jobs and the periodic report hold it, and may outlive the API object.
#pragma once

#include <TolvaCore/ApiStatistics.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

class DeliveryThreads;
class MailboxRegistry;

// The most recent ApiStatistics::kLatencyWindow durations of one kind.
class LatencyWindow {
  public:
    void add(std::chrono::steady_clock::duration elapsed);
    ApiStatistics::Latency summary() const;

  private:
    mutable std::mutex mutex_;
    std::array<std::int64_t, ApiStatistics::kLatencyWindow> microseconds_{};
    std::size_t next_ = 0;
    std::size_t count_ = 0;
};

class StatisticsRecorder {
  public:
    using Counter = std::atomic<std::uint64_t>;

    explicit StatisticsRecorder(std::weak_ptr<DeliveryThreads> deliveryThreads);

    // Sequentially consistent (on x86 the same locked add as a relaxed one): a snapshot that
    // reads an outcome also sees the request it belongs to, which another thread counted
    // before the outcome happened.
    static void bump(Counter& counter, std::uint64_t by = 1) { counter.fetch_add(by); }

    // Heartbeats and the service table.
    void heartbeat(const std::wstring& serviceId, bool succeeded);
    void serviceRegistered(const std::wstring& serviceId);
    void serviceUnregistered(const std::wstring& serviceId);

    ApiStatistics snapshot() const;

    // Where snapshots read the per-mailbox view from; the registry outlives no snapshot it is
    // asked for, since it is held weakly.
    void setMailboxViews(std::weak_ptr<MailboxRegistry> registry);

    Counter postsSent{0};
    Counter postsFailed{0};
    Counter pollsSent{0};
    Counter pollsWithMail{0};
    Counter pollsEmpty{0};
    Counter pollsTransportFailures{0};
    Counter pollsStatusFailures{0};
    Counter pollsUnreadable{0};
    Counter pollsCancelled{0};
    Counter pollsEndedByDeletion{0};
    Counter pollsWaitingForToken{0};
    Counter statusRetries{0};
    Counter mailboxesRecreated{0};
    Counter servicesRegisteredAgain{0};
    Counter transportRetries{0};
    Counter requestsSentAgain{0};
    Counter mailDelivered{0};
    Counter listenerExceptions{0};
    Counter tokenRenewals{0};
    Counter tokenFailures{0};
    Counter mailboxesCreated{0};
    Counter mailboxesDeleted{0};
    Counter mailboxesDroppedByStatus{0};
    Counter mailboxesDroppedUnreadable{0};
    Counter mailboxesDroppedNotStarted{0};
    // Gauges, stored by whoever changes what they measure, under that thing's own lock.
    Counter mailboxesLive{0};
    Counter pollsInFlight{0};

    LatencyWindow postRoundTrip;
    LatencyWindow pollAnswerToListener;

  private:
    struct ServiceCounts {
        std::uint64_t sent = 0;
        std::uint64_t failed = 0;
        bool registered = false;
    };

    const std::chrono::steady_clock::time_point madeAt_ = std::chrono::steady_clock::now();
    const std::weak_ptr<DeliveryThreads> deliveryThreads_;
    // Set once, before the object is shared with any other thread.
    std::weak_ptr<MailboxRegistry> registry_;
    mutable std::mutex servicesMutex_;
    std::map<std::wstring, ServiceCounts> services_;
    std::uint64_t heartbeatsSent_ = 0;
    std::uint64_t heartbeatsFailed_ = 0;
};

// Exceptions thrown by listeners on the calling thread so far: Mailbox::receiveMail counts
// each one it catches, so that the delivery job around it can tell how many its mail caused.
std::uint64_t& listenerExceptionsOnThisThread();

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
