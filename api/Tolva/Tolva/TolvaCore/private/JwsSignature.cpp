#include "JwsSignature.h"

#include <ZuCore/Base64.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ecdsa.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <vector>

namespace Varkel {
namespace Tolva {

namespace {

using web::json::value;

// ES256 coordinates and signature halves are 32 bytes each.
constexpr std::size_t kP256FieldSize = 32;

struct BignumDeleter {
    void operator()(BIGNUM* number) const { BN_free(number); }
};
using Bignum = std::unique_ptr<BIGNUM, BignumDeleter>;

std::string decodedUrl(const std::string& text) {
    return Varkel::Zu::Base64::decode_url(text)->toString();
}

Bignum bignumOf(const std::string& bytes) {
    return Bignum(BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()),
                            static_cast<int>(bytes.size()), nullptr));
}

bool isRsaJwk(const value& jwk) {
    return jwk.has_string_field("kty") && jwk.at("kty").as_string() == "RSA" &&
           jwk.has_string_field("n") && jwk.has_string_field("e");
}

bool isP256Jwk(const value& jwk) {
    return jwk.has_string_field("kty") && jwk.at("kty").as_string() == "EC" &&
           jwk.has_string_field("crv") && jwk.at("crv").as_string() == "P-256" &&
           jwk.has_string_field("x") && jwk.has_string_field("y");
}

std::shared_ptr<EVP_PKEY> keyFromParameters(const char* type, OSSL_PARAM_BLD* builder) {
    std::unique_ptr<OSSL_PARAM, void (*)(OSSL_PARAM*)> parameters(OSSL_PARAM_BLD_to_param(builder),
                                                                  OSSL_PARAM_free);
    std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    if (!parameters || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1) {
        return nullptr;
    }
    return std::shared_ptr<EVP_PKEY>(key, EVP_PKEY_free);
}

// JWS carries an ECDSA signature as r and s side by side; libcrypto wants its DER form.
std::vector<unsigned char> derEcdsaSignature(const unsigned char* signature, std::size_t size) {
    if (size != 2 * kP256FieldSize) {
        return {};
    }
    std::unique_ptr<ECDSA_SIG, void (*)(ECDSA_SIG*)> pair(ECDSA_SIG_new(), ECDSA_SIG_free);
    BIGNUM* r = BN_bin2bn(signature, kP256FieldSize, nullptr);
    BIGNUM* s = BN_bin2bn(signature + kP256FieldSize, kP256FieldSize, nullptr);
    if (!pair || r == nullptr || s == nullptr || ECDSA_SIG_set0(pair.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return {};
    }
    unsigned char* der = nullptr;
    const int derSize = i2d_ECDSA_SIG(pair.get(), &der);
    if (derSize <= 0) {
        return {};
    }
    std::vector<unsigned char> result(der, der + derSize);
    OPENSSL_free(der);
    return result;
}

}  // namespace

JwsSignature::Algorithm JwsSignature::algorithmNamed(const std::string& name) {
    if (name == "RS256") {
        return Algorithm::RS256;
    }
    if (name == "PS256") {
        return Algorithm::PS256;
    }
    if (name == "ES256") {
        return Algorithm::ES256;
    }
    return Algorithm::None;
}

bool JwsSignature::fits(Algorithm algorithm, EVP_PKEY* key) {
    switch (algorithm) {
        case Algorithm::RS256:
            return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA;
        case Algorithm::PS256:
            return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA ||
                   EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA_PSS;
        case Algorithm::ES256:
            return EVP_PKEY_get_base_id(key) == EVP_PKEY_EC && EVP_PKEY_get_bits(key) == 256;
        case Algorithm::None:
            break;
    }
    return false;
}

std::string JwsSignature::parameterText(const value& jwk) {
    // Blanks separate the parts: they never occur in Base64, so no certificate text is equal.
    if (isRsaJwk(jwk)) {
        return "RSA " + jwk.at("n").as_string() + " " + jwk.at("e").as_string();
    }
    if (isP256Jwk(jwk)) {
        return "EC P-256 " + jwk.at("x").as_string() + " " + jwk.at("y").as_string();
    }
    return {};
}

std::shared_ptr<EVP_PKEY> JwsSignature::publicKeyOf(const value& jwk) {
    std::unique_ptr<OSSL_PARAM_BLD, void (*)(OSSL_PARAM_BLD*)> builder(OSSL_PARAM_BLD_new(),
                                                                       OSSL_PARAM_BLD_free);
    if (!builder) {
        return nullptr;
    }
    if (isRsaJwk(jwk)) {
        const Bignum modulus = bignumOf(decodedUrl(jwk.at("n").as_string()));
        const Bignum exponent = bignumOf(decodedUrl(jwk.at("e").as_string()));
        if (!modulus || !exponent || BN_is_zero(modulus.get()) || BN_is_zero(exponent.get()) ||
            OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get()) != 1 ||
            OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()) != 1) {
            return nullptr;
        }
        return keyFromParameters("RSA", builder.get());
    }
    if (isP256Jwk(jwk)) {
        const std::string x = decodedUrl(jwk.at("x").as_string());
        const std::string y = decodedUrl(jwk.at("y").as_string());
        if (x.size() != kP256FieldSize || y.size() != kP256FieldSize) {
            return nullptr;
        }
        // The uncompressed point: 0x04, then x and y.
        const std::string point = std::string(1, '\x04') + x + y;
        char group[] = "prime256v1";
        if (OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0) !=
                1 ||
            OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                             point.size()) != 1) {
            return nullptr;
        }
        return keyFromParameters("EC", builder.get());
    }
    return nullptr;
}

bool JwsSignature::verifies(Algorithm algorithm, EVP_PKEY* key, const std::string& signedText,
                            const unsigned char* signature, std::size_t signatureSize) {
    if (algorithm == Algorithm::None || key == nullptr) {
        return false;
    }
    std::vector<unsigned char> der;
    if (algorithm == Algorithm::ES256) {
        der = derEcdsaSignature(signature, signatureSize);
        if (der.empty()) {
            return false;
        }
        signature = der.data();
        signatureSize = der.size();
    }
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_PKEY_CTX* keyContext = nullptr;
    if (!context ||
        EVP_DigestVerifyInit(context.get(), &keyContext, EVP_sha256(), nullptr, key) != 1) {
        return false;
    }
    // PS256: PSS with SHA-256 for the digest and MGF1, and a salt as long as the digest.
    if (algorithm == Algorithm::PS256 &&
        (EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) != 1 ||
         EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) != 1)) {
        return false;
    }
    return EVP_DigestVerify(context.get(), signature, signatureSize,
                            reinterpret_cast<const unsigned char*>(signedText.data()),
                            signedText.size()) == 1;
}

}  // namespace Tolva
}  // namespace Varkel
