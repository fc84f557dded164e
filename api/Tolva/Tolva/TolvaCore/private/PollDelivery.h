// How the body of a poll answered 200 reaches a mailbox: every notification of the JSON array,
// in array order, handed to Mailbox::receiveMail with its "topic" and "content" ("" for a
// missing member).
#pragma once

#include <TolvaCore/Mailbox.h>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

// Delivers every notification of `body` to `mailbox`. Throws web::json::json_exception when
// the body is not an array or a present "topic" or "content" is not a string; notifications
// before the offending one are delivered.
void deliverPollBody(const web::json::value& body, Mailbox& mailbox);

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
