#include "StatisticsRecorder.h"

#include "MailboxRegistry.h"

#include "DeliveryThreads.h"

#include <algorithm>
#include <vector>

namespace Varkel {
namespace Tolva {
namespace Rest {

using std::chrono::microseconds;

std::uint64_t& listenerExceptionsOnThisThread() {
    thread_local std::uint64_t count = 0;
    return count;
}

void LatencyWindow::add(std::chrono::steady_clock::duration elapsed) {
    const std::int64_t us = std::chrono::duration_cast<microseconds>(elapsed).count();
    std::lock_guard<std::mutex> lock(mutex_);
    microseconds_[next_] = std::max<std::int64_t>(us, 0);
    next_ = (next_ + 1) % microseconds_.size();
    count_ = std::min(count_ + 1, microseconds_.size());
}

ApiStatistics::Latency LatencyWindow::summary() const {
    std::vector<std::int64_t> samples;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        samples.assign(microseconds_.begin(), microseconds_.begin() + count_);
    }
    ApiStatistics::Latency latency;
    latency.samples = samples.size();
    if (samples.empty()) {
        return latency;
    }
    std::sort(samples.begin(), samples.end());
    // Nearest rank: the smallest sample with at least p% of the samples at or below it.
    const auto rank = [&samples](unsigned percent) {
        const std::size_t atOrBelow = (samples.size() * percent + 99) / 100;
        return microseconds(samples[std::max<std::size_t>(atOrBelow, 1) - 1]);
    };
    latency.p50 = rank(50);
    latency.p90 = rank(90);
    latency.p99 = rank(99);
    latency.max = microseconds(samples.back());
    return latency;
}

StatisticsRecorder::StatisticsRecorder(std::weak_ptr<DeliveryThreads> deliveryThreads)
    : deliveryThreads_(std::move(deliveryThreads)) {}

void StatisticsRecorder::heartbeat(const std::wstring& serviceId, bool succeeded) {
    std::lock_guard<std::mutex> lock(servicesMutex_);
    ServiceCounts& counts = services_[serviceId];
    ++counts.sent;
    ++heartbeatsSent_;
    if (!succeeded) {
        ++counts.failed;
        ++heartbeatsFailed_;
    }
}

void StatisticsRecorder::serviceRegistered(const std::wstring& serviceId) {
    std::lock_guard<std::mutex> lock(servicesMutex_);
    services_[serviceId].registered = true;
}

void StatisticsRecorder::serviceUnregistered(const std::wstring& serviceId) {
    std::lock_guard<std::mutex> lock(servicesMutex_);
    const auto found = services_.find(serviceId);
    if (found != services_.end()) {
        found->second.registered = false;
    }
}

ApiStatistics StatisticsRecorder::snapshot() const {
    ApiStatistics stats;
    stats.takenAt = std::chrono::system_clock::now();
    stats.uptime = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - madeAt_);

    // Outcomes first, then the requests they belong to (see bump).
    stats.postsFailed = postsFailed.load();
    stats.postsSent = postsSent.load();
    stats.postRoundTrip = postRoundTrip.summary();

    stats.mailboxesDroppedByStatus = mailboxesDroppedByStatus.load();
    stats.mailboxesDroppedUnreadable = mailboxesDroppedUnreadable.load();
    stats.mailboxesDroppedNotStarted = mailboxesDroppedNotStarted.load();
    stats.transportRetries = transportRetries.load();
    stats.pollsCancelled = pollsCancelled.load();
    stats.pollsEndedByDeletion = pollsEndedByDeletion.load();
    stats.statusRetries = statusRetries.load();
    stats.pollsWaitingForToken = pollsWaitingForToken.load();
    stats.mailboxesRecreated = mailboxesRecreated.load();
    stats.requestsSentAgain = requestsSentAgain.load();
    stats.servicesRegisteredAgain = servicesRegisteredAgain.load();
    stats.pollsUnreadable = pollsUnreadable.load();
    stats.pollsStatusFailures = pollsStatusFailures.load();
    stats.pollsTransportFailures = pollsTransportFailures.load();
    stats.pollsEmpty = pollsEmpty.load();
    stats.pollsWithMail = pollsWithMail.load();
    stats.pollsInFlight = pollsInFlight.load();
    stats.pollsSent = pollsSent.load();

    stats.listenerExceptions = listenerExceptions.load();
    stats.mailDelivered = mailDelivered.load();
    stats.pollAnswerToListener = pollAnswerToListener.summary();

    stats.tokenFailures = tokenFailures.load();
    stats.tokenRenewals = tokenRenewals.load();

    stats.mailboxesDeleted = mailboxesDeleted.load();
    stats.mailboxesLive = mailboxesLive.load();
    stats.mailboxesCreated = mailboxesCreated.load();

    {
        std::lock_guard<std::mutex> lock(servicesMutex_);
        stats.heartbeatsSent = heartbeatsSent_;
        stats.heartbeatsFailed = heartbeatsFailed_;
        stats.services.reserve(services_.size());
        for (const auto& entry : services_) {
            stats.services.push_back(
                {entry.first, entry.second.sent, entry.second.failed, entry.second.registered});
            if (entry.second.registered) {
                ++stats.servicesRegistered;
            }
        }
    }
    if (const auto threads = deliveryThreads_.lock()) {
        stats.deliveryBacklog = threads->queuedCount();
    }
    if (const auto registry = registry_.lock()) {
        stats.mailboxes = registry->views();
    }
    return stats;
}

void StatisticsRecorder::setMailboxViews(std::weak_ptr<MailboxRegistry> registry) {
    registry_ = std::move(registry);
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
