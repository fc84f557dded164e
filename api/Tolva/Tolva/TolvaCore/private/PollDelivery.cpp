#include "PollDelivery.h"

#include <ZuCore/StringConversion.h>

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

PollMail readPollBody(const web::json::value& body) {
    PollMail read;
    try {
        for (const web::json::value& notification : body.as_array()) {
            std::wstring topic = memberText(notification, "topic");
            std::wstring content = memberText(notification, "content");
            read.mail.emplace_back(std::move(topic), std::move(content));
        }
    } catch (const web::json::json_exception& e) {
        read.failed = true;
        read.failure = e.what();
    }
    return read;
}

void deliverPollMail(const PollMail& mail, Mailbox& mailbox) {
    for (const auto& notification : mail.mail) {
        mailbox.receiveMail(notification.first, notification.second);
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
