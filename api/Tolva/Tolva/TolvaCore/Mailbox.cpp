#include <TolvaCore/Mailbox.h>

#include <ZuCore/LogMacros.h>

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
    : id(mailboxId), ttl(mailboxTtl), durable(isDurable) {}

Mailbox::Mailbox(Varkel::Zu::PrivateConstructorType)
    : id(boost::uuids::random_generator()()), ttl(0), durable(true) {}

Mailbox::~Mailbox() = default;

boost::uuids::uuid Mailbox::getId() const {
    return id;
}

void Mailbox::setId(const boost::uuids::uuid& newId) {
    id = newId;
}

unsigned int Mailbox::getTtl() const {
    return ttl;
}

void Mailbox::setTtl(unsigned int newTtl) {
    ttl = newTtl;
}

bool Mailbox::getDurable() const {
    return durable;
}

void Mailbox::setDurable(bool newDurable) {
    durable = newDurable;
}

std::wstring Mailbox::getSecret() const {
    std::lock_guard<std::mutex> lock(secretMutex_);
    return secret;
}

void Mailbox::setSecret(const std::wstring& newSecret) {
    std::lock_guard<std::mutex> lock(secretMutex_);
    if (&newSecret != &secret) {
        secret = newSecret;
    }
}

void Mailbox::addListener(const std::shared_ptr<MailboxListener>& listener) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto same = [&](const std::shared_ptr<MailboxListener>& entry) {
        return entry.get() == listener.get();
    };
    if (std::none_of(listeners.begin(), listeners.end(), same)) {
        listeners.push_back(listener);
    }
}

void Mailbox::removeListener(const std::shared_ptr<MailboxListener>& listener) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = std::find_if(listeners.begin(), listeners.end(), [&](const auto& entry) {
        return entry.get() == listener.get();
    });
    if (found != listeners.end()) {
        listeners.erase(found);
    }
}

void Mailbox::receiveMail(const std::wstring& topic, const std::wstring& content) {
    // Held for the whole delivery: listeners of one mailbox never run at the same time.
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& listener : listeners) {
        try {
            listener->onMailReceived(topic, content);
        } catch (...) {
            ZU_LOG_CAPPED(_logger, Varkel::Zu::Logger::getErrorLevel(), kListenerFailureCapMs,
                          L"Unknown exception caught while receiving mail.");
        }
    }
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
