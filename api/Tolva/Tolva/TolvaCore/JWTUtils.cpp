#include <TolvaCore/JWTUtils.h>

#include "private/JsonNumbers.h"
#include "private/JwsSignature.h"
#include "private/PublicKeyCache.h"
#include "private/VerifiedTokenCache.h"

#include <ZuCore/Base64.h>
#include <ZuCore/Env.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/StringConversion.h>

#include <chrono>
#include <new>
#include <vector>

#include <openssl/x509.h>
#include <boost/algorithm/string/predicate.hpp>

namespace Varkel {
namespace Tolva {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::json::value;

namespace {

// Exceptions that end a verification are logged at most once per this many milliseconds.
constexpr unsigned int kFailureCapMs = 1000;

bool isAscii(const std::string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            return false;
        }
    }
    return true;
}

// Text as it reads after widening and narrowing again: the same for ASCII, which skips the two
// conversions on the hot path; other bytes go through them (invalid UTF-8 becomes U+FFFD, as
// everywhere the library widens).
std::string throughWideText(std::string text) {
    return isAscii(text) ? text : narrow(widen(text));
}

// The JSON document a URL-safe Base64 segment holds, read as text.
value parseSegment(const std::string& segment) {
    const auto bytes = Varkel::Zu::Base64::decode_url(segment);
    return value::parse(throughWideText(bytes->toString()));
}

// The "kid" of a key set element that counts as a signing key, or null. With `useMayBeAbsent`,
// a key without "use" counts as a signing key too.
const std::string* signingKid(const value& candidate, bool useMayBeAbsent) {
    if (!candidate.has_string_field("kid")) {
        return nullptr;
    }
    const bool signing = candidate.has_string_field("use")
                             ? candidate.at("use").as_string() == "sig"
                             : useMayBeAbsent && !candidate.has_field("use");
    return signing ? &candidate.at("kid").as_string() : nullptr;
}

// The last key of jwks["keys"] that is a signing key with this kid, or null.
const value* findSigningKey(const std::string& kid, const value& jwks, bool useMayBeAbsent) {
    if (!jwks.is_object() || !jwks.has_array_field("keys")) {
        return nullptr;
    }
    const std::wstring wantedKid = widen(kid);
    const value* found = nullptr;
    for (const value& candidate : jwks.at("keys").as_array()) {
        const std::string* candidateKid = signingKid(candidate, useMayBeAbsent);
        if (candidateKid != nullptr &&
            (isAscii(*candidateKid) && isAscii(kid) ? *candidateKid == kid
                                                    : widen(*candidateKid) == wantedKid)) {
            found = &candidate;
        }
    }
    return found;
}

// The signing keys of a key set by "kid", the last of each kid winning as in findSigningKey;
// left unindexed when a signing key's kid is not ASCII.
void indexSigningKeys(VerifiedTokenCache::Context& context) {
    const value& jwks = context.keySet;
    context.signingKeysIndexed = true;
    if (!jwks.is_object() || !jwks.has_array_field("keys")) {
        return;
    }
    const bool useMayBeAbsent = context.profile == JwtProfile::Rfc9068;
    for (const value& candidate : jwks.at("keys").as_array()) {
        const std::string* kid = signingKid(candidate, useMayBeAbsent);
        if (kid == nullptr) {
            continue;
        }
        if (!isAscii(*kid)) {
            context.signingKeys.clear();
            context.signingKeysIndexed = false;
            return;
        }
        context.signingKeys[*kid] = &candidate;
    }
}

// The signing key with this kid: from the context's index when it has one, else by walking the
// key set.
const value* findSigningKey(const std::string& kid, const value& jwks, bool useMayBeAbsent,
                            const VerifiedTokenCache::Context* context) {
    if (context != nullptr && context->signingKeysIndexed && isAscii(kid)) {
        const auto found = context->signingKeys.find(kid);
        return found == context->signingKeys.end() ? nullptr : found->second;
    }
    return findSigningKey(kid, jwks, useMayBeAbsent);
}

// Text without the round trip through wide text when it is ASCII (every real token).
std::string narrowText(const std::wstring& text) {
    for (const wchar_t c : text) {
        if (static_cast<std::make_unsigned_t<wchar_t>>(c) >= 0x80) {
            return narrow(text);
        }
    }
    return std::string(text.begin(), text.end());
}

// The parts of a token between its "."s, empty ones included.
std::vector<std::string> tokenParts(const std::string& token) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t dot = token.find('.', start);
        if (dot == std::string::npos) {
            parts.emplace_back(token, start);
            return parts;
        }
        parts.emplace_back(token, start, dot - start);
        start = dot + 1;
    }
}

// "typ" values of the RFC 9068 profile: the platform's "JWT" and the access-token media type,
// in either of its spellings. Media types compare without regard to case.
bool isAccessTokenType(const std::string& typ) {
    return boost::iequals(typ, "JWT") || boost::iequals(typ, "at+jwt") ||
           boost::iequals(typ, "application/at+jwt");
}

bool holdsAudience(const value& audience, const std::string& wanted) {
    if (audience.is_string()) {
        return audience.as_string() == wanted;
    }
    for (const value& entry : audience.as_array()) {
        if (entry.is_string() && entry.as_string() == wanted) {
            return true;
        }
    }
    return false;
}

// Why the claims of an access token do not meet RFC 9068 (its required claims with their JSON
// types, "nbf", and the expected issuer and audience when set), or empty when they do.
std::wstring accessTokenClaimFailure(const value& claims, std::int64_t now,
                                     const std::string& expectedIssuer,
                                     const std::string& expectedAudience) {
    for (const char* name : {"iss", "sub", "client_id", "jti"}) {
        if (!claims.has_string_field(name)) {
            return L"Token claim '" + widen(name) + L"' missing or not a string.";
        }
    }
    if (!claims.has_number_field("iat")) {
        return L"Token claim 'iat' missing or not a number.";
    }
    if (!claims.has_string_field("aud") && !claims.has_array_field("aud")) {
        return L"Token claim 'aud' missing or neither a string nor an array.";
    }
    if (claims.has_field("nbf") && now < truncatedInt64(claims.at("nbf"))) {
        return L"Token not valid yet ('nbf' lies ahead).";
    }
    if (!expectedIssuer.empty() && claims.at("iss").as_string() != expectedIssuer) {
        return L"Token issuer is not the expected issuer.";
    }
    if (!expectedAudience.empty() && !holdsAudience(claims.at("aud"), expectedAudience)) {
        return L"Token audience does not include the expected audience.";
    }
    return {};
}

// Text of an environment variable as UTF-8; empty when unset or unreadable.
std::string environmentText(const wchar_t* name) {
    try {
        return narrow(Varkel::Zu::Env::getVar(std::wstring(name), L""));
    } catch (...) {
        return {};
    }
}

// The public key of a certificate text, remembered per thread for the text last seen: a host
// verifies most tokens against the same certificate, and this skips even the shared cache.
struct LastCertificate {
    std::string text;
    bool ascii = false;
    std::shared_ptr<EVP_PKEY> key;
};
thread_local LastCertificate lastCertificate;

// The members of the header text last read on this thread: an issuer's tokens share one
// header, so most verifications skip decoding and parsing it. Kept only when the header was
// read through to its "kid" and "typ" (a header that fails to read is read again each time, so
// it fails the same way).
struct LastHeader {
    std::string segment;
    std::string kid;
    std::string typ;
    bool hasAlg = false;
    std::string alg;
    bool complete = false;
};
thread_local LastHeader lastHeader;

struct X509Deleter {
    void operator()(X509* certificate) const { X509_free(certificate); }
};

}  // namespace

std::shared_ptr<Varkel::Zu::Logger> JWTUtils::_logger =
    Varkel::Zu::Logger::getLogger("TolvaCore.JWTUtils");

JWTUtils::JWTUtils(Varkel::Zu::PrivateConstructorType)
    : profile_(jwtProfileFromEnvironment()),
      expectedIssuer_(environmentText(L"TOLVA_JWT_ISSUER")),
      expectedAudience_(environmentText(L"TOLVA_JWT_AUDIENCE")),
      digestContext_(EVP_MD_CTX_create(), [](EVP_MD_CTX* context) { EVP_MD_CTX_destroy(context); }),
      verifiedTokens_(std::make_shared<VerifiedTokenCache>()) {
    if (!digestContext_) {
        throw std::bad_alloc();
    }
}

JWTUtils::~JWTUtils() = default;
JWTUtils::JWTUtils(const JWTUtils& other) = default;
JWTUtils& JWTUtils::operator=(const JWTUtils& other) = default;

VerificationResult JWTUtils::findKey(const std::string& kid, const value& jwks, value& key) {
    // The last match wins.
    const value* found = findSigningKey(kid, jwks, profile_ == JwtProfile::Rfc9068);
    if (found == nullptr) {
        return KeyNotFound;
    }
    key = *found;
    return Verified;
}

VerificationResult JWTUtils::verify(const value& jwks, const std::wstring& token, value& claims) {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    return verify(jwks, token, claims, now);
}

VerificationResult JWTUtils::verify(const value& jwks, const std::wstring& token, value& claims,
                                    std::int64_t now) {
    return verifyToken(jwks, token, claims, now, nullptr);
}

VerificationResult JWTUtils::verify(const value& jwks, const std::wstring& token, value& claims,
                                    std::int64_t now, std::wstring& reason) {
    reason.clear();
    return verifyToken(jwks, token, claims, now, &reason);
}

void JWTUtils::setExpectedIssuer(const std::wstring& issuer) {
    expectedIssuer_ = narrow(issuer);
}

std::wstring JWTUtils::expectedIssuer() const {
    return widen(expectedIssuer_);
}

void JWTUtils::setExpectedAudience(const std::wstring& audience) {
    expectedAudience_ = narrow(audience);
}

std::wstring JWTUtils::expectedAudience() const {
    return widen(expectedAudience_);
}

std::size_t JWTUtils::cachedTokenCount() const {
    return verifiedTokens_->size();
}

VerificationResult JWTUtils::verifyToken(const value& jwks, const std::wstring& token,
                                         value& claims, std::int64_t now,
                                         std::wstring* reason) const {
    using Varkel::Zu::Logger;
    const bool rfc9068 = profile_ == JwtProfile::Rfc9068;
    // A refusal: its line on the logger (unless `logged` is false) and its reason for the
    // caller who asked for one.
    const auto refuse = [reason](VerificationResult result, const std::wstring& text,
                                 bool logged = true) {
        if (logged) {
            ZU_LOG_ERROR(_logger, text);
        }
        if (reason != nullptr) {
            *reason = text;
        }
        return result;
    };
    // The checks that depend on the time, after the claims are read; the same for a token
    // verified now and for one taken from the cache.
    const auto checkTime = [&](std::int64_t expiry, bool accessTokenClaims) {
        if (now > expiry) {
            return refuse(TokenExpired, L"Token expired.");
        }
        // The claims RFC 9068 requires are those of its access tokens; a "JWT" is the
        // platform's own kind, which carries no audience.
        if (accessTokenClaims) {
            const std::wstring claimFailure =
                accessTokenClaimFailure(claims, now, expectedIssuer_, expectedAudience_);
            if (!claimFailure.empty()) {
                return refuse(InvalidToken, claimFailure);
            }
        }
        return Verified;
    };
    try {
        const std::string narrowToken = narrowText(token);

        // A token verified before under this key set and these rules went through every step
        // before the expiry with the outcome it would have now, and its signature verified:
        // only the checks on the time are left. A cache that cannot be used (out of memory)
        // only costs the full verification.
        VerifiedTokenCache::Digest digest{};
        std::shared_ptr<const VerifiedTokenCache::Context> keySetContext;
        bool cacheUsable = false;
        try {
            keySetContext = verifiedTokens_->contextFor(jwks, profile_, expectedIssuer_,
                                                        expectedAudience_, indexSigningKeys);
            digest = VerifiedTokenCache::digestOf(narrowToken);
            cacheUsable = true;
            VerifiedTokenCache::Entry cached;
            if (verifiedTokens_->find(digest, keySetContext->generation, cached)) {
                claims = *cached.claims;
                return checkTime(cached.expiry, cached.accessTokenClaims);
            }
        } catch (const std::bad_alloc&) {
            cacheUsable = false;
        }

        const std::vector<std::string> parts = tokenParts(narrowToken);
        if (parts.size() != 3) {
            return refuse(InvalidToken,
                          L"Not a JWT: the token does not have three parts separated by '.'.",
                          false);
        }

        if (!lastHeader.complete || lastHeader.segment != parts[0]) {
            const value header = parseSegment(parts[0]);
            if (!header.has_field("kid") || !header.has_field("typ")) {
                return refuse(InvalidToken, L"Missing kid or typ items in JWT header.");
            }
            LastHeader read;
            read.kid = throughWideText(header.at("kid").as_string());
            read.typ = throughWideText(header.at("typ").as_string());
            read.hasAlg = header.has_string_field("alg");
            if (read.hasAlg) {
                read.alg = header.at("alg").as_string();
            }
            read.segment = parts[0];
            read.complete = true;
            lastHeader = std::move(read);
        }
        const std::string& kid = lastHeader.kid;
        const std::string& typ = lastHeader.typ;
        JwsSignature::Algorithm algorithm = JwsSignature::Algorithm::RS256;
        if (!rfc9068) {
            if (typ != "JWT") {
                return refuse(InvalidToken, L"Token type is not 'JWT'");
            }
        } else {
            if (!isAccessTokenType(typ)) {
                return refuse(InvalidToken, L"Token type is not 'JWT' or 'at+jwt'.");
            }
            algorithm = lastHeader.hasAlg ? JwsSignature::algorithmNamed(lastHeader.alg)
                                          : JwsSignature::Algorithm::None;
            if (algorithm == JwsSignature::Algorithm::None) {
                return refuse(InvalidToken,
                              L"Token algorithm is not one of RS256, PS256 and ES256.");
            }
        }

        // Looked up in place rather than copied out as findKey does: the same key, no copy.
        const value* foundKey = findSigningKey(kid, jwks, rfc9068, keySetContext.get());
        if (foundKey == nullptr) {
            return refuse(
                KeyNotFound,
                L"No signing key with the token's key id '" + widen(kid) + L"' in the key set.",
                false);
        }
        const value& key = *foundKey;
        const bool hasCertificate = key.has_field("x5c");
        // Without a certificate, the profile takes the key's own parameters.
        const std::string keyText =
            hasCertificate || !rfc9068 ? std::string() : JwsSignature::parameterText(key);
        if (!hasCertificate && keyText.empty()) {
            return refuse(InvalidToken, rfc9068 ? L"Missing 'x5c' section and usable 'n' and 'e' "
                                                  L"(or 'x' and 'y') in JWKS key."
                                                : L"Missing 'x5c' section in JWKS key.");
        }

        claims = parseSegment(parts[1]);
        if (!claims.has_field("exp")) {
            return refuse(InvalidToken, L"Token expiration missing.");
        }
        const std::int64_t expiry = truncatedInt64(claims.at("exp"));
        const bool accessTokenClaims = rfc9068 && !boost::iequals(typ, "JWT");
        const VerificationResult timely = checkTime(expiry, accessTokenClaims);
        if (timely != Verified) {
            return timely;
        }
        // Kept once the signature verifies; the claims as the caller gets them.
        const auto remember = [&] {
            if (!cacheUsable) {
                return;
            }
            try {
                verifiedTokens_->insert(
                    digest, keySetContext->generation,
                    VerifiedTokenCache::Entry{std::make_shared<const value>(claims), expiry,
                                              accessTokenClaims});
            } catch (const std::bad_alloc&) {
                // Not kept: the next verification of the token is a full one.
            }
        };

        const auto signature = Varkel::Zu::Base64::decode_url(parts[2]);
        const std::string signedText = parts[0] + "." + parts[1];

        // The first certificate of the chain, or under the profile the key's parameters. The
        // public key is made once per text and kept (successes only), which keeps every result
        // and line the same.
        const std::string& givenText = hasCertificate ? key.at("x5c").at(0).as_string() : keyText;
        std::shared_ptr<EVP_PKEY> publicKey;
        std::string certificateText;
        if (lastCertificate.key && lastCertificate.ascii && lastCertificate.text == givenText) {
            // ASCII reads the same after the wide round trip: no need to make the text.
            publicKey = lastCertificate.key;
        } else {
            certificateText = hasCertificate ? throughWideText(givenText) : keyText;
            publicKey = lastCertificate.key && lastCertificate.text == certificateText
                            ? lastCertificate.key
                            : PublicKeyCache::instance().find(certificateText);
        }
        if (!publicKey && !hasCertificate) {
            publicKey = JwsSignature::publicKeyOf(key);
            if (!publicKey) {
                return refuse(VerificationFailed,
                              L"Failed to construct a public key from the JWKS key's parameters.");
            }
            PublicKeyCache::instance().insert(certificateText, publicKey);
        }
        if (!publicKey) {
            const auto der = Varkel::Zu::Base64::decode(certificateText);
            const unsigned char* derBytes = der->getData();
            std::unique_ptr<X509, X509Deleter> certificate(
                derBytes == nullptr
                    ? nullptr
                    : d2i_X509(nullptr, &derBytes, static_cast<long>(der->getSize())));
            if (!certificate) {
                return refuse(VerificationFailed,
                              L"Failed to construct X509 certificate from the 'x5c' JWKS data.");
            }
            publicKey.reset(X509_get_pubkey(certificate.get()), EVP_PKEY_free);
            if (!publicKey) {
                return refuse(VerificationFailed,
                              L"Failed to extract public key from the X509 certificate.");
            }
            PublicKeyCache::instance().insert(certificateText, publicKey);
        }
        if (lastCertificate.key != publicKey) {
            lastCertificate.text = certificateText;
            lastCertificate.ascii = isAscii(certificateText);
            lastCertificate.key = publicKey;
        }

        if (rfc9068) {
            if (!JwsSignature::fits(algorithm, publicKey.get()) ||
                (key.has_string_field("alg") &&
                 JwsSignature::algorithmNamed(key.at("alg").as_string()) != algorithm)) {
                return refuse(VerificationFailed,
                              L"The JWKS key is not a key for the token's algorithm.");
            }
            if (JwsSignature::verifies(algorithm, publicKey.get(), signedText, signature->getData(),
                                       signature->getSize())) {
                remember();
                return Verified;
            }
            return refuse(VerificationFailed, L"Signature verification failed.");
        }

        const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(
            EVP_MD_CTX_create(), [](EVP_MD_CTX* c) { EVP_MD_CTX_destroy(c); });
        if (!context) {
            return refuse(VerificationFailed,
                          L"Failed to create an message digest context certificate.");
        }
        // The platform signs RS256: SHA-256 with the certificate's RSA key.
        if (EVP_VerifyInit(context.get(), EVP_sha256()) == 0) {
            return refuse(VerificationFailed, L"EVP_VerifyInit failed.");
        }
        // The context ends with this verification: EVP_VerifyFinal may finish it in place
        // instead of on a copy. (Set after the initialisation, which clears it.)
        EVP_MD_CTX_set_flags(context.get(), EVP_MD_CTX_FLAG_FINALISE);
        if (EVP_VerifyUpdate(context.get(), signedText.data(), signedText.size()) == 0) {
            return refuse(VerificationFailed, L"EVP_VerifyUpdate failed.");
        }
        if (EVP_VerifyFinal(context.get(), signature->getData(),
                            static_cast<unsigned int>(signature->getSize()),
                            publicKey.get()) == 1) {
            remember();
            return Verified;
        }
        return refuse(VerificationFailed,
                      L"EVP_VerifyFinal failed. Signature verification failed.");
    } catch (const std::exception& e) {
        ZU_LOG_CAPPED(_logger, Logger::getErrorLevel(), kFailureCapMs, widen(e.what()));
        if (reason != nullptr) {
            *reason = L"The token or the key set cannot be read: " + widen(e.what());
        }
        return VerificationFailed;
    }
}

}  // namespace Tolva
}  // namespace Varkel
