#include "EventDispatcher.h"

#include "DeliveryThreads.h"

#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::Logger;

namespace {

std::shared_ptr<Logger> eventLogger() {
    static const std::shared_ptr<Logger> logger = Logger::getLogger("TolvaCore.Events");
    return logger;
}

// A stop or a loss is a warning, a failing renewal an error, the rest news.
const Logger::Level& levelOf(ApiEvent::Kind kind) {
    switch (kind) {
        case ApiEvent::Kind::MailboxStopped:
        case ApiEvent::Kind::MailboxBackingOff:
        case ApiEvent::Kind::ServiceRegistrationLost:
            return Logger::getWarnLevel();
        case ApiEvent::Kind::TokenRenewalFailed:
            return Logger::getErrorLevel();
        default:
            return Logger::getInfoLevel();
    }
}

}  // namespace

EventDispatcher::EventDispatcher()
    : thread_(std::make_shared<DeliveryThreads>(1, DeliveryThreads::kIdleTime, "QXP events")) {}

EventDispatcher::~EventDispatcher() {
    stop();
}

void EventDispatcher::setCallback(Callback callback) {
    std::shared_ptr<const Callback> replacement;
    if (callback) {
        replacement = std::make_shared<const Callback>(std::move(callback));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    callback_.swap(replacement);
}

void EventDispatcher::publish(ApiEvent event) {
    if (event.at == std::chrono::system_clock::time_point()) {
        event.at = std::chrono::system_clock::now();
    }
    std::shared_ptr<const Callback> callback;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callback = callback_;
    }
    // Logged on the events thread too: publishing happens under the mailbox registry's lock,
    // and a logger may run a host's record observer, which may call the API object.
    thread_->post([callback = std::move(callback), event = std::move(event)] {
        ZU_LOG_AT_LEVEL(eventLogger(), levelOf(event.kind), event.toText());
        if (!callback) {
            return;
        }
        try {
            (*callback)(event);
        } catch (const std::exception& e) {
            ZU_LOG_ERROR(eventLogger(),
                         L"The event callback threw: " + Varkel::Zu::widen(e.what()));
        } catch (...) {
            ZU_LOG_ERROR(eventLogger(), L"The event callback threw.");
        }
    });
}

void EventDispatcher::stop() {
    thread_->stop();
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
