/// @file RecoveryMode.h
/// RecoveryMode: how a QxPlatformApi reacts to the ordinary failures of a real deployment (a
/// platform restart, a proxy's 502 or 504, a token request that fails once). Chosen per API
/// object with QxPlatformApi::setRecoveryMode, or for every object of the process with the
/// environment variable TOLVA_RECOVERY ("resilient" or "strict"), read when an object is made.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

/// How a QxPlatformApi reacts to ordinary outages; see the file's description.
enum class RecoveryMode {
    /// The default: every call behaves exactly as documented on QxPlatformApi. A poll answered
    /// with a status other than 200 or 204 drops its mailbox, a failed token request clears
    /// the token (later requests carry "Bearer " with nothing after it), a heartbeat answered
    /// 404 is only logged, and a request and reply whose post fails leaves its temporary
    /// mailbox on the platform. Each of these is reported to the host (see ApiEvent).
    Strict,
    /// Keeps mail flowing through outages:
    /// - a failed token renewal keeps the current token while it is still valid;
    /// - no poll goes out without a token: it waits (backing off, bounded) until one is there,
    ///   so changing the API key or the URL keeps every mailbox polling; no other request goes
    ///   out without one either: the call throws std::runtime_error "No access token (the last
    ///   token request failed); the request was not sent." (a heartbeat logs it);
    /// - a poll answered 401 renews the token and polls again; 429, 502, 503 and 504 back off
    ///   and poll again; 404 (the platform lost the mailbox) creates the mailbox again with the
    ///   same id, its subscriptions and its listeners;
    /// - a heartbeat answered 404 registers the service again (the platform returns a new id);
    /// - a request and reply whose post fails deletes its temporary mailbox;
    /// - a mailbox stopped for another status can still be deleted with deleteMailbox.
    /// Every back-off doubles from 100 ms to 5 s and is counted in ApiStatistics.
    Resilient
};

/// "strict" or "resilient".
TOLVA_EXPORT const wchar_t* recoveryModeName(RecoveryMode mode);

/// The mode TOLVA_RECOVERY names ("resilient" or "strict", any case); Strict when it is unset
/// or names neither (a value that names neither is logged as a warning on
/// "TolvaCore.QxPlatformApi"). Never throws.
TOLVA_EXPORT RecoveryMode recoveryModeFromEnvironment();

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
