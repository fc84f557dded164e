#include <TolvaCore/NotificationListener.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

void NotificationListener::onMailReceived(const std::wstring& topic, const std::wstring& content) {
    ReceivedNotification notification;
    notification.topic = topic;
    notification.content = content;
    onNotificationReceived(notification);
}

// Defined here so that the class's vtable and type information live in the library: the
// mailbox tells a NotificationListener from a plain one with dynamic_cast.
NotificationListener::~NotificationListener() = default;

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
