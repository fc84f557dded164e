#include <TolvaCore/JWTUtils.h>

#include "private/JsonNumbers.h"
#include "private/PublicKeyCache.h"

#include <ZuCore/Base64.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/StringConversion.h>

#include <chrono>
#include <new>
#include <vector>

#include <openssl/x509.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

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

// The last key of jwks["keys"] that is a signing key with this kid, or null.
const value* findSigningKey(const std::string& kid, const value& jwks) {
    if (!jwks.is_object() || !jwks.has_array_field("keys")) {
        return nullptr;
    }
    const std::wstring wantedKid = widen(kid);
    const value* found = nullptr;
    for (const value& candidate : jwks.at("keys").as_array()) {
        if (!candidate.has_string_field("use") || !candidate.has_string_field("kid")) {
            continue;
        }
        const std::string& candidateKid = candidate.at("kid").as_string();
        if (candidate.at("use").as_string() == "sig" &&
            (isAscii(candidateKid) && isAscii(kid) ? candidateKid == kid
                                                   : widen(candidateKid) == wantedKid)) {
            found = &candidate;
        }
    }
    return found;
}

// The public key of a certificate text, remembered per thread for the text last seen: a host
// verifies most tokens against the same certificate, and this skips even the shared cache.
struct LastCertificate {
    std::string text;
    std::shared_ptr<EVP_PKEY> key;
};
thread_local LastCertificate lastCertificate;

struct X509Deleter {
    void operator()(X509* certificate) const { X509_free(certificate); }
};

}  // namespace

std::shared_ptr<Varkel::Zu::Logger> JWTUtils::_logger =
    Varkel::Zu::Logger::getLogger("TolvaCore.JWTUtils");

JWTUtils::JWTUtils(Varkel::Zu::PrivateConstructorType)
    : digestContext_(EVP_MD_CTX_create(),
                     [](EVP_MD_CTX* context) { EVP_MD_CTX_destroy(context); }) {
    if (!digestContext_) {
        throw std::bad_alloc();
    }
}

JWTUtils::~JWTUtils() = default;
JWTUtils::JWTUtils(const JWTUtils& other) = default;
JWTUtils& JWTUtils::operator=(const JWTUtils& other) = default;

VerificationResult JWTUtils::findKey(const std::string& kid, const value& jwks, value& key) {
    // The last match wins.
    const value* found = findSigningKey(kid, jwks);
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
    using Varkel::Zu::Logger;
    try {
        std::vector<std::string> parts;
        const std::string narrowToken = narrow(token);
        boost::split(parts, narrowToken, boost::is_any_of("."));
        if (parts.size() != 3) {
            return InvalidToken;
        }

        const value header = parseSegment(parts[0]);
        if (!header.has_field("kid") || !header.has_field("typ")) {
            ZU_LOG_ERROR(_logger, L"Missing kid or typ items in JWT header.");
            return InvalidToken;
        }
        const std::string kid = throughWideText(header.at("kid").as_string());
        const std::string typ = throughWideText(header.at("typ").as_string());
        if (typ != "JWT") {
            ZU_LOG_ERROR(_logger, L"Token type is not 'JWT'");
            return InvalidToken;
        }

        // Looked up in place rather than copied out as findKey does: the same key, no copy.
        const value* foundKey = findSigningKey(kid, jwks);
        if (foundKey == nullptr) {
            return KeyNotFound;
        }
        const value& key = *foundKey;
        if (!key.has_field("x5c")) {
            ZU_LOG_ERROR(_logger, L"Missing 'x5c' section in JWKS key.");
            return InvalidToken;
        }

        claims = parseSegment(parts[1]);
        if (!claims.has_field("exp")) {
            ZU_LOG_ERROR(_logger, L"Token expiration missing.");
            return InvalidToken;
        }
        if (now > truncatedInt64(claims.at("exp"))) {
            ZU_LOG_ERROR(_logger, L"Token expired.");
            return TokenExpired;
        }

        const auto signature = Varkel::Zu::Base64::decode_url(parts[2]);
        const std::string signedText = parts[0] + "." + parts[1];

        // The first certificate of the chain. Its public key is parsed once per certificate
        // text and kept (successes only), which keeps every result and line the same.
        const std::string certificateText = throughWideText(key.at("x5c").at(0).as_string());
        std::shared_ptr<EVP_PKEY> publicKey;
        if (lastCertificate.key && lastCertificate.text == certificateText) {
            publicKey = lastCertificate.key;
        } else {
            publicKey = PublicKeyCache::instance().find(certificateText);
        }
        if (!publicKey) {
            const auto der = Varkel::Zu::Base64::decode(certificateText);
            const unsigned char* derBytes = der->getData();
            std::unique_ptr<X509, X509Deleter> certificate(
                derBytes == nullptr
                    ? nullptr
                    : d2i_X509(nullptr, &derBytes, static_cast<long>(der->getSize())));
            if (!certificate) {
                ZU_LOG_ERROR(_logger,
                             L"Failed to construct X509 certificate from the 'x5c' JWKS data.");
                return VerificationFailed;
            }
            publicKey.reset(X509_get_pubkey(certificate.get()), EVP_PKEY_free);
            if (!publicKey) {
                ZU_LOG_ERROR(_logger, L"Failed to extract public key from the X509 certificate.");
                return VerificationFailed;
            }
            PublicKeyCache::instance().insert(certificateText, publicKey);
        }
        if (lastCertificate.key != publicKey) {
            lastCertificate.text = certificateText;
            lastCertificate.key = publicKey;
        }

        const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(
            EVP_MD_CTX_create(), [](EVP_MD_CTX* c) { EVP_MD_CTX_destroy(c); });
        if (!context) {
            ZU_LOG_ERROR(_logger, L"Failed to create an message digest context certificate.");
            return VerificationFailed;
        }
        // The platform signs RS256: SHA-256 with the certificate's RSA key.
        if (EVP_VerifyInit(context.get(), EVP_sha256()) == 0) {
            ZU_LOG_ERROR(_logger, L"EVP_VerifyInit failed.");
            return VerificationFailed;
        }
        if (EVP_VerifyUpdate(context.get(), signedText.data(), signedText.size()) == 0) {
            ZU_LOG_ERROR(_logger, L"EVP_VerifyUpdate failed.");
            return VerificationFailed;
        }
        if (EVP_VerifyFinal(context.get(), signature->getData(),
                            static_cast<unsigned int>(signature->getSize()),
                            publicKey.get()) == 1) {
            return Verified;
        }
        ZU_LOG_ERROR(_logger, L"EVP_VerifyFinal failed. Signature verification failed.");
        return VerificationFailed;
    } catch (const std::exception& e) {
        ZU_LOG_CAPPED(_logger, Logger::getErrorLevel(), kFailureCapMs, widen(e.what()));
        return VerificationFailed;
    }
}

}  // namespace Tolva
}  // namespace Varkel
