/// @class Varkel::Tolva::JWTUtils
/// JWTUtils: verification of JSON Web Tokens that the platform issued, against the platform's
/// JSON Web Key Set (the key set QxPlatformApi fetched with its token: take it with
/// QxPlatformApi::getCurrentTokenCopy().keySet). It checks the token's header and expiry and
/// its RS256 signature with the X.509 certificate of the signing key, and reports a result
/// instead of throwing.
///
/// By default it accepts the platform's own tokens only (JwtProfile::Platform). The opt-in
/// profile JwtProfile::Rfc9068 (setProfile, or TOLVA_JWT_PROFILE=rfc9068 for the whole process)
/// also accepts the JWT access tokens of standard OpenID providers: "typ" "at+jwt", keys
/// without certificates ("n"/"e"), RS256, PS256 and ES256, and checks the claims RFC 9068
/// requires; see JwtProfile.
///
///   auto verifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();
///   web::json::value claims;
///   if (verifier->verify(api->getCurrentTokenCopy().keySet, token, claims) ==
///       Varkel::Tolva::Verified) { ... claims.at("acc") ... }
#pragma once

#include <TolvaCore/JwtProfile.h>
#include <TolvaCore/TolvaExport.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <cpprest/json.h>
#include <openssl/evp.h>

namespace Varkel {
namespace Tolva {

class VerifiedTokenCache;

/// The outcome of JWTUtils::verify and JWTUtils::findKey.
enum VerificationResult : std::int32_t {
    /// The key set has no "keys" array, or no signing key with the token's key id.
    KeyNotFound = 0,
    /// Value 1 is reserved and never produced.
    /// The "exp" claim lies in the past.
    TokenExpired = 2,
    /// The token or its key is malformed: not three parts, a header without "kid" or "typ",
    /// "typ" not "JWT", a key without "x5c", claims without "exp".
    InvalidToken = 3,
    /// The certificate or key cannot be used, the signature does not verify, or the token
    /// could not be read at all (bad Base64 or JSON).
    VerificationFailed = 4,
    /// The signature verifies and the token has not expired (findKey: the key was found).
    Verified = 5,
};

/// Every failure is logged at error level on "TolvaCore.JWTUtils" (the texts below); a token
/// that is not three parts and a key id the set does not know are returned without a line.
/// Tokens and claims are never logged. The verify overload with a `reason` also hands the
/// failure's text to the caller, including for the two cases without a line.
///
/// Thread safety: one JWTUtils may serve any number of threads at once: verify and findKey
/// keep their state on the stack, and the verified tokens kept (below) sit behind a lock of
/// their own, held for a table lookup or insertion only; the setters (profile, issuer, audience)
/// are meant for before the object is shared, and must not run while another thread verifies with
/// it. The public keys of the certificates seen are kept in a process-wide, bounded cache keyed by
/// the certificate text, so a certificate is parsed once however many tokens it verifies; a
/// certificate that fails to parse is never kept, and a new key set simply brings new texts.
///
/// Verified tokens are remembered, so that a token verified again (a service checking the
/// bearer token of every request) costs a digest and a table lookup instead of a signature
/// check. The results, claims, reasons and log lines are those of a full verification: an
/// entry holds the token's claims and is found by the SHA-256 digest of the whole token text,
/// so a token that differs in any byte is verified in full; its expiry (and under Rfc9068 its
/// "nbf") is checked against `now` on every verification, so a token expires in the cache as
/// it does outside it. Only tokens that verified are kept, at most 1024 (the least recently
/// used goes first), and all of them were verified against the same key set and settings:
/// verifying against a key set that differs in anything (a rotated key, a removed key) or after
/// a setter changed the rules drops them all first. One object, shared by the threads that
/// verify, keeps one table for all of them; copies share it too. Verifying with one object
/// against two key sets in turn drops the table at every switch (the results stay right, the
/// speed is that of full verifications): use one object per key set.
class TOLVA_EXPORT JWTUtils {
  public:
    /// Made through Varkel::Zu::MakeShared::create<JWTUtils>(). The profile comes from
    /// TOLVA_JWT_PROFILE (see jwtProfileFromEnvironment), the expected issuer and audience of
    /// the Rfc9068 profile from TOLVA_JWT_ISSUER and TOLVA_JWT_AUDIENCE (unset: not checked).
    /// Throws std::bad_alloc when libcrypto cannot make its digest context.
    explicit JWTUtils(Varkel::Zu::PrivateConstructorType);
    virtual ~JWTUtils();
    /// A copy shares the digest context and the verified tokens kept, and has the same
    /// profile, issuer and audience.
    JWTUtils(const JWTUtils& other);
    /// Shares the other's digest context and verified tokens kept.
    JWTUtils& operator=(const JWTUtils& other);

    /// Verifies `token` against the key set `jwks` at the time `now` (seconds since the Unix
    /// epoch). By default (JwtProfile::Platform) it checks, in order: three "."-separated parts; a
    /// header with "kid" and "typ", "typ" exactly "JWT" (the "alg" member is not consulted: the
    /// signature is always checked as RS256); a signing key with that "kid" that has "x5c"; the
    /// payload (stored in `claims` from then on, whatever the result) with "exp" not before `now`
    /// (a token is accepted in the very second of its "exp"); the signature with the public key of
    /// the key's first certificate. Never throws: malformed Base64 or JSON gives
    /// VerificationFailed. Under JwtProfile::Rfc9068 the same steps in the same order, with the
    /// rules of that profile (see JwtProfile) and its claim checks after the expiry.
    VerificationResult verify(const web::json::value& jwks, const std::wstring& token,
                              web::json::value& claims, std::int64_t now);

    /// The same, and `reason` says why a token was refused, in words a person can act on (the
    /// log line's text where there is one, e.g. "Token type is not 'JWT'"; also for a token
    /// that is not three parts and an unknown key id); empty when Verified. Never throws.
    VerificationResult verify(const web::json::value& jwks, const std::wstring& token,
                              web::json::value& claims, std::int64_t now, std::wstring& reason);

    /// The same, at the current system time.
    VerificationResult verify(const web::json::value& jwks, const std::wstring& token,
                              web::json::value& claims);

    /// Finds the signing key ("use" exactly "sig"; under JwtProfile::Rfc9068 also a key
    /// without "use") with the given "kid" in jwks["keys"]; when several match, the last one
    /// wins. Returns Verified and copies it to `key`, or
    /// KeyNotFound and leaves `key` as it is. Never throws.
    VerificationResult findKey(const std::string& kid, const web::json::value& jwks,
                               web::json::value& key);

    /// Chooses the rules verify applies (see JwtProfile). Never throws.
    void setProfile(JwtProfile profile) noexcept { profile_ = profile; }
    /// The rules in force.
    JwtProfile profile() const noexcept { return profile_; }

    /// The "iss" that Rfc9068 tokens must carry (the provider's issuer identifier, compared
    /// exactly); empty: any issuer. Not used by the Platform profile.
    void setExpectedIssuer(const std::wstring& issuer);
    /// The expected issuer (empty: none). Never throws except std::bad_alloc.
    std::wstring expectedIssuer() const;

    /// The audience that the "aud" of Rfc9068 tokens must hold (a string equal to it, or an
    /// array with it); empty: any audience. Not used by the Platform profile.
    void setExpectedAudience(const std::wstring& audience);
    /// The expected audience (empty: none). Never throws except std::bad_alloc.
    std::wstring expectedAudience() const;

    /// How many verified tokens this object (with its copies) keeps: at most 1024, all
    /// verified against the key set and rules of the latest verification. Any thread.
    std::size_t cachedTokenCount() const;

    /// The digest context this object shares with its copies and the objects assigned from
    /// it: two objects share it when this gives the same pointer. Never null. Any thread.
    const EVP_MD_CTX* digestContext() const noexcept { return digestContext_.get(); }

  private:
    static std::shared_ptr<Varkel::Zu::Logger> _logger;

    VerificationResult verifyToken(const web::json::value& jwks, const std::wstring& token,
                                   web::json::value& claims, std::int64_t now,
                                   std::wstring* reason) const;

    JwtProfile profile_ = JwtProfile::Platform;
    // UTF-8, as the claims hold them.
    std::string expectedIssuer_;
    std::string expectedAudience_;

    /// Made in the constructor and shared by copies; verify makes a context of its own for
    /// each verification, so this one is never used concurrently.
    std::shared_ptr<EVP_MD_CTX> digestContext_;

    /// The tokens verified so far, shared by copies.
    std::shared_ptr<VerifiedTokenCache> verifiedTokens_;
};

}  // namespace Tolva
}  // namespace Varkel
