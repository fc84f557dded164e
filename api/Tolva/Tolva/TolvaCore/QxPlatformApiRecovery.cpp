// QxPlatformApi: recovery from ordinary outages in resilient mode, on the object's "QXP
// recovery" thread: a token for polls that wait for one (or whose token the platform refused),
// a mailbox the platform lost created again, a service it lost registered again. Every job
// backs off between attempts, ends when the object stops, and never runs on the HTTP pool.
#include <TolvaCore/QxPlatformApi.h>

#include "private/ApiDefaults.h"
#include "private/BearerText.h"
#include "private/DeliveryThreads.h"
#include "private/EventDispatcher.h"
#include "private/MailboxRegistry.h"
#include "private/StatisticsRecorder.h"

#include <ZuCore/DebugLog.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <stdexcept>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::DebugLog;
using Varkel::Zu::Logger;
using Varkel::Zu::widen;

namespace {

// Between two attempts of one recovery: 1 s, doubling to 30 s.
std::chrono::milliseconds recoveryDelay(unsigned int attempts) {
    std::chrono::milliseconds delay(1000);
    for (unsigned int i = 1; i < attempts && delay < std::chrono::milliseconds(30000); ++i) {
        delay *= 2;
    }
    return std::min(delay, std::chrono::milliseconds(30000));
}

}  // namespace

void QxPlatformApi::requestTokenRenewal(const std::string& rejectedBearer) {
    // One renewal queued at a time, however many polls wait for it.
    if (tokenRenewalQueued_.exchange(true)) {
        return;
    }
    recovery_->post([this, rejectedBearer] {
        tokenRenewalQueued_ = false;
        renewTokenForPolls(rejectedBearer);
    });
}

void QxPlatformApi::renewTokenForPolls(const std::string& rejectedBearer) {
    if (!running_) {
        return;
    }
    if (!rejectedBearer.empty() && !BearerText::isEmpty(rejectedBearer)) {
        // The platform refused a token that had not run out. Renewed at once unless another
        // thread has renewed it meanwhile, and not more often than the back-off allows.
        bool renew = false;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            renew = std::chrono::steady_clock::now() >= tokenRetryNotBefore_;
        }
        if (renew && bearerAuthorization() == rejectedBearer) {
            DebugLog::trace(L"Obtaining a new access token");
            renewToken();
        }
        return;
    }
    validateToken();
}

bool QxPlatformApi::recoveryPause(std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> lock(recoveryPauseMutex_);
    recoveryPauseEnded_.wait_for(lock, delay, [this] { return !running_; });
    return running_;
}

void QxPlatformApi::recreateMailbox(const std::shared_ptr<MailboxLife>& life) {
    // The record says what to create: the same id, ttl and durability, the creation's
    // subscription, then every topic subscribed since. Listeners stay on the Mailbox object.
    for (unsigned int attempt = 1; running_ && registry_->isRecovering(life); ++attempt) {
        std::vector<std::wstring> topics = registry_->subscriptions(life);
        try {
            if (topics.empty()) {
                throw std::runtime_error("the mailbox has no subscription left");
            }
            postMailboxCreation(life->mailbox, topics.front());
            for (std::size_t i = 1; i < topics.size(); ++i) {
                subscribeTopic(life->mailbox, topics[i]);
            }
            if (!registry_->recreated(life, true)) {
                // The host deleted the mailbox while it was being created again: what this
                // created on the platform is deleted too, so that nothing is left behind.
                sendMailboxDeletion(*life->mailbox, life->id);
            }
            return;
        } catch (const std::exception& e) {
            const std::wstring text = widen(e.what());
            ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          L"Mailbox " + life->id + L" could not be created again: " + text);
            if (!registry_->recreated(life, false, text)) {
                return;
            }
        }
        if (!recoveryPause(recoveryDelay(attempt))) {
            return;
        }
    }
}

void QxPlatformApi::registerServiceAgain(const std::wstring& serviceId) {
    for (unsigned int attempt = 1; running_; ++attempt) {
        std::shared_ptr<Model::ModelServiceInfo> record;
        {
            std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
            const auto entry = serviceTable_.find(serviceId);
            if (entry == serviceTable_.end()) {
                // Unregistered by the host meanwhile.
                reregistering_.erase(serviceId);
                return;
            }
            record = entry->second;
        }
        try {
            registerService(record);
            std::wstring newId;
            {
                std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
                for (const auto& entry : serviceTable_) {
                    if (entry.second == record && entry.first != serviceId) {
                        newId = entry.first;
                    }
                }
                if (!newId.empty()) {
                    // The old id is gone on the platform: no heartbeat goes to it any more.
                    serviceTable_.erase(serviceId);
                    statistics_->serviceUnregistered(serviceId);
                }
                lostServices_.erase(serviceId);
                reregistering_.erase(serviceId);
            }
            StatisticsRecorder::bump(statistics_->servicesRegisteredAgain);
            ApiEvent event;
            event.kind = ApiEvent::Kind::ServiceRegisteredAgain;
            event.subject = serviceId;
            event.newId = newId.empty() ? serviceId : newId;
            event.reason = L"registered again after the platform lost it";
            events_->publish(std::move(event));
            return;
        } catch (const std::exception& e) {
            ZU_LOG_CAPPED(
                logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                L"Service " + serviceId + L" could not be registered again: " + widen(e.what()));
        }
        if (!recoveryPause(recoveryDelay(attempt))) {
            break;
        }
    }
    std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
    reregistering_.erase(serviceId);
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
