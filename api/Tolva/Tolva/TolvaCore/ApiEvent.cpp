#include <TolvaCore/ApiEvent.h>

#include "private/IsoTime.h"

#include <ZuCore/StringConversion.h>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::json::value;

const wchar_t* ApiEvent::kindName(Kind kind) {
    switch (kind) {
        case Kind::MailboxStopped:
            return L"mailboxStopped";
        case Kind::MailboxBackingOff:
            return L"mailboxBackingOff";
        case Kind::MailboxPollingAgain:
            return L"mailboxPollingAgain";
        case Kind::MailboxRecreated:
            return L"mailboxRecreated";
        case Kind::ServiceRegistrationLost:
            return L"serviceRegistrationLost";
        case Kind::ServiceRegisteredAgain:
            return L"serviceRegisteredAgain";
        case Kind::TokenRenewalFailed:
            return L"tokenRenewalFailed";
        case Kind::TokenRenewalRecovered:
            return L"tokenRenewalRecovered";
    }
    return L"unknown";
}

std::wstring ApiEvent::toJson() const {
    value document = value::object(true);
    document["event"] = value::string(narrow(kindName(kind)));
    document["at"] = value::string(isoUtc(at));
    document["subject"] = value::string(narrow(subject));
    if (!newId.empty()) {
        document["newId"] = value::string(narrow(newId));
    }
    if (httpStatus != 0) {
        document["httpStatus"] = value::number(httpStatus);
    }
    document["reason"] = value::string(narrow(reason));
    return widen(document.serialize());
}

std::wstring ApiEvent::toText() const {
    std::wstring text = kindName(kind);
    if (!subject.empty()) {
        text += L" " + subject;
    }
    if (!newId.empty()) {
        text += L" -> " + newId;
    }
    if (httpStatus != 0) {
        text += L" (HTTP " + std::to_wstring(httpStatus) + L")";
    }
    if (!reason.empty()) {
        text += L": " + reason;
    }
    return text;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
