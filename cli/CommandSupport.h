// Small helpers the subcommands share: text conversions, times, result names.
#pragma once

#include "Arguments.h"

#include <TolvaCore/JWTUtils.h>
#include <TolvaCore/Token.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <cpprest/json.h>

namespace tolva {

// "2026-11-23T06:30:00Z".
std::string isoUtc(std::chrono::system_clock::time_point when);

// The token's expiry as an ISO time and the whole seconds left from now (negative when past).
std::string tokenExpiry(const Varkel::Tolva::Rest::Token& token);
long long tokenSecondsLeft(const Varkel::Tolva::Rest::Token& token);

// "Verified", "TokenExpired", ...
std::string verificationName(Varkel::Tolva::VerificationResult result);

// The options that choose how a command verifies tokens: --jwt-profile, --issuer, --audience.
std::vector<OptionSyntax> verificationOptions();

// A verifier with the environment's settings (TOLVA_JWT_PROFILE, TOLVA_JWT_ISSUER,
// TOLVA_JWT_AUDIENCE) overridden by those options. Throws UsageError for a profile name that
// is neither "platform" nor "rfc9068".
std::shared_ptr<Varkel::Tolva::JWTUtils> makeVerifier(const Arguments& arguments);

// "InvalidToken (Token type is not 'JWT')": the result with its reason, and a hint when the
// default profile refused a token that the RFC 9068 profile might accept.
std::string refusalText(const Varkel::Tolva::JWTUtils& verifier,
                        Varkel::Tolva::VerificationResult result, const std::string& reason);

// A JSON string value of UTF-8 text.
web::json::value jsonText(const std::string& text);

// Milliseconds since `start`, as a whole number.
long long millisecondsSince(std::chrono::steady_clock::time_point start);

}  // namespace tolva
