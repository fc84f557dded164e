#include "KeyStore.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "Text.h"

namespace qxpemu {
namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
struct X509Free {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct MdCtxFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
struct BnFree {
    void operator()(BIGNUM* number) const { BN_free(number); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("signing key: " + what);
}

PkeyPtr generateRsaKey(int bits) {
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    EVP_PKEY* key = nullptr;
    if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits) <= 0 ||
        EVP_PKEY_keygen(context.get(), &key) <= 0) {
        fail("RSA key generation failed");
    }
    return PkeyPtr(key);
}

PkeyPtr loadRsaKey(const std::string& pemFile) {
    std::FILE* file = std::fopen(pemFile.c_str(), "r");
    if (file == nullptr) {
        fail("cannot open " + pemFile);
    }
    EVP_PKEY* key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (key == nullptr) {
        fail("no private key in " + pemFile);
    }
    PkeyPtr owned(key);
    if (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
        fail(pemFile + " does not hold an RSA key");
    }
    return owned;
}

std::string selfSignedCertificateDer(EVP_PKEY* key) {
    std::unique_ptr<X509, X509Free> certificate(X509_new());
    if (!certificate) {
        fail("X509_new failed");
    }
    X509_set_version(certificate.get(), 2);
    std::unique_ptr<BIGNUM, BnFree> serialNumber(BN_new());
    BN_rand(serialNumber.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY);
    BN_to_ASN1_INTEGER(serialNumber.get(), X509_get_serialNumber(certificate.get()));
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 10L * 365 * 24 * 3600);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("qxp-emulator"), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    if (X509_sign(certificate.get(), key, EVP_sha256()) <= 0) {
        fail("certificate signing failed");
    }
    const int length = i2d_X509(certificate.get(), nullptr);
    if (length <= 0) {
        fail("certificate encoding failed");
    }
    std::string der(std::size_t(length), '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_X509(certificate.get(), &out);
    return der;
}

std::string bigNumberParam(EVP_PKEY* key, const char* name) {
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &raw) != 1) {
        fail("cannot read the RSA key's parameters");
    }
    std::unique_ptr<BIGNUM, BnFree> number(raw);
    std::string bytes(std::size_t(BN_num_bytes(number.get())), '\0');
    BN_bn2bin(number.get(), reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes;
}

std::string sha256(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    return std::string(reinterpret_cast<char*>(digest), length);
}

std::string dumpJson(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

struct KeyStore::Key {
    PkeyPtr pkey;
    std::string kid;
    std::string certificateDer;
    std::string modulus;
    std::string exponent;
};

namespace {

// The first 16 bytes of SHA-256 over the modulus and exponent, Base64url encoded.
std::string keyId(const std::string& modulus, const std::string& exponent) {
    return text::base64UrlEncode(sha256(modulus + exponent).substr(0, 16));
}

}  // namespace

KeyStore::KeyStore(const std::string& pemFile, int rsaBits) : rsaBits_(rsaBits) {
    auto key = std::make_shared<Key>();
    key->pkey = pemFile.empty() ? generateRsaKey(rsaBits_) : loadRsaKey(pemFile);
    key->certificateDer = selfSignedCertificateDer(key->pkey.get());
    key->modulus = bigNumberParam(key->pkey.get(), OSSL_PKEY_PARAM_RSA_N);
    key->exponent = bigNumberParam(key->pkey.get(), OSSL_PKEY_PARAM_RSA_E);
    // The key id names the public key, not its certificate (made afresh each run): with a
    // loaded key, tokens issued before a restart still verify after it, as on a platform
    // whose keys persist.
    key->kid = keyId(key->modulus, key->exponent);
    keys_.push_back(std::move(key));
}

KeyStore::~KeyStore() = default;

void KeyStore::rotate() {
    auto key = std::make_shared<Key>();
    key->pkey = generateRsaKey(rsaBits_);
    key->certificateDer = selfSignedCertificateDer(key->pkey.get());
    key->modulus = bigNumberParam(key->pkey.get(), OSSL_PKEY_PARAM_RSA_N);
    key->exponent = bigNumberParam(key->pkey.get(), OSSL_PKEY_PARAM_RSA_E);
    key->kid = keyId(key->modulus, key->exponent);
    std::lock_guard<std::mutex> lock(mutex_);
    keys_.push_back(std::move(key));
}

void KeyStore::dropRetired() {
    std::lock_guard<std::mutex> lock(mutex_);
    keys_.erase(keys_.begin(), keys_.end() - 1);
}

std::shared_ptr<const KeyStore::Key> KeyStore::currentKey() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return keys_.back();
}

std::shared_ptr<const KeyStore::Key> KeyStore::findKey(const std::string& kid) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& key : keys_) {
        if (key->kid == kid) {
            return key;
        }
    }
    return nullptr;
}

std::string KeyStore::sign(nlohmann::json payload) const {
    const auto key = currentKey();
    const nlohmann::json header = {{"alg", "RS256"}, {"typ", "JWT"}, {"kid", key->kid}};
    const std::string signingInput =
        text::base64UrlEncode(dumpJson(header)) + "." + text::base64UrlEncode(dumpJson(payload));

    std::unique_ptr<EVP_MD_CTX, MdCtxFree> context(EVP_MD_CTX_new());
    std::size_t length = 0;
    if (!context ||
        EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key->pkey.get()) != 1 ||
        EVP_DigestSign(context.get(), nullptr, &length,
                       reinterpret_cast<const unsigned char*>(signingInput.data()),
                       signingInput.size()) != 1) {
        throw std::runtime_error("token signing failed");
    }
    std::string signature(length, '\0');
    if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(signingInput.data()),
                       signingInput.size()) != 1) {
        throw std::runtime_error("token signing failed");
    }
    signature.resize(length);
    return signingInput + "." + text::base64UrlEncode(signature);
}

nlohmann::json KeyStore::keySet() const {
    std::vector<std::shared_ptr<const Key>> keys;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        keys = keys_;
    }
    nlohmann::json list = nlohmann::json::array();
    for (const auto& key : keys) {
        list.push_back({{"kty", "RSA"},
                        {"use", "sig"},
                        {"kid", key->kid},
                        {"alg", "RS256"},
                        {"n", text::base64UrlEncode(key->modulus)},
                        {"e", text::base64UrlEncode(key->exponent)},
                        {"x5t#S256", text::base64UrlEncode(sha256(key->certificateDer))},
                        {"x5c", nlohmann::json::array({text::base64Encode(key->certificateDer)})}});
    }
    return {{"keys", std::move(list)}};
}

std::vector<std::string> KeyStore::keyIds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> ids;
    for (const auto& key : keys_) {
        ids.push_back(key->kid);
    }
    return ids;
}

std::string KeyStore::currentKeyId() const {
    return currentKey()->kid;
}

std::string KeyStore::verify(const std::string& token, nlohmann::json& claims) const {
    const auto firstDot = token.find('.');
    const auto secondDot =
        firstDot == std::string::npos ? std::string::npos : token.find('.', firstDot + 1);
    if (secondDot == std::string::npos || token.find('.', secondDot + 1) != std::string::npos) {
        return "malformed token";
    }
    const auto headerText = text::base64Decode(std::string_view(token).substr(0, firstDot));
    const auto payloadText =
        text::base64Decode(std::string_view(token).substr(firstDot + 1, secondDot - firstDot - 1));
    const auto signature = text::base64Decode(std::string_view(token).substr(secondDot + 1));
    if (!headerText || !payloadText || !signature) {
        return "malformed token";
    }
    const auto header = nlohmann::json::parse(*headerText, nullptr, false);
    auto payload = nlohmann::json::parse(*payloadText, nullptr, false);
    if (!header.is_object() || !payload.is_object()) {
        return "malformed token";
    }
    const auto kid = header.find("kid");
    const auto alg = header.find("alg");
    if (kid == header.end() || !kid->is_string() || alg == header.end() || *alg != "RS256") {
        return "token header lacks RS256 or kid";
    }
    const auto key = findKey(kid->get<std::string>());
    if (!key) {
        return "unknown signing key";
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> context(EVP_MD_CTX_new());
    if (!context ||
        EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key->pkey.get()) != 1 ||
        EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature->data()),
                         signature->size(), reinterpret_cast<const unsigned char*>(token.data()),
                         secondDot) != 1) {
        return "invalid token signature";
    }
    claims = std::move(payload);
    return "";
}

}  // namespace qxpemu
