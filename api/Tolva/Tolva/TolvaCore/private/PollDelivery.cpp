#include "PollDelivery.h"

#include <ZuCore/StringConversion.h>

#include <utility>

namespace Varkel {
namespace Tolva {
namespace Rest {

namespace {

// A member that must be a string when present: "" when it is missing; a json_exception when
// it is anything else.
std::wstring memberText(const web::json::value& notification, const char* name) {
    if (!notification.is_object() || !notification.has_field(name)) {
        return L"";
    }
    return Varkel::Zu::widen(notification.at(name).as_string());
}

// A member that is used when it is a string and ignored otherwise: "" when it is missing or
// not a string. It never ends the reading of the mail.
std::wstring optionalMemberText(const web::json::value& notification, const char* name) {
    if (!notification.is_object() || !notification.has_field(name)) {
        return L"";
    }
    const web::json::value& member = notification.at(name);
    return member.is_string() ? Varkel::Zu::widen(member.as_string()) : std::wstring();
}

}  // namespace

PollMail readPollBody(const web::json::value& body) {
    PollMail read;
    try {
        for (const web::json::value& notification : body.as_array()) {
            ReceivedNotification received;
            received.topic = memberText(notification, "topic");
            received.content = memberText(notification, "content");
            received.id = optionalMemberText(notification, "id");
            received.time = optionalMemberText(notification, "time");
            received.source = optionalMemberText(notification, "source");
            read.mail.push_back(std::move(received));
        }
    } catch (const web::json::json_exception& e) {
        read.failed = true;
        read.failure = e.what();
    }
    return read;
}

void deliverPollMail(const PollMail& mail, Mailbox& mailbox) {
    for (const ReceivedNotification& notification : mail.mail) {
        mailbox.receiveNotification(notification);
    }
}

void deliverPollBody(const web::json::value& body, Mailbox& mailbox) {
    const PollMail read = readPollBody(body);
    deliverPollMail(read, mailbox);
    if (read.failed) {
        throw web::json::json_exception(read.failure.c_str());
    }
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
