#include <TolvaCore/Mailbox.h>

#include <TolvaCore/NotificationListener.h>

#include "private/StatisticsRecorder.h"

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/ThrowException.h>

#include <algorithm>

#include <boost/uuid/random_generator.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

namespace {

// Listener failures are logged at most once per this many milliseconds.
constexpr unsigned int kListenerFailureCapMs = 1000;

}  // namespace

std::shared_ptr<Varkel::Zu::Logger> Mailbox::_logger =
    Varkel::Zu::Logger::getLogger("TolvaCore.Mailbox");

MailboxListener::~MailboxListener() = default;

Mailbox::Mailbox(Varkel::Zu::PrivateConstructorType, const boost::uuids::uuid& mailboxId,
                 unsigned int mailboxTtl, bool isDurable)
    : id_(mailboxId), ttl_(mailboxTtl), durable_(isDurable) {}

Mailbox::Mailbox(Varkel::Zu::PrivateConstructorType)
    : id_(boost::uuids::random_generator()()), ttl_(0), durable_(true) {}

Mailbox::~Mailbox() = default;

boost::uuids::uuid Mailbox::getId() const {
    return id_;
}

void Mailbox::setId(const boost::uuids::uuid& newId) {
    id_ = newId;
}

unsigned int Mailbox::getTtl() const {
    return ttl_;
}

void Mailbox::setTtl(unsigned int newTtl) {
    ttl_ = newTtl;
}

bool Mailbox::getDurable() const {
    return durable_;
}

void Mailbox::setDurable(bool newDurable) {
    durable_ = newDurable;
}

std::wstring Mailbox::getSecret() const {
    std::lock_guard<std::mutex> lock(secretMutex_);
    return secret_;
}

void Mailbox::setSecret(const std::wstring& newSecret) {
    std::lock_guard<std::mutex> lock(secretMutex_);
    if (&newSecret != &secret_) {
        secret_ = newSecret;
    }
}

void Mailbox::addListener(const std::shared_ptr<MailboxListener>& listener) {
    if (!listener) {
        // Refused here rather than failing at the next mail, on a delivery thread.
        ZU_THROW(Varkel::Zu::InvalidArgumentException, L"The mailbox listener is null.");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const auto same = [&](const std::shared_ptr<MailboxListener>& entry) {
        return entry.get() == listener.get();
    };
    if (std::none_of(listeners_.begin(), listeners_.end(), same)) {
        listeners_.push_back(listener);
    }
}

void Mailbox::removeListener(const std::shared_ptr<MailboxListener>& listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(listeners_.begin(), listeners_.end(), [&](const auto& entry) {
        return entry.get() == listener.get();
    });
    if (found != listeners_.end()) {
        listeners_.erase(found);
    }
}

void Mailbox::receiveMail(const std::wstring& topic, const std::wstring& content) {
    deliver(topic, content, nullptr);
}

void Mailbox::receiveNotification(const ReceivedNotification& notification) {
    deliver(notification.topic, notification.content, &notification);
}

void Mailbox::deliver(const std::wstring& topic, const std::wstring& content,
                      const ReceivedNotification* notification) {
    // Held for the whole delivery: listeners of one mailbox never run at the same time.
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& listener : listeners_) {
        try {
            // Mail without a notification reaches a NotificationListener through its
            // onMailReceived, which fills in topic and content only.
            auto* const whole =
                notification ? dynamic_cast<NotificationListener*>(listener.get()) : nullptr;
            if (whole) {
                whole->onNotificationReceived(*notification);
            } else {
                listener->onMailReceived(topic, content);
            }
        } catch (...) {
            // Counted for the delivery job that called this (see StatisticsRecorder).
            ++listenerExceptionsOnThisThread();
            ZU_LOG_CAPPED(_logger, Varkel::Zu::Logger::getErrorLevel(), kListenerFailureCapMs,
                          L"Unknown exception caught while receiving mail.");
        }
    }
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
