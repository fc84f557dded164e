/// @file MailboxState.h
/// MailboxState: where one mailbox created by a QxPlatformApi stands in its life. Every change
/// goes through one place in the API object, which also reports the changes the host did not
/// cause itself (see ApiEvent). At most one poll of a mailbox is ever outstanding, and a
/// stopped or deleted mailbox is never polled or handed mail again.
///
///   createMailbox --> Queued --> Polling --(200 with mail)--> Delivering --> Queued ...
///                                   |--(204, 200 without mail)-----------------> Queued
///                                   |--(transport failure; resilient: 401, 429, 5xx)--> BackingOff
///                                   --> Queued
///                                   |--(resilient: 404)--> Recovering --(created again)--> Queued
///                                   '--(another status, unreadable answer)--> Stopped
///   deleteMailbox (any state) --> Deleting (its outstanding poll is cancelled) --> gone
#pragma once

#include <TolvaCore/TolvaExport.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

/// Where one mailbox of a QxPlatformApi stands; see the file's description.
enum class MailboxState {
    Queued,      ///< Waiting for the polling thread to send its next poll.
    Polling,     ///< A poll is outstanding.
    Delivering,  ///< Its listeners are running with the mail of the last poll.
    BackingOff,  ///< Waiting before it is polled again (after a failure, or for a token).
    Recovering,  ///< Being created again on the platform, which lost it (resilient mode).
    Stopped,     ///< No longer polled (a status, an unreadable answer, a poll not started).
    Deleting     ///< deleteMailbox is under way; it is polled no more.
};

/// "queued", "polling", "delivering", "backingOff", "recovering", "stopped", "deleting".
TOLVA_EXPORT const wchar_t* mailboxStateName(MailboxState state);

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
