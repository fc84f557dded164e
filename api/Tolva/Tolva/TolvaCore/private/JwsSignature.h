// JwsSignature: the signature algorithms and key forms that token verification understands
// beyond the platform's own (RS256 with a certificate): PS256 and ES256, and public keys given
// in a key set by their parameters ("n"/"e", or "crv"/"x"/"y") instead of a certificate. Thin
// wrappers over libcrypto; stateless, so any thread may use them at once.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {

class JwsSignature {
  public:
    enum class Algorithm { None, RS256, PS256, ES256 };

    // The algorithm a header's "alg" names; None for any other text.
    static Algorithm algorithmNamed(const std::string& name);

    // Whether `key` is of the type `algorithm` signs with (RSA for RS256 and PS256, a P-256 EC
    // key for ES256).
    static bool fits(Algorithm algorithm, EVP_PKEY* key);

    // The text that identifies a key given by its parameters, for the public-key cache: it
    // never equals a certificate's Base64 text. Empty when `jwk` carries neither RSA nor
    // P-256 parameters (as JSON strings).
    static std::string parameterText(const web::json::value& jwk);

    // The public key of the parameters `parameterText` returned for a key; null when they do
    // not make a key (bad base64url, a point not on the curve). Throws what the Base64 decoder
    // throws.
    static std::shared_ptr<EVP_PKEY> publicKeyOf(const web::json::value& jwk);

    // Whether `signature` (as the token carries it, decoded from base64url) is a valid
    // `algorithm` signature of `signedText` by `key`. Never throws.
    static bool verifies(Algorithm algorithm, EVP_PKEY* key, const std::string& signedText,
                         const unsigned char* signature, std::size_t signatureSize);
};

}  // namespace Tolva
}  // namespace Varkel
