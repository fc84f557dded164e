// How the body of a poll answered 200 reaches a mailbox: every notification of the JSON array,
// in array order, handed to Mailbox::receiveNotification with its "id", "time", "source",
// "topic" and "content" ("" for a missing member). Reading the body (on an HTTP thread) and
// delivering it (on a delivery thread, where listeners may block) are separate steps.
#pragma once

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/ReceivedNotification.h>

#include <cpprest/json.h>

#include <string>
#include <vector>

namespace Varkel {
namespace Tolva {
namespace Rest {

// The mail of one poll answer in array order, and the text of the JSON error that stopped the
// reading, if one did (the mail before it is kept).
struct PollMail {
    std::vector<ReceivedNotification> mail;
    bool failed = false;
    std::string failure;
};

// Reads every notification of `body`. The body not being an array, or a present "topic" or
// "content" not being a string, ends the reading with `failed` set. "id", "time" and "source"
// never do: each is "" when it is missing or not a string. An element that is not an object
// is read as a notification with every member "". Never throws except std::bad_alloc.
PollMail readPollBody(const web::json::value& body);

// Hands every notification read to `mailbox` (Mailbox::receiveNotification) in order.
void deliverPollMail(const PollMail& mail, Mailbox& mailbox);

// readPollBody and deliverPollMail in one: delivers every notification of `body`. Throws
// web::json::json_exception when the body is not an array or a present "topic" or "content"
// is not a string; notifications before the offending one are delivered.
void deliverPollBody(const web::json::value& body, Mailbox& mailbox);

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
