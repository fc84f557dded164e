/// @class Varkel::Tolva::Rest::Token
/// The access token record of a QxPlatformApi: the bearer token text the platform's identity
/// service issued, the platform account it belongs to, the identity service's key set and the
/// instant at which the token runs out.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <chrono>
#include <cstdint>
#include <ratio>
#include <string>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

/// A plain, copyable value. A default-constructed Token is the "no token yet" state: empty
/// text, null key set and the earliest representable expiry, so it always counts as due for
/// renewal.
struct TOLVA_EXPORT Token {
    /// Expiry times count 100 ns ticks since 1970-01-01 UTC in a signed 64-bit number, the
    /// resolution the platform's lifetimes and the renewal margin are expressed in. The system
    /// clock of this platform counts nanoseconds, so the tick type is spelled out here rather
    /// than taken from std::chrono::system_clock::duration.
    using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10000000>>;
    /// An instant of the system clock in Ticks.
    using TimePoint = std::chrono::time_point<std::chrono::system_clock, Ticks>;

    /// The current system time, truncated to whole ticks.
    static TimePoint now() {
        return std::chrono::time_point_cast<Ticks>(std::chrono::system_clock::now());
    }

    /// The "access_token" text of the last successful token reply; empty when there is none.
    std::wstring accessToken;
    /// The "acc" claim of the access token's payload: the platform account.
    std::wstring account;
    /// The identity service's JSON Web Key Set exactly as fetched alongside the token.
    web::json::value keySet;
    /// The instant at which accessToken expires.
    TimePoint expiresAt = TimePoint::min();
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
