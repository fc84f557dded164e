#include <TolvaCore/QxPlatformNotifier.h>

#include <ZuCore/Constants.h>
#include <ZuCore/Exception.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/ThrowException.h>

#include <sstream>
#include <utility>

namespace Varkel {
namespace Tolva {

namespace {

// Refused posts are logged at most once per this many milliseconds.
constexpr unsigned int kRefusedPostCapMs = 5000;

}  // namespace

std::shared_ptr<Varkel::Zu::Logger> QxPlatformNotifier::_logger =
    Varkel::Zu::Logger::getLogger("TolvaCore.QxPlatformNotifier");

QxPlatformNotifier::QxPlatformNotifMessage::QxPlatformNotifMessage(
    std::shared_ptr<Rest::QxPlatformApi> notifierApi, std::wstring notificationTopic,
    std::wstring notificationContent, unsigned int notificationValue)
    : Message(L"QxPlatformNotifMessage"),
      api(std::move(notifierApi)),
      topic(std::move(notificationTopic)),
      content(std::move(notificationContent)),
      value(notificationValue) {}

QxPlatformNotifier::QxPlatformNotifMessage::~QxPlatformNotifMessage() = default;

void QxPlatformNotifier::QxPlatformNotifMessage::process() {
    if (!api || topic.empty() || content.empty()) {
        return;
    }
    try {
        api->postNotification(topic, content, value);
    } catch (...) {
        // The API object has logged what it had to say; a notification is never retried.
    }
}

QxPlatformNotifier::QxPlatformNotifier(Varkel::Zu::PrivateConstructorType, const std::wstring& name,
                                       const std::shared_ptr<Rest::QxPlatformApi>& notifierApi,
                                       Varkel::Zu::ThreadEnum::Priority priority)
    : Named(name), api(notifierApi) {
    if (!api) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException, L"Invalid QX Platform API.");
    }
    thread = Varkel::Zu::MakeShared::create<Varkel::Zu::MessageThread>(
        getName() + L" QXP notif thread", priority, ZU_MAXUINT32);
    thread->start();
}

QxPlatformNotifier::~QxPlatformNotifier() {
    if (thread) {
        thread->stop(true);
    }
}

void QxPlatformNotifier::postNotification(const std::wstring& topic, const std::wstring& content,
                                          unsigned int value) {
    try {
        thread->postMessage(std::make_shared<QxPlatformNotifMessage>(api, topic, content, value));
    } catch (const Varkel::Zu::Exception& e) {
        ZU_LOG_CAPPED(_logger, Varkel::Zu::Logger::getErrorLevel(), kRefusedPostCapMs, [&] {
            std::wostringstream text;
            text << L"Failed to post QXP notif message: " << e;
            return text.str();
        }());
    }
}

}  // namespace Tolva
}  // namespace Varkel
