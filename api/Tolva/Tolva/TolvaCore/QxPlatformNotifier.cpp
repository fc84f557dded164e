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
      api_(std::move(notifierApi)),
      topic_(std::move(notificationTopic)),
      content_(std::move(notificationContent)),
      value_(notificationValue) {}

QxPlatformNotifier::QxPlatformNotifMessage::~QxPlatformNotifMessage() = default;

void QxPlatformNotifier::QxPlatformNotifMessage::process() {
    if (!api_ || topic_.empty() || content_.empty()) {
        return;
    }
    try {
        api_->postNotification(topic_, content_, value_);
    } catch (...) {
        // The API object has logged what it had to say; a notification is never retried.
    }
}

QxPlatformNotifier::QxPlatformNotifier(Varkel::Zu::PrivateConstructorType, const std::wstring& name,
                                       const std::shared_ptr<Rest::QxPlatformApi>& notifierApi,
                                       Varkel::Zu::ThreadEnum::Priority priority)
    : Named(name), api_(notifierApi) {
    if (!api_) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException, L"Invalid QX Platform API.");
    }
    thread_ = Varkel::Zu::MakeShared::create<Varkel::Zu::MessageThread>(
        getName() + L" QXP notif thread", priority, ZU_MAXUINT32);
    thread_->start();
}

QxPlatformNotifier::~QxPlatformNotifier() {
    if (thread_) {
        thread_->stop(true);
    }
}

void QxPlatformNotifier::postNotification(const std::wstring& topic, const std::wstring& content,
                                          unsigned int value) {
    try {
        thread_->postMessage(std::make_shared<QxPlatformNotifMessage>(api_, topic, content, value));
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
