/// @file JwtProfile.h
/// JwtProfile: which tokens a JWTUtils accepts. Chosen per verifier with
/// JWTUtils::setProfile, or for every verifier of the process with the environment variable
/// TOLVA_JWT_PROFILE ("rfc9068" or "platform"), read when a verifier is made.
#pragma once

#include <TolvaCore/TolvaExport.h>

namespace Varkel {
namespace Tolva {

/// The rules a JWTUtils verifies a token by; see JWTUtils::verify for each step.
enum class JwtProfile {
    /// The default: the platform's own tokens. The header's "typ" must be exactly "JWT"; the
    /// signing key ("use" "sig") must carry its X.509 certificate in "x5c"; the signature is
    /// checked as RS256 whatever the header's "alg" says; of the claims only "exp" is
    /// required. Other tokens are refused (InvalidToken for another "typ" or a key without
    /// "x5c").
    Platform,
    /// JWT access tokens as standard OpenID providers issue them (RFC 9068), beside the
    /// platform's own:
    /// - "typ" may be "JWT", "at+jwt" or "application/at+jwt" (any case);
    /// - "alg" is required and decides the check: RS256, PS256 (RSA) or ES256 (P-256); any
    ///   other value, "none" included, is InvalidToken;
    /// - the key is found by "kid" among the keys whose "use" is "sig" or absent; it may carry
    ///   "x5c" (used as by default) or, without it, its public key itself: "n" and "e" for
    ///   "kty" "RSA", "crv" "P-256" with "x" and "y" for "kty" "EC"; a key whose type does
    ///   not fit the algorithm, or whose own "alg" names another one, is VerificationFailed;
    /// - "exp" is required and checked as by default (TokenExpired); an access token ("typ"
    ///   "at+jwt" or "application/at+jwt") must also carry the claims "iss", "aud", "sub",
    ///   "client_id", "iat" and "jti" (InvalidToken when one is missing or of the wrong JSON
    ///   type), a "nbf" after the given time is InvalidToken, and "iss" must equal the expected
    ///   issuer and "aud" (a string or an array) must hold the expected audience when these are
    ///   set (JWTUtils::setExpectedIssuer, setExpectedAudience), else InvalidToken. A "JWT" is
    ///   the platform's own kind of token, which has no audience: its claims are checked as by
    ///   default.
    Rfc9068
};

/// "platform" or "rfc9068".
TOLVA_EXPORT const wchar_t* jwtProfileName(JwtProfile profile);

/// The profile TOLVA_JWT_PROFILE names ("rfc9068" or "platform", any case); Platform when it
/// is unset or names neither (a value that names neither is logged as a warning on
/// "TolvaCore.JWTUtils"). Never throws.
TOLVA_EXPORT JwtProfile jwtProfileFromEnvironment();

}  // namespace Tolva
}  // namespace Varkel
