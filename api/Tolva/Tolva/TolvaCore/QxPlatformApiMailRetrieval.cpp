// QxPlatformApi: mail retrieval. The "Mailbox polling thread" keeps one long poll outstanding
// per mailbox; each poll's answer is read on a pool thread and its mail handed to a delivery
// thread, which runs the mailbox's listeners and then queues the mailbox for its next poll.
// Also request and reply over a temporary mailbox.
#include <TolvaCore/QxPlatformApi.h>

#include "private/ApiDefaults.h"
#include "private/BearerText.h"
#include "private/ConnectionPacer.h"
#include "private/DeliveryThreads.h"
#include "private/MailboxListenerWithWait.h"
#include "private/MailboxRegistry.h"
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
    PollContext(std::shared_ptr<MailboxLife> polled, std::string bearerText,
                const pplx::cancellation_token& stopping)
        : life(std::move(polled)),
          mailboxId(life->id),
          bearer(std::move(bearerText)),
          stoppingToken(stopping),
          stopRegistration(
              stoppingToken.register_callback([source = cancellation] { source.cancel(); })) {}

    // Called once, when the poll ends: the object's source no longer needs to reach this poll.
    void endCancellation() { stoppingToken.deregister_callback(stopRegistration); }

    std::shared_ptr<MailboxLife> life;
    std::wstring mailboxId;
    // The Authorization value it was sent with: a 401 renews the token only if it is still
    // this one.
    std::string bearer;
    // When the platform's answer arrived, for the answer-to-listener latency.
    SteadyClock::time_point answeredAt;
    pplx::cancellation_token_source cancellation;
    pplx::cancellation_token stoppingToken;
    pplx::cancellation_token_registration stopRegistration;
    // The poll's place among the polls opening a connection; given back when its request is
    // written or when it ends.
    std::shared_ptr<ConnectionPacer::Slot> openingSlot;
};

void QxPlatformApi::queryLauncherThreadLoop() {
    for (;;) {
        try {
            if (!running_) {
                std::printf("MAILBOX IS NO LONGER RUNNING!!!!!!!!");
                return;
            }
            std::shared_ptr<MailboxLife> life;
            while (!life) {
                registry_->queueDueRetries();
                // Infinite unless a retry is waiting; a new retry puts an empty pointer into
                // the queue to wake this wait, and an empty pointer is simply skipped.
                const SteadyClock::time_point deadline = registry_->nextRetryDeadline();
                std::shared_ptr<Mailbox> mailbox;
                {
                    std::unique_lock<std::mutex> lock(mailboxQueue_->getMutex());
                    mailboxQueue_->getObjectNoLock(lock, mailbox, deadline, 0, false);
                }
                if (!running_) {
                    deliveryThreads_->release(std::move(mailbox));
                    return;
                }
                // A queue entry whose mailbox is not queued in the registry (deleted, created
                // again, already polling) is stale and skipped.
                life = registry_->takeForPoll(mailbox);
                // This thread never lets go of a last reference (whose listener may hold this
                // object, which this thread cannot destroy: the destructor joins it).
                deliveryThreads_->release(std::move(mailbox));
            }
            // New connections are paced (their handshakes would otherwise queue past the
            // time-out); the wait ends when an opening poll is through, or with the object.
            std::shared_ptr<ConnectionPacer::Slot> slot = pacer_->acquire();
            if (!slot) {
                registry_->letGo(std::move(life));
                return;
            }
            // Handed over whole: this thread keeps no reference once the poll is started.
            startPoll(std::move(life), std::move(slot));
        } catch (const std::exception& e) {
            ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          widen(e.what()));
        }
    }
}

void QxPlatformApi::retrieveMail(const std::shared_ptr<Mailbox>& mailbox) {
    std::shared_ptr<Mailbox> taken = mailbox;
    std::shared_ptr<MailboxLife> life = registry_->takeForPoll(taken);
    if (life) {
        startPoll(std::move(life));
    }
}

void QxPlatformApi::startPoll(std::shared_ptr<MailboxLife> life,
                              std::shared_ptr<void> openingSlot) {
    const std::wstring mailboxId = life->id;
    bool counted = false;
    std::shared_ptr<PollContext> poll;
    try {
        // A poll uses the token as it stands: the heartbeat and the other calls renew it. In
        // resilient mode a poll without a token is not sent (it would be refused and, with
        // the default rules, drop the mailbox): it waits for one.
        const std::string bearer = bearerAuthorization();
        if (BearerText::isEmpty(bearer) && registry_->mode() == RecoveryMode::Resilient) {
            const auto action = registry_->afterPoll(life, MailboxRegistry::Outcome::NoToken, 0,
                                                     L"no access token yet");
            followUp(static_cast<int>(action), life, std::string());
            registry_->letGo(std::move(life));
            return;
        }
        RestCall call = platformCall(web::http::methods::GET,
                                     std::string(ApiDefaults::kNotificationsPath) + "/" +
                                         narrow(mailboxId) + ApiDefaults::kPollQuery);
        {
            std::lock_guard<std::mutex> lock(pollsMutex_);
            ++pollsInFlight_;
            statistics_->pollsInFlight = pollsInFlight_;
            counted = true;
        }
        poll = std::make_shared<PollContext>(life, bearer, receptionCancellation_.get_token());
        call.header("User-Agent", RestCall::kUserAgent)
            .header("Authorization", bearer)
            .cancellation(poll->cancellation.get_token())
            .timeLimit(ApiDefaults::kPlatformPollWait + requestTimeLimit());
        if (openingSlot) {
            // The slot goes back once the request is written, or with the poll's chain.
            auto slot = std::static_pointer_cast<ConnectionPacer::Slot>(openingSlot);
            call.onWritten([slot] { slot->release(); });
            poll->openingSlot = std::move(slot);
        }

        // Counted before it leaves: a snapshot never sees an outcome without its poll.
        StatisticsRecorder::bump(statistics_->pollsSent);
        // One continuation takes the answer (its body already read), hands the mail over and
        // ends the poll: every step is short and none blocks, so a poll crosses the pool once.
        // It takes every outcome, so no task of a poll ever ends holding an exception nobody
        // observes (that would end the process).
        pplx::task<void> receptionTask =
            call.sendUnchecked(currentPollClient())
                .then([this, poll](pplx::task<http_response> responseTask) {
                    try {
                        handlePollResponse(poll, responseTask);
                    } catch (const pplx::task_canceled&) {
                        // Stopped with the object; nothing to report.
                        StatisticsRecorder::bump(statistics_->pollsCancelled);
                    } catch (const std::exception& e) {
                        const std::wstring text = widen(e.what());
                        registry_->afterPoll(poll->life, MailboxRegistry::Outcome::Unreadable, 0,
                                             text);
                        ZU_LOG_CAPPED(
                            logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                            L"Mailbox " + poll->mailboxId + L" stopped receiving mail: " + text);
                    } catch (...) {
                        registry_->afterPoll(poll->life, MailboxRegistry::Outcome::Unreadable, 0,
                                             L"unknown failure");
                        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                                      L"Mailbox " + poll->mailboxId + L" stopped receiving mail.");
                    }
                    poll->endCancellation();
                    if (poll->openingSlot) {
                        poll->openingSlot->release();
                    }
                    // The poll's own reference to the mailbox may be the last one, and its
                    // listener may hold this object: it goes on a delivery thread, never on
                    // this pool thread.
                    registry_->letGo(std::move(poll->life));
                    // Nothing of this object is used after this (see PollContext).
                    pollEnded();
                });
        // From here the chain's last continuation ends the poll's count.
        counted = false;
        registry_->pollStarted(life, receptionTask, poll->cancellation);
        poll.reset();
        registry_->letGo(std::move(life));
    } catch (const std::exception& e) {
        abandonPoll(counted, poll, std::move(life),
                    L"Exception message : \"" + widen(e.what()) + L"\".");
    } catch (...) {
        abandonPoll(counted, poll, std::move(life), L"Unknown exception.");
    }
}

void QxPlatformApi::abandonPoll(bool counted, const std::shared_ptr<PollContext>& poll,
                                std::shared_ptr<MailboxLife> life, const std::wstring& reason) {
    if (counted) {
        if (poll) {
            poll->endCancellation();
        }
        pollEnded();
    }
    if (!life && poll) {
        life = poll->life;
    }
    if (!life) {
        return;
    }
    DebugLog::error(L"Mailbox with id : " + life->id + L" cannot receive mail anymore. " + reason);
    registry_->afterPoll(life, MailboxRegistry::Outcome::NotStarted, 0, reason);
    registry_->letGo(std::move(life));
}

bool QxPlatformApi::isStopping() const {
    return !running_ || receptionCancellation_.get_token().is_canceled();
}

void QxPlatformApi::handlePollResponse(const std::shared_ptr<PollContext>& poll,
                                       pplx::task<http_response> responseTask) {
    http_response response;
    try {
        response = responseTask.get();
    } catch (const std::exception& e) {
        // Cancelling a request fails it with the HTTP library's "operation canceled" error,
        // not with task_canceled: a stopping object is told apart by its flag and token, and a
        // deleted mailbox by its record.
        if (isStopping()) {
            throw pplx::task_canceled();
        }
        const std::wstring text = widen(e.what());
        const auto action =
            registry_->afterPoll(poll->life, MailboxRegistry::Outcome::TransportFailure, 0, text);
        followUp(static_cast<int>(action), poll->life, poll->bearer);
        return;
    }

    poll->answeredAt = SteadyClock::now();
    const web::http::status_code status = response.status_code();
    if (status == status_codes::OK) {
        handlePollBody(poll, response);
        return;
    }
    const auto action =
        status == status_codes::NoContent
            ? registry_->afterPoll(poll->life, MailboxRegistry::Outcome::Empty)
            : registry_->afterPoll(
                  poll->life, MailboxRegistry::Outcome::Status, status,
                  L"answered " + std::to_wstring(status) + L" " + widen(response.reason_phrase()));
    followUp(static_cast<int>(action), poll->life, poll->bearer);
}

void QxPlatformApi::handlePollBody(const std::shared_ptr<PollContext>& poll,
                                   const http_response& response) {
    value body;
    try {
        // The body has been read whole: parsed here, without another task through the pool.
        body = RestCall::readJson(response);
    } catch (const web::http::http_exception& e) {
        // The HTTP library could not hand the body over (a connection that failed while the
        // body was read fails the answer itself, above): a transport failure like any other.
        // Anything else (not JSON, text that cannot be converted) is the reply's own fault and
        // stops the mailbox, as a body that is not an array does.
        if (isStopping()) {
            throw pplx::task_canceled();
        }
        const auto action = registry_->afterPoll(
            poll->life, MailboxRegistry::Outcome::TransportFailure, 0, widen(e.what()));
        followUp(static_cast<int>(action), poll->life, poll->bearer);
        return;
    }

    // Read here, delivered on a delivery thread: listeners are host code and may block, post,
    // wait for a reply or let go of this object, none of which a pool thread may do. The job
    // uses nothing of this object, since this object may end while the job runs (on that very
    // thread); it hands the mailbox back to the registry once every listener has returned, so
    // a mailbox's mail stays in order.
    PollMail mail = readPollBody(body);
    MailboxRegistry::Action action = MailboxRegistry::Action::None;
    if (mail.failed) {
        // Said here, while the poll is still counted: the object's end waits for this, not for
        // the delivery job, which it may drop. The mail read before the fault is still
        // delivered; the mailbox is not polled again.
        const std::wstring text = widen(mail.failure);
        registry_->afterPoll(poll->life, MailboxRegistry::Outcome::Unreadable, 0, text);
        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                      L"Mailbox " + poll->mailboxId + L" stopped receiving mail: " + text);
        if (mail.mail.empty()) {
            return;
        }
    } else {
        action =
            registry_->afterPoll(poll->life, mail.mail.empty() ? MailboxRegistry::Outcome::Empty
                                                               : MailboxRegistry::Outcome::Mail);
        if (action != MailboxRegistry::Action::Deliver) {
            // Empty, or the mailbox was deleted meanwhile: nothing to hand over.
            return;
        }
    }
    auto job = [life = poll->life, mail = std::move(mail), registry = registry_,
                statistics = statistics_, answeredAt = poll->answeredAt] {
        // Mail of a mailbox the host deleted (or created again) meanwhile is not delivered.
        if (registry->mayDeliver(life)) {
            statistics->pollAnswerToListener.add(SteadyClock::now() - answeredAt);
            const std::uint64_t exceptionsBefore = listenerExceptionsOnThisThread();
            deliverPollMail(mail, *life->mailbox);
            StatisticsRecorder::bump(statistics->mailDelivered, mail.mail.size());
            StatisticsRecorder::bump(statistics->listenerExceptions,
                                     listenerExceptionsOnThisThread() - exceptionsBefore);
        }
        registry->afterDelivery(life);
    };
    // Refused only while this object stops; the mail is then dropped with the job.
    deliveryThreads_->post(std::move(job));
}

void QxPlatformApi::followUp(int action, const std::shared_ptr<MailboxLife>& life,
                             const std::string& bearerSent) {
    switch (static_cast<MailboxRegistry::Action>(action)) {
        case MailboxRegistry::Action::RenewToken:
            requestTokenRenewal(bearerSent);
            break;
        case MailboxRegistry::Action::Recreate:
            recovery_->post([this, life] { recreateMailbox(life); });
            break;
        default:
            break;
    }
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
}

std::wstring QxPlatformApi::postNotificationAndWaitForReply(
    const std::wstring& topic, const std::wstring& content, const std::wstring& replyTopic,
    const SteadyClock::time_point& deadline) {
    const auto listener = std::make_shared<MailboxListenerWithWait>();
    const auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
    mailbox->addListener(listener);
    createMailbox(mailbox, replyTopic);
    try {
        postNotification(topic, content, 0);
    } catch (...) {
        // By default the temporary mailbox is left as it is when the post fails: created on
        // the platform, registered here and polled, as callers of this operation expect. In
        // resilient mode it is deleted; a failure to delete it is logged by deleteMailbox.
        if (registry_->mode() == RecoveryMode::Resilient) {
            try {
                deleteMailbox(mailbox);
            } catch (const std::exception& e) {
                ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                              L"The reply mailbox of a failed request could not be deleted: " +
                                  widen(e.what()));
            }
        }
        throw;
    }
    const std::wstring reply = listener->waitForReply(deadline);
    deleteMailbox(mailbox);
    return reply;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
