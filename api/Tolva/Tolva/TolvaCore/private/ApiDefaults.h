// The fixed settings of the API object's operations, in one place: request paths, the token
// renewal margin, the heartbeat period and the cap interval of repeatable error logs.
#pragma once

#include <chrono>
#include <cstddef>

namespace Varkel {
namespace Tolva {
namespace Rest {
namespace ApiDefaults {

// Repeatable error sites log at most one record per this many milliseconds each.
constexpr unsigned int kLogCapMs = 60000;
// A token is renewed once fewer than this many seconds of it remain.
constexpr std::chrono::seconds kTokenRenewalMargin(300);
// The heartbeat task's wait between passes.
constexpr std::chrono::seconds kHeartbeatPeriod(5);

constexpr const char* kTokenPath = "/identity/connect/token";
constexpr const char* kKeySetPath = "/identity/.well-known/openid-configuration/jwks";
constexpr const char* kTokenRequestBody = "grant_type=client_credentials&scope=platform+cluster";
constexpr const char* kFormContentType = "application/x-www-form-urlencoded";
constexpr const char* kNotificationsPath = "/notifications/api/v1/notifications";
constexpr const char* kServicePath = "/discovery/api/v1/service";
constexpr const char* kMailboxPath = "/notifications/api/v1/mailbox";
// Long polls: GET kNotificationsPath + "/" + mailbox id + kPollQuery.
constexpr const char* kPollQuery = "?timeout=30";
// The time-out per step of every request but the long poll (the HTTP library's default).
constexpr std::chrono::seconds kRequestStepTimeout(30);
// How long the platform holds a poll before it answers 204 (the query above).
constexpr std::chrono::seconds kPlatformPollWait(30);
// The poll client's time-out per step: the platform's wait and a margin of 15 s for its
// answer to cross a loaded platform and the proxies in between. With no margin the client
// and the platform both give up at 30 s and the client always loses: an idle mailbox would
// cost a transport failure, a broken connection and (over HTTPS) a handshake per cycle.
constexpr std::chrono::seconds kPollStepTimeout(45);
// Polls that may be opening a connection at once (see ConnectionPacer): enough that a batch
// of polls on kept-alive connections never waits, few enough that their TLS handshakes (some
// 20 ms of CPU each) finish within seconds on a pool of two threads.
constexpr std::size_t kPollsOpeningAtOnce = 16;
// The bounds of a request's overall time limit (QxPlatformApi::setRequestTimeLimit).
constexpr std::chrono::milliseconds kShortestRequestTimeLimit(100);
constexpr std::chrono::milliseconds kLongestRequestTimeLimit(3600000);

// A poll that fails in transport is retried after a back-off that doubles from the first
// delay up to the longest one, and starts again from the first after a poll succeeds.
constexpr std::chrono::milliseconds kPollRetryFirstDelay(100);
constexpr std::chrono::milliseconds kPollRetryLongestDelay(5000);

}  // namespace ApiDefaults
}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
