// Small helpers the subcommands share: text conversions, times, result names.
#pragma once

#include <TolvaCore/JWTUtils.h>
#include <TolvaCore/Token.h>

#include <chrono>
#include <string>

#include <cpprest/json.h>

namespace tolva {

// "2026-11-23T06:30:00Z".
std::string isoUtc(std::chrono::system_clock::time_point when);

// The token's expiry as an ISO time and the whole seconds left from now (negative when past).
std::string tokenExpiry(const Varkel::Tolva::Rest::Token& token);
long long tokenSecondsLeft(const Varkel::Tolva::Rest::Token& token);

// "Verified", "TokenExpired", ...
std::string verificationName(Varkel::Tolva::VerificationResult result);

// A JSON string value of UTF-8 text.
web::json::value jsonText(const std::string& text);

// Milliseconds since `start`, as a whole number.
long long millisecondsSince(std::chrono::steady_clock::time_point start);

}  // namespace tolva
