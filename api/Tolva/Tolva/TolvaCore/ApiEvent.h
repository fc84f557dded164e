/// @class Varkel::Tolva::Rest::ApiEvent
/// ApiEvent: something that happened to a QxPlatformApi that its host did not cause itself: a
/// mailbox stopped, backing off or polling again, a mailbox the platform lost and that was
/// created again, a service registration lost or renewed, token renewal failing and
/// recovering. Handed to the callback set with QxPlatformApi::setEventCallback, and logged on
/// "TolvaCore.Events" (warning for a stop or a loss, error for a failing renewal, info for the
/// rest). No event carries a secret or a token.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <chrono>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

class TOLVA_EXPORT ApiEvent {
  public:
    /// What happened.
    enum class Kind {
        /// A mailbox is no longer polled: `subject` is its id, `httpStatus` the status that
        /// stopped it (0 when none: an unreadable answer, a poll that could not be started),
        /// `reason` says why. It gets no more mail.
        MailboxStopped,
        /// A mailbox's poll failed and it waits before polling again: told once per run of
        /// failures, at the first one answered with a status, or at the second in a row of
        /// transport failures or polls waiting for a token (one alone is ordinary: a server
        /// closed an idle connection, a key was re-applied). `httpStatus` (0 when none) and
        /// `reason`.
        MailboxBackingOff,
        /// A mailbox whose backing off was told has been answered again.
        MailboxPollingAgain,
        /// The platform had lost a mailbox (its poll was answered 404) and it was created
        /// again with the same id, subscriptions and listeners (resilient mode).
        MailboxRecreated,
        /// A heartbeat was answered 404: the platform no longer knows the service `subject`.
        ServiceRegistrationLost,
        /// A lost service was registered again (resilient mode): `subject` is its old id,
        /// `newId` the id the platform returned now (heartbeats go to it from now on).
        ServiceRegisteredAgain,
        /// A token request failed (the first failure of a run only): `httpStatus` when the
        /// platform answered, `reason` the failure's text.
        TokenRenewalFailed,
        /// A token was obtained again after failures.
        TokenRenewalRecovered
    };

    /// What happened.
    Kind kind = Kind::MailboxStopped;
    /// The mailbox id or the service id the event is about; empty for token events.
    std::wstring subject;
    /// The service's new id (ServiceRegisteredAgain only).
    std::wstring newId;
    /// The HTTP status behind the event, 0 when there is none.
    int httpStatus = 0;
    /// A short text of what happened, for people; not meant to be parsed.
    std::wstring reason;
    /// When it happened.
    std::chrono::system_clock::time_point at;

    /// "mailboxStopped", "mailboxBackingOff", "mailboxPollingAgain", "mailboxRecreated",
    /// "serviceRegistrationLost", "serviceRegisteredAgain", "tokenRenewalFailed",
    /// "tokenRenewalRecovered".
    static const wchar_t* kindName(Kind kind);

    /// The event as one JSON object: {"event": kindName, "at" (ISO 8601 UTC), "subject",
    /// "newId" (only when set), "httpStatus" (only when not 0), "reason"}. Never throws except
    /// std::bad_alloc.
    std::wstring toJson() const;

    /// One line for people: kind, subject, status and reason.
    std::wstring toText() const;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
