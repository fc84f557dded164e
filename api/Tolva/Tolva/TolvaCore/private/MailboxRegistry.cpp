#include "MailboxRegistry.h"

#include "ApiDefaults.h"
#include "DeliveryThreads.h"
#include "EventDispatcher.h"
#include "StatisticsRecorder.h"

#include <ZuCore/CommonUtil.h>
#include <ZuCore/Constants.h>
#include <ZuCore/DebugLog.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/StringConversion.h>

#include <boost/uuid/uuid_io.hpp>

#include <algorithm>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::DebugLog;
using Varkel::Zu::Logger;

namespace {

bool isRetriedStatus(int status) {
    // Too many requests, and what proxies and load balancers answer while the platform
    // restarts or when a poll outlives their own time-out.
    return status == 429 || status == 502 || status == 503 || status == 504;
}

const std::shared_ptr<Logger>& apiLogger() {
    static const std::shared_ptr<Logger> logger = Logger::getLogger("TolvaCore.QxPlatformApi");
    return logger;
}

std::chrono::milliseconds backOffDelay(unsigned int failures) {
    std::chrono::milliseconds delay = ApiDefaults::kPollRetryFirstDelay;
    for (unsigned int i = 1; i < failures && delay < ApiDefaults::kPollRetryLongestDelay; ++i) {
        delay *= 2;
    }
    return std::min(delay, ApiDefaults::kPollRetryLongestDelay);
}

}  // namespace

MailboxRegistry::MailboxRegistry(std::shared_ptr<Queue> queue,
                                 std::shared_ptr<StatisticsRecorder> statistics,
                                 std::shared_ptr<EventDispatcher> events,
                                 std::shared_ptr<DeliveryThreads> deliveryThreads,
                                 RecoveryMode mode)
    : queue_(std::move(queue)),
      statistics_(std::move(statistics)),
      events_(std::move(events)),
      deliveryThreads_(std::move(deliveryThreads)),
      mode_(mode) {}

void MailboxRegistry::enter(const std::shared_ptr<Mailbox>& mailbox, const std::wstring& id,
                            const std::wstring& subscription) {
    std::shared_ptr<MailboxLife> life;
    std::vector<pplx::cancellation_token_source> polls;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) {
            return;
        }
        auto& slot = table_[id];
        if (slot) {
            // Created again while the old creation still cycles: that cycle ends here.
            slot->deletedByHost = true;
            polls = endRecordLocked(slot);
        }
        life = std::make_shared<MailboxLife>(mailbox, id, ++generations_);
        life->subscriptions.push_back(subscription);
        slot = life;
        created_ = true;
        updateLiveGauge();
    }
    cancel(polls);
    queue(life);
}

void MailboxRegistry::subscriptionChanged(const std::wstring& id, const std::wstring& topic,
                                          bool subscribed) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = table_.find(id);
    if (entry == table_.end()) {
        return;
    }
    auto& topics = entry->second->subscriptions;
    const auto found = std::find(topics.begin(), topics.end(), topic);
    if (subscribed && found == topics.end()) {
        topics.push_back(topic);
    } else if (!subscribed && found != topics.end()) {
        topics.erase(found);
    }
}

bool MailboxRegistry::beginDelete(const std::wstring& id, bool stoppedToo) {
    std::vector<pplx::cancellation_token_source> polls;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto entry = table_.find(id);
        if (entry == table_.end()) {
            if (!stoppedToo) {
                return false;
            }
            const auto stopped =
                std::find_if(stopped_.begin(), stopped_.end(),
                             [&id](const auto& kept) { return kept.mailboxId == id; });
            if (stopped == stopped_.end()) {
                return false;
            }
            stopped_.erase(stopped);
            return true;
        }
        const std::shared_ptr<MailboxLife> life = entry->second;
        table_.erase(entry);
        life->deletedByHost = true;
        life->state = MailboxState::Deleting;
        polls = endRecordLocked(life);
        updateLiveGauge();
    }
    cancel(polls);
    return true;
}

std::shared_ptr<MailboxLife> MailboxRegistry::takeForPoll(std::shared_ptr<Mailbox>& mailbox) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || !mailbox) {
        return nullptr;
    }
    const auto entry = table_.find(Varkel::Zu::widen(boost::uuids::to_string(mailbox->getId())));
    if (entry == table_.end() || entry->second->mailbox != mailbox ||
        entry->second->state != MailboxState::Queued) {
        return nullptr;
    }
    entry->second->state = MailboxState::Polling;
    mailbox.reset();
    return entry->second;
}

void MailboxRegistry::letGo(std::shared_ptr<MailboxLife>&& life) {
    if (!life) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto entry = table_.find(life->id);
        if (entry != table_.end() && entry->second == life) {
            life.reset();
            return;
        }
    }
    deliveryThreads_->release(std::move(life));
}

void MailboxRegistry::pollStarted(const std::shared_ptr<MailboxLife>& life,
                                  const pplx::task<void>& task,
                                  const pplx::cancellation_token_source& cancellation) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        life->receptionTask = task;
        life->pollCancellation = cancellation;
        life->pollOutstanding = true;
        if (life->current && !closed_) {
            return;
        }
    }
    // Deleted between the take and the send.
    cancel({cancellation});
}

MailboxRegistry::Action MailboxRegistry::afterPoll(const std::shared_ptr<MailboxLife>& life,
                                                   Outcome outcome, int status,
                                                   const std::wstring& text) {
    Action action = Action::None;
    bool requeue = false;
    std::chrono::milliseconds retryDelay{-1};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        life->pollOutstanding = false;
        const bool sent = outcome != Outcome::NoToken && outcome != Outcome::NotStarted;
        if (!isCurrentLocked(life) || life->state != MailboxState::Polling) {
            // Deleted, created again or stopped meanwhile: the poll ends without a trace.
            if (sent && life->deletedByHost) {
                StatisticsRecorder::bump(statistics_->pollsEndedByDeletion);
            }
            return Action::None;
        }
        if (closed_) {
            return Action::None;
        }
        const RecoveryMode mode = mode_;
        switch (outcome) {
            case Outcome::Mail:
            case Outcome::Empty:
                StatisticsRecorder::bump(outcome == Outcome::Mail ? statistics_->pollsWithMail
                                                                  : statistics_->pollsEmpty);
                if (life->backingOffReported) {
                    publish((ApiEvent::Kind::MailboxPollingAgain), life->id, 0,
                            L"answered again after " + std::to_wstring(life->failures) +
                                L" failed polls");
                }
                life->failures = 0;
                life->backingOffReported = false;
                if (outcome == Outcome::Mail) {
                    life->state = MailboxState::Delivering;
                    action = Action::Deliver;
                } else {
                    life->state = MailboxState::Queued;
                    requeue = true;
                }
                break;
            case Outcome::TransportFailure:
                StatisticsRecorder::bump(statistics_->pollsTransportFailures);
                StatisticsRecorder::bump(statistics_->transportRetries);
                // One lost connection is ordinary (a server closes idle ones); the host hears
                // of a run of them. Logged outside the lock (a logger may run host code).
                retryDelay = backOffLocked(life, 0, text, false);
                break;
            case Outcome::NoToken:
                // A token is usually there again before the first back-off ends (a key or URL
                // changed): the host hears of a wait only when it lasts.
                StatisticsRecorder::bump(statistics_->pollsWaitingForToken);
                backOffLocked(life, 0, text, false);
                action = Action::RenewToken;
                break;
            case Outcome::Status:
                StatisticsRecorder::bump(statistics_->pollsStatusFailures);
                if (mode == RecoveryMode::Resilient && (status == 401 || isRetriedStatus(status))) {
                    StatisticsRecorder::bump(statistics_->statusRetries);
                    backOffLocked(life, status, text, true);
                    if (status == 401) {
                        action = Action::RenewToken;
                    }
                } else if (mode == RecoveryMode::Resilient && status == 404) {
                    life->state = MailboxState::Recovering;
                    life->lastStatus = status;
                    life->lastError = text;
                    action = Action::Recreate;
                } else {
                    // Only dropped here: the platform is not asked to delete anything.
                    DebugLog::error(L"Received status code " + std::to_wstring(status) +
                                    L" when attempting to get mail for mailbox : " + life->id +
                                    L". Will delete mailbox.");
                    StatisticsRecorder::bump(statistics_->mailboxesDroppedByStatus);
                    stopLocked(life, status, text, true);
                    table_.erase(life->id);
                    stopped_.push_back(viewOf(*life));
                    if (stopped_.size() > kStoppedKept) {
                        stopped_.pop_front();
                    }
                    updateLiveGauge();
                }
                break;
            case Outcome::Unreadable:
                StatisticsRecorder::bump(statistics_->pollsUnreadable);
                StatisticsRecorder::bump(statistics_->mailboxesDroppedUnreadable);
                stopLocked(life, 0, text, false);
                break;
            case Outcome::NotStarted:
                StatisticsRecorder::bump(statistics_->mailboxesDroppedNotStarted);
                stopLocked(life, 0, text, false);
                break;
        }
    }
    if (requeue) {
        queue(life);
    }
    if (retryDelay.count() >= 0) {
        ZU_LOG_CAPPED(apiLogger(), Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                      L"Poll of mailbox " + life->id + L" failed, polling again in " +
                          std::to_wstring(retryDelay.count()) + L" ms: " + text);
    }
    return action;
}

bool MailboxRegistry::mayDeliver(const std::shared_ptr<MailboxLife>& life) {
    std::lock_guard<std::mutex> lock(mutex_);
    return !closed_ && !life->deletedByHost;
}

void MailboxRegistry::afterDelivery(const std::shared_ptr<MailboxLife>& life) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_ || !isCurrentLocked(life) || life->state != MailboxState::Delivering) {
            return;
        }
        life->state = MailboxState::Queued;
    }
    queue(life);
}

bool MailboxRegistry::recreated(const std::shared_ptr<MailboxLife>& life, bool succeeded,
                                const std::wstring& failure) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_ || !isCurrentLocked(life) || life->state != MailboxState::Recovering) {
            // Deleted (or the object ended) meanwhile: a creation that succeeded is unwanted.
            return false;
        }
        if (!succeeded) {
            life->lastError = failure;
            ++life->failures;
            return true;
        }
        life->state = MailboxState::Queued;
        life->failures = 0;
        life->backingOffReported = false;
        StatisticsRecorder::bump(statistics_->mailboxesRecreated);
        publish((ApiEvent::Kind::MailboxRecreated), life->id, 404,
                L"the platform had lost it; created again with its subscriptions");
    }
    queue(life);
    return true;
}

std::vector<std::wstring> MailboxRegistry::subscriptions(const std::shared_ptr<MailboxLife>& life) {
    std::lock_guard<std::mutex> lock(mutex_);
    return life->subscriptions;
}

bool MailboxRegistry::isRecovering(const std::shared_ptr<MailboxLife>& life) {
    std::lock_guard<std::mutex> lock(mutex_);
    return !closed_ && isCurrentLocked(life) && life->state == MailboxState::Recovering;
}

void MailboxRegistry::queueDueRetries() {
    std::vector<std::shared_ptr<MailboxLife>> due;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto end = retries_.upper_bound(Clock::now());
        for (auto it = retries_.begin(); it != end; ++it) {
            const auto life = it->second.lock();
            if (life && isCurrentLocked(life) && life->state == MailboxState::BackingOff) {
                life->state = MailboxState::Queued;
                due.push_back(life);
            }
        }
        retries_.erase(retries_.begin(), end);
    }
    // The table still holds each of these, so none is a last reference.
    for (const auto& life : due) {
        queue(life);
    }
}

MailboxRegistry::Clock::time_point MailboxRegistry::nextRetryDeadline() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (retries_.empty()) {
        return Varkel::Zu::CommonUtil::msDelayToTimePoint(ZU_TIMEOUT_INFINITE);
    }
    return retries_.begin()->first;
}

bool MailboxRegistry::hasDeletedMailboxes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return created_ && table_.empty();
}

std::vector<ApiStatistics::MailboxView> MailboxRegistry::views() {
    std::vector<ApiStatistics::MailboxView> out;
    std::lock_guard<std::mutex> lock(mutex_);
    out.reserve(table_.size() + stopped_.size());
    for (const auto& entry : table_) {
        out.push_back(viewOf(*entry.second));
    }
    out.insert(out.end(), stopped_.begin(), stopped_.end());
    return out;
}

ApiStatistics::MailboxView MailboxRegistry::viewOf(const MailboxLife& life) {
    ApiStatistics::MailboxView view;
    view.mailboxId = life.id;
    view.state = life.state;
    view.consecutiveFailures = life.failures;
    view.lastHttpStatus = life.lastStatus;
    view.lastError = life.lastError;
    return view;
}

std::vector<pplx::task<void>> MailboxRegistry::close() {
    std::vector<pplx::task<void>> tasks;
    std::vector<pplx::cancellation_token_source> polls;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        for (const auto& entry : table_) {
            const MailboxLife& life = *entry.second;
            if (life.pollOutstanding) {
                polls.push_back(life.pollCancellation);
            }
            if (life.receptionTask != pplx::task<void>()) {
                tasks.push_back(life.receptionTask);
            }
        }
        retries_.clear();
    }
    cancel(polls);
    return tasks;
}

bool MailboxRegistry::isCurrentLocked(const std::shared_ptr<MailboxLife>& life) const {
    return life->current;
}

std::chrono::milliseconds MailboxRegistry::backOffLocked(const std::shared_ptr<MailboxLife>& life,
                                                         int status, const std::wstring& text,
                                                         bool tellAtOnce) {
    ++life->failures;
    life->lastStatus = status;
    life->lastError = text;
    life->state = MailboxState::BackingOff;
    const std::chrono::milliseconds delay = backOffDelay(life->failures);
    retries_.emplace(Clock::now() + delay, life);
    if (!life->backingOffReported && (tellAtOnce || life->failures >= 2)) {
        life->backingOffReported = true;
        publish((ApiEvent::Kind::MailboxBackingOff), life->id, status,
                text + L"; polling again in " + std::to_wstring(delay.count()) + L" ms");
    }
    // Wakes the polling thread so that it waits for this retry's due time; an empty pointer
    // is skipped there.
    queue_->putObject(nullptr, ZU_TIMEOUT_INFINITE);
    return delay;
}

void MailboxRegistry::stopLocked(const std::shared_ptr<MailboxLife>& life, int status,
                                 const std::wstring& text, bool dropFromTable) {
    life->state = MailboxState::Stopped;
    life->lastStatus = status;
    life->lastError = text;
    if (dropFromTable) {
        life->current = false;
    }
    publish((ApiEvent::Kind::MailboxStopped), life->id, status,
            text.empty() ? std::wstring(L"no longer polled") : text);
}

std::vector<pplx::cancellation_token_source> MailboxRegistry::endRecordLocked(
    const std::shared_ptr<MailboxLife>& life) {
    life->current = false;
    // Its answer, if it still comes, finds the record no longer current.
    if (life->pollOutstanding) {
        return {life->pollCancellation};
    }
    return {};
}

void MailboxRegistry::cancel(const std::vector<pplx::cancellation_token_source>& polls) {
    // Never under the lock: cancelling may complete a request on the spot, and its
    // continuation takes this lock.
    for (const auto& poll : polls) {
        poll.cancel();
    }
}

void MailboxRegistry::queue(const std::shared_ptr<MailboxLife>& life) {
    queue_->putObject(life->mailbox, ZU_TIMEOUT_INFINITE);
}

void MailboxRegistry::publish(ApiEvent::Kind kind, const std::wstring& subject, int status,
                              const std::wstring& reason) {
    ApiEvent event;
    event.kind = kind;
    event.subject = subject;
    event.httpStatus = status;
    event.reason = reason;
    events_->publish(std::move(event));
}

void MailboxRegistry::updateLiveGauge() {
    statistics_->mailboxesLive = table_.size();
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
