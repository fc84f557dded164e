// QxPlatformApi: mail retrieval. The "Mailbox polling thread" keeps one long poll outstanding
// per mailbox; each poll's answer is read on a pool thread and its mail handed to a delivery
// thread, which runs the mailbox's listeners and then queues the mailbox for its next poll.
// Also request and reply over a temporary mailbox.
#include <TolvaCore/QxPlatformApi.h>

#include "private/ApiDefaults.h"
#include "private/DeliveryThreads.h"
#include "private/MailboxListenerWithWait.h"
#include "private/PollDelivery.h"
#include "private/RestCall.h"
#include "private/StatisticsRecorder.h"

#include <ZuCore/CommonUtil.h>
#include <ZuCore/Constants.h>
#include <ZuCore/DebugLog.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <boost/uuid/uuid_io.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::DebugLog;
using Varkel::Zu::Logger;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::http::http_response;
using web::http::status_codes;
using web::json::value;
using SteadyClock = std::chrono::steady_clock;

// One poll as its continuations share it. The mailbox may hold (through a host's listener) the
// last reference to the API object, so the poll never lets it go on a pool thread: its mail
// takes it to a delivery thread, or its last continuation hands it to one. A destructor on a
// pool thread would wait for requests that need the pool's threads.
//
// Each poll is sent with a cancellation token of its own, which the object's reception source
// cancels for as long as the poll is outstanding. The HTTP library registers a callback on the
// token of every request it sends and removes it when the request ends, unless the answer came
// before the registration was made (it is made after the request is under way): that
// registration then stays, keeping the memory of the request's context, for as long as the token
// lives. On the object's own token they would pile up for the object's whole life; on a poll's
// token they go with the poll.
struct QxPlatformApi::PollContext {
    PollContext(std::shared_ptr<Mailbox> polled, std::wstring id,
                const pplx::cancellation_token& stopping)
        : mailbox(std::move(polled)),
          mailboxId(std::move(id)),
          stoppingToken(stopping),
          stopRegistration(
              stoppingToken.register_callback([source = cancellation] { source.cancel(); })) {}

    // Called once, when the poll ends: the object's source no longer needs to reach this poll.
    void endCancellation() { stoppingToken.deregister_callback(stopRegistration); }

    std::shared_ptr<Mailbox> mailbox;
    std::wstring mailboxId;
    // When the platform's answer arrived, for the answer-to-listener latency.
    SteadyClock::time_point answeredAt;
    pplx::cancellation_token_source cancellation;
    pplx::cancellation_token stoppingToken;
    pplx::cancellation_token_registration stopRegistration;
};

void QxPlatformApi::queryLauncherThreadLoop() {
    for (;;) {
        try {
            if (!running_) {
                std::printf("MAILBOX IS NO LONGER RUNNING!!!!!!!!");
                return;
            }
            std::shared_ptr<Mailbox> mailbox;
            while (!mailbox) {
                queueDuePollRetries();
                // Infinite unless a retry is waiting; a new retry puts an empty pointer into
                // the queue to wake this wait, and an empty pointer is simply skipped.
                const SteadyClock::time_point deadline = nextPollRetryDeadline();
                {
                    std::unique_lock<std::mutex> lock(mailboxQueue_->getMutex());
                    mailboxQueue_->getObjectNoLock(lock, mailbox, deadline, 0, false);
                }
                if (!running_) {
                    return;
                }
            }
            // Handed over whole: this thread keeps no reference to the mailbox, so that it
            // never lets go of the last one (whose listener may hold this object, which this
            // thread cannot destroy: the destructor joins it).
            startPoll(std::move(mailbox));
        } catch (const std::exception& e) {
            ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          widen(e.what()));
        }
    }
}

void QxPlatformApi::retrieveMail(const std::shared_ptr<Mailbox>& mailbox) {
    startPoll(mailbox);
}

void QxPlatformApi::startPoll(std::shared_ptr<Mailbox> mailbox) {
    const std::wstring mailboxId = widen(boost::uuids::to_string(mailbox->getId()));
    bool counted = false;
    bool sent = false;
    std::shared_ptr<PollContext> poll;
    try {
        RestCall call(web::http::methods::GET, std::string(ApiDefaults::kNotificationsPath) + "/" +
                                                   narrow(mailboxId) + ApiDefaults::kPollQuery);
        {
            std::lock_guard<std::mutex> lock(pollsMutex_);
            ++pollsInFlight_;
            statistics_->pollsInFlight = pollsInFlight_;
            counted = true;
        }
        poll = std::make_shared<PollContext>(std::move(mailbox), mailboxId,
                                             receptionCancellation_.get_token());
        // A poll uses the token as it stands: the heartbeat and the other calls renew it.
        call.header("User-Agent", RestCall::kUserAgent)
            .header("Authorization", bearerAuthorization())
            .cancellation(poll->cancellation.get_token());

        // Counted before it leaves: a snapshot never sees an outcome without its poll.
        StatisticsRecorder::bump(statistics_->pollsSent);
        sent = true;
        // Every outcome is taken by the last continuation, so no task of a poll ever ends
        // holding an exception nobody observes (that would end the process).
        pplx::task<void> receptionTask =
            call.sendUnchecked(currentClient())
                .then([this, poll](pplx::task<http_response> responseTask) {
                    return handlePollResponse(poll, responseTask);
                })
                .then([this, poll, mailboxId](pplx::task<void> outcome) {
                    try {
                        outcome.get();
                    } catch (const pplx::task_canceled&) {
                        // Stopped with the object; nothing to report.
                        StatisticsRecorder::bump(statistics_->pollsCancelled);
                    } catch (const std::exception& e) {
                        countUnreadablePoll();
                        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                                      L"Mailbox " + mailboxId + L" stopped receiving mail: " +
                                          widen(e.what()));
                    } catch (...) {
                        countUnreadablePoll();
                        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                                      L"Mailbox " + mailboxId + L" stopped receiving mail.");
                    }
                    poll->endCancellation();
                    // The poll's own reference to the mailbox (unless its mail took it to a
                    // delivery thread) may be the last one, and its listener may hold this
                    // object: it goes on a delivery thread, never on this pool thread.
                    deliveryThreads_->release(std::move(poll->mailbox));
                    // Nothing of this object is used after this (see PollContext).
                    pollEnded();
                });
        // From here the chain's last continuation ends the poll's count.
        counted = false;
        poll.reset();

        std::lock_guard<std::mutex> lock(mailboxTableMutex_);
        const auto entry = mailboxTable_.find(mailboxId);
        if (entry != mailboxTable_.end()) {
            entry->second.receptionTask = receptionTask;
        }
    } catch (const std::exception& e) {
        if (sent) {
            StatisticsRecorder::bump(statistics_->pollsTransportFailures);
        }
        abandonPoll(counted, poll, std::move(mailbox),
                    L"Exception message : \"" + widen(e.what()) + L"\".", mailboxId);
    } catch (...) {
        if (sent) {
            StatisticsRecorder::bump(statistics_->pollsTransportFailures);
        }
        abandonPoll(counted, poll, std::move(mailbox), L"Unknown exception.", mailboxId);
    }
}

void QxPlatformApi::abandonPoll(bool counted, const std::shared_ptr<PollContext>& poll,
                                std::shared_ptr<Mailbox> mailbox, const std::wstring& reason,
                                const std::wstring& mailboxId) {
    if (counted) {
        if (poll) {
            poll->endCancellation();
            mailbox = std::move(poll->mailbox);
        }
        pollEnded();
    }
    StatisticsRecorder::bump(statistics_->mailboxesDroppedNotStarted);
    DebugLog::error(L"Mailbox with id : " + mailboxId + L" cannot receive mail anymore. " + reason);
    deliveryThreads_->release(std::move(mailbox));
}

void QxPlatformApi::countUnreadablePoll() {
    StatisticsRecorder::bump(statistics_->mailboxesDroppedUnreadable);
    StatisticsRecorder::bump(statistics_->pollsUnreadable);
}

bool QxPlatformApi::isStopping() const {
    return !running_ || receptionCancellation_.get_token().is_canceled();
}

pplx::task<void> QxPlatformApi::handlePollResponse(const std::shared_ptr<PollContext>& poll,
                                                   pplx::task<http_response> responseTask) {
    const std::wstring& mailboxId = poll->mailboxId;
    http_response response;
    try {
        response = responseTask.get();
    } catch (const std::exception& e) {
        // Cancelling a request fails it with the HTTP library's "operation canceled" error,
        // not with task_canceled: a stopping object is told apart by its flag and token.
        if (isStopping()) {
            throw pplx::task_canceled();
        }
        StatisticsRecorder::bump(statistics_->pollsTransportFailures);
        schedulePollRetry(poll->mailbox, mailboxId, e);
        return pplx::task_from_result();
    }

    poll->answeredAt = SteadyClock::now();
    const web::http::status_code status = response.status_code();
    if (status == status_codes::OK || status == status_codes::NoContent) {
        {
            std::lock_guard<std::mutex> lock(pollsMutex_);
            pollFailures_.erase(mailboxId);
        }
        if (status == status_codes::NoContent) {
            StatisticsRecorder::bump(statistics_->pollsEmpty);
            mailboxQueue_->putObject(poll->mailbox, ZU_TIMEOUT_INFINITE);
            return pplx::task_from_result();
        }
        return response.extract_json(true).then(
            [this, poll](pplx::task<value> bodyTask) { handlePollBody(poll, bodyTask); });
    }

    StatisticsRecorder::bump(statistics_->pollsStatusFailures);
    // Only the mailbox table's own lock: see mailboxTableMutex_.
    std::lock_guard<std::mutex> lock(mailboxTableMutex_);
    const auto entry = mailboxTable_.find(mailboxId);
    if (entry != mailboxTable_.end()) {
        DebugLog::error(L"Received status code " + std::to_wstring(status) +
                        L" when attempting to get mail for mailbox : " + mailboxId +
                        L". Will delete mailbox.");
        // Only dropped here: the platform is not asked to delete anything. The poll still
        // holds the mailbox, so this is not the last reference to it.
        mailboxTable_.erase(entry);
        forgetPollStateLocked(mailboxId);
        statistics_->mailboxesLive = mailboxTable_.size();
        StatisticsRecorder::bump(statistics_->mailboxesDroppedByStatus);
    }
    return pplx::task_from_result();
}

void QxPlatformApi::handlePollBody(const std::shared_ptr<PollContext>& poll,
                                   pplx::task<value> bodyTask) {
    value body;
    try {
        body = bodyTask.get();
    } catch (const web::http::http_exception& e) {
        // The connection failed while the body was read: a transport failure like any other.
        // Anything else (not JSON, text that cannot be converted) is the reply's own fault and
        // takes the mailbox out of the cycle, as a body that is not an array does.
        if (isStopping()) {
            throw pplx::task_canceled();
        }
        StatisticsRecorder::bump(statistics_->pollsTransportFailures);
        schedulePollRetry(poll->mailbox, poll->mailboxId, e);
        return;
    }

    // Read here, delivered on a delivery thread: listeners are host code and may block, post,
    // wait for a reply or let go of this object, none of which a pool thread may do. The job
    // uses nothing of this object, since this object may end while the job runs (on that very
    // thread); it queues the mailbox for its next poll once every listener has returned, so a
    // mailbox's mail stays in order.
    PollMail mail = readPollBody(body);
    if (mail.failed) {
        countUnreadablePoll();
        // Said here, while the poll is still counted: the object's end waits for this, not for
        // the delivery job, which it may drop. The mail read before the fault is still
        // delivered; the mailbox is not polled again.
        ZU_LOG_CAPPED(
            logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
            L"Mailbox " + poll->mailboxId + L" stopped receiving mail: " + widen(mail.failure));
        if (mail.mail.empty()) {
            return;
        }
    } else {
        StatisticsRecorder::bump(mail.mail.empty() ? statistics_->pollsEmpty
                                                   : statistics_->pollsWithMail);
    }
    auto job = [mailbox = std::move(poll->mailbox), mail = std::move(mail), queue = mailboxQueue_,
                statistics = statistics_, answeredAt = poll->answeredAt] {
        if (!mail.mail.empty()) {
            statistics->pollAnswerToListener.add(SteadyClock::now() - answeredAt);
        }
        const std::uint64_t exceptionsBefore = listenerExceptionsOnThisThread();
        deliverPollMail(mail, *mailbox);
        StatisticsRecorder::bump(statistics->mailDelivered, mail.mail.size());
        StatisticsRecorder::bump(statistics->listenerExceptions,
                                 listenerExceptionsOnThisThread() - exceptionsBefore);
        if (!mail.failed) {
            queue->putObject(mailbox, ZU_TIMEOUT_INFINITE);
        }
    };
    // Refused only while this object stops; the mail is then dropped with the job.
    deliveryThreads_->post(std::move(job));
}

void QxPlatformApi::schedulePollRetry(const std::shared_ptr<Mailbox>& mailbox,
                                      const std::wstring& mailboxId,
                                      const std::exception& failure) {
    std::chrono::milliseconds delay = ApiDefaults::kPollRetryFirstDelay;
    {
        // A mailbox deleted meanwhile is not polled again. Both locks are leaves, taken in
        // this order everywhere, and held for bookkeeping only.
        std::lock_guard<std::mutex> tableLock(mailboxTableMutex_);
        if (mailboxTable_.find(mailboxId) == mailboxTable_.end()) {
            return;
        }
        std::lock_guard<std::mutex> lock(pollsMutex_);
        const unsigned int failures = ++pollFailures_[mailboxId];
        for (unsigned int i = 1; i < failures && delay < ApiDefaults::kPollRetryLongestDelay; ++i) {
            delay *= 2;
        }
        delay = std::min(delay, ApiDefaults::kPollRetryLongestDelay);
        pollRetries_.emplace(SteadyClock::now() + delay, PollRetry{mailbox, mailboxId});
    }
    StatisticsRecorder::bump(statistics_->transportRetries);
    ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                  L"Poll of mailbox " + mailboxId + L" failed, polling again in " +
                      std::to_wstring(delay.count()) + L" ms: " + widen(failure.what()));
    // Wakes the polling thread so that it waits for this retry's due time.
    mailboxQueue_->putObject(nullptr, ZU_TIMEOUT_INFINITE);
}

void QxPlatformApi::forgetPollStateLocked(const std::wstring& mailboxId) {
    std::lock_guard<std::mutex> lock(pollsMutex_);
    pollFailures_.erase(mailboxId);
    for (auto it = pollRetries_.begin(); it != pollRetries_.end();) {
        it = it->second.mailboxId == mailboxId ? pollRetries_.erase(it) : std::next(it);
    }
}

void QxPlatformApi::queueDuePollRetries() {
    std::vector<std::shared_ptr<Mailbox>> due;
    {
        std::lock_guard<std::mutex> lock(pollsMutex_);
        const auto end = pollRetries_.upper_bound(SteadyClock::now());
        for (auto it = pollRetries_.begin(); it != end; ++it) {
            due.push_back(it->second.mailbox);
        }
        pollRetries_.erase(pollRetries_.begin(), end);
    }
    for (const auto& mailbox : due) {
        mailboxQueue_->putObject(mailbox, ZU_TIMEOUT_INFINITE);
    }
}

SteadyClock::time_point QxPlatformApi::nextPollRetryDeadline() {
    std::lock_guard<std::mutex> lock(pollsMutex_);
    if (pollRetries_.empty()) {
        return Varkel::Zu::CommonUtil::msDelayToTimePoint(ZU_TIMEOUT_INFINITE);
    }
    return pollRetries_.begin()->first;
}

void QxPlatformApi::pollEnded() {
    // Notified under the lock: the destructor cannot go on (and destroy the lock) before this
    // thread has released it, which is its last use of this object.
    std::lock_guard<std::mutex> lock(pollsMutex_);
    --pollsInFlight_;
    statistics_->pollsInFlight = pollsInFlight_;
    if (pollsInFlight_ == 0) {
        pollsEnded_.notify_all();
    }
}

void QxPlatformApi::waitForPollsToEnd() {
    std::unique_lock<std::mutex> lock(pollsMutex_);
    pollsEnded_.wait(lock, [this] { return pollsInFlight_ == 0; });
    pollRetries_.clear();
}

std::wstring QxPlatformApi::postNotificationAndWaitForReply(
    const std::wstring& topic, const std::wstring& content, const std::wstring& replyTopic,
    const SteadyClock::time_point& deadline) {
    const auto listener = std::make_shared<MailboxListenerWithWait>();
    const auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
    mailbox->addListener(listener);
    createMailbox(mailbox, replyTopic);
    // When the post fails the temporary mailbox is left as it is: created on the platform,
    // registered here and polled. Callers rely on this operation not hiding that.
    postNotification(topic, content, 0);
    const std::wstring reply = listener->waitForReply(deadline);
    deleteMailbox(mailbox);
    return reply;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
