/// @struct Varkel::Tolva::Rest::ReceivedNotification
/// ReceivedNotification: one notification as a mailbox received it, with the members the
/// poster set besides topic and content: its id, time and source. A NotificationListener gets
/// it for every notification. A post that reached the platform twice (a request sent again on
/// a fresh connection, say) comes as two notifications with the same id, so a host that keeps
/// the ids it has seen can drop the duplicate; a second call of postNotification, by contrast,
/// posts a new notification under a new id.
///
/// A plain value: the members are the fetched text converted from UTF-8, nothing else is
/// checked or changed, and "" stands for a member the notification did not carry (see each
/// member for the other cases). Copying and reading one take no lock; the object handed to a
/// listener lives until the listener returns, so keep a copy to use it later.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

struct TOLVA_EXPORT ReceivedNotification {
    /// The id the poster gave the notification (postNotification: a random UUID in its
    /// lower-case text form), as fetched. "" when the notification has no "id", when its "id"
    /// is not a JSON string, and for mail handed in through Mailbox::receiveMail.
    std::wstring id;

    /// The time the poster put on the notification (postNotification: UTC, ISO 8601, such as
    /// "2024-05-01T12:00:00Z"), as fetched and not parsed. "" when the notification has no
    /// "time", when its "time" is not a JSON string, and for mail handed in through
    /// Mailbox::receiveMail.
    std::wstring time;

    /// What posted the notification ("Tolva" for postNotification of this library), as
    /// fetched. "" when the notification has no "source", when its "source" is not a JSON
    /// string, and for mail handed in through Mailbox::receiveMail.
    std::wstring source;

    /// The notification's topic exactly as fetched (the platform hands out the topic it
    /// stored, in lower case for posts of this library); "" when the notification has none.
    /// A fetched notification whose "topic" is not a string is never delivered: the mailbox
    /// stops receiving mail there.
    std::wstring topic;

    /// The notification's content exactly as fetched; "" when the notification has none. As
    /// for the topic, a "content" that is not a string stops the mailbox instead.
    std::wstring content;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
