// The fixed settings of the API object's operations, in one place: request paths, the token
// renewal margin, the heartbeat period and the cap interval of repeatable error logs.
#pragma once

#include <chrono>

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

// A poll that fails in transport is retried after a back-off that doubles from the first
// delay up to the longest one, and starts again from the first after a poll succeeds.
constexpr std::chrono::milliseconds kPollRetryFirstDelay(100);
constexpr std::chrono::milliseconds kPollRetryLongestDelay(5000);

}  // namespace ApiDefaults
}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
