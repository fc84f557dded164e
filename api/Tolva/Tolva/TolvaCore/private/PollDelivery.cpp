#include "PollDelivery.h"

#include <ZuCore/StringConversion.h>

#include <vector>

namespace Varkel {
namespace Tolva {
namespace Rest {

namespace {

// A string member of a notification, "" when it is missing.
std::wstring memberText(const web::json::value& notification, const char* name) {
    if (!notification.is_object() || !notification.has_field(name)) {
        return L"";
    }
    return Varkel::Zu::widen(notification.at(name).as_string());
}

}  // namespace

void deliverPollBody(const web::json::value& body, Mailbox& mailbox) {
    // Copied first: the listeners run on the copy.
    const std::vector<web::json::value> notifications(body.as_array().begin(),
                                                      body.as_array().end());
    for (const web::json::value& notification : notifications) {
        mailbox.receiveMail(memberText(notification, "topic"), memberText(notification, "content"));
    }
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
