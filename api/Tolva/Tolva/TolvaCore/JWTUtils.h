/// @class Varkel::Tolva::JWTUtils
/// JWTUtils: verification of JSON Web Tokens that the platform issued, against the platform's
/// JSON Web Key Set (the key set QxPlatformApi fetched with its token: take it with
/// QxPlatformApi::getCurrentTokenCopy().keySet). It checks the token's header and expiry and
/// its RS256 signature with the X.509 certificate of the signing key, and reports a result
/// instead of throwing.
///
///   auto verifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();
///   web::json::value claims;
///   if (verifier->verify(api->getCurrentTokenCopy().keySet, token, claims) ==
///       Varkel::Tolva::Verified) { ... claims.at("acc") ... }
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>

#include <cstdint>
#include <memory>
#include <string>

#include <cpprest/json.h>
#include <openssl/evp.h>

namespace Varkel {
namespace Tolva {

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
/// Tokens and claims are never logged.
///
/// Thread safety: verify and findKey keep their state on the stack, so one JWTUtils may serve
/// any number of threads at once. The public keys of the certificates seen are kept in a
/// process-wide, bounded cache keyed by the certificate text, so a certificate is parsed once
/// however many tokens it verifies; a certificate that fails to parse is never kept, and a new
/// key set simply brings new texts.
class TOLVA_EXPORT JWTUtils {
  public:
    /// Made through Varkel::Zu::MakeShared::create<JWTUtils>(). Throws std::bad_alloc when
    /// libcrypto cannot make its digest context.
    explicit JWTUtils(Varkel::Zu::PrivateConstructorType);
    virtual ~JWTUtils();
    /// A copy shares the digest context.
    JWTUtils(const JWTUtils& other);
    /// Shares the other's digest context.
    JWTUtils& operator=(const JWTUtils& other);

    /// Verifies `token` against the key set `jwks` at the time `now` (seconds since the Unix
    /// epoch). Checks, in order: three "."-separated parts; a header with "kid" and "typ", "typ"
    /// exactly "JWT" (the "alg" member is not consulted: the signature is always checked as
    /// RS256); a signing key with that "kid" that has "x5c"; the payload (stored in `claims`
    /// from then on, whatever the result) with "exp" not before `now` (a token is accepted in
    /// the very second of its "exp"); the signature with the public key of the key's first
    /// certificate. Never throws: malformed Base64 or JSON gives VerificationFailed.
    VerificationResult verify(const web::json::value& jwks, const std::wstring& token,
                              web::json::value& claims, std::int64_t now);

    /// The same, at the current system time.
    VerificationResult verify(const web::json::value& jwks, const std::wstring& token,
                              web::json::value& claims);

    /// Finds the signing key ("use" exactly "sig") with the given "kid" in jwks["keys"]; when
    /// several match, the last one wins. Returns Verified and copies it to `key`, or
    /// KeyNotFound and leaves `key` as it is. Never throws.
    VerificationResult findKey(const std::string& kid, const web::json::value& jwks,
                               web::json::value& key);

    /// The digest context this object shares with its copies and the objects assigned from
    /// it: two objects share it when this gives the same pointer. Never null. Any thread.
    const EVP_MD_CTX* digestContext() const noexcept { return digestContext_.get(); }

  private:
    static std::shared_ptr<Varkel::Zu::Logger> _logger;

    /// Made in the constructor and shared by copies; verify makes a context of its own for
    /// each verification, so this one is never used concurrently.
    std::shared_ptr<EVP_MD_CTX> digestContext_;
};

}  // namespace Tolva
}  // namespace Varkel
