// A signer for JWT tests: an RSA-2048 key with a self-signed certificate, a key set that
// carries the certificate the way the platform's does ("x5c", standard Base64 DER), and RS256
// tokens made from any header and payload text, so tests can craft every kind of token. Also
// the forms standard OpenID providers use: the RSA key by its parameters ("n", "e", no
// "x5c"), PS256 tokens, and a P-256 key ("crv", "x", "y") with ES256 tokens.
#pragma once

#include <ZuCore/Base64.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <cpprest/json.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace TolvaRestTest {

class JwtTestSigner {
  public:
    JwtTestSigner()
        : key_(EVP_RSA_gen(2048), EVP_PKEY_free),
          ecKey_(EVP_EC_gen("P-256"), EVP_PKEY_free),
          certificate_(X509_new(), X509_free) {
        if (!key_ || !ecKey_ || !certificate_) {
            throw std::runtime_error("cannot make a test key");
        }
        X509* cert = certificate_.get();
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), 0);
        X509_gmtime_adj(X509_getm_notAfter(cert), 3600L * 24 * 365);
        X509_set_pubkey(cert, key_.get());
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("tolva test signer"), -1,
                                   -1, 0);
        X509_set_issuer_name(cert, name);
        if (X509_sign(cert, key_.get(), EVP_sha256()) == 0) {
            throw std::runtime_error("cannot sign the test certificate");
        }
        unsigned char* der = nullptr;
        const int size = i2d_X509(cert, &der);
        certificateText_ = Varkel::Zu::Base64::encode(der, static_cast<std::size_t>(size));
        OPENSSL_free(der);
    }

    // The certificate as a key set carries it: standard Base64 of its DER form.
    const std::string& certificateText() const { return certificateText_; }

    // One key of a key set: {"kty","use","kid","alg","x5c":[certificate]}.
    web::json::value key(const std::string& kid, const std::string& use = "sig") const {
        web::json::value k;
        k["kty"] = web::json::value::string("RSA");
        k["use"] = web::json::value::string(use);
        k["kid"] = web::json::value::string(kid);
        k["alg"] = web::json::value::string("RS256");
        web::json::value chain = web::json::value::array(1);
        chain[0] = web::json::value::string(certificateText_);
        k["x5c"] = chain;
        return k;
    }

    // The RSA key by its parameters, as standard providers publish it:
    // {"kty":"RSA","use":"sig","kid","alg":"RS256","n","e"}, no "x5c".
    web::json::value rsaKey(const std::string& kid) const {
        web::json::value k;
        k["kty"] = web::json::value::string("RSA");
        k["use"] = web::json::value::string("sig");
        k["kid"] = web::json::value::string(kid);
        k["alg"] = web::json::value::string("RS256");
        k["n"] = web::json::value::string(bignumParameter(key_.get(), OSSL_PKEY_PARAM_RSA_N, 0));
        k["e"] = web::json::value::string(bignumParameter(key_.get(), OSSL_PKEY_PARAM_RSA_E, 0));
        return k;
    }

    // The P-256 key: {"kty":"EC","use":"sig","kid","alg":"ES256","crv":"P-256","x","y"}.
    web::json::value ecKey(const std::string& kid) const {
        web::json::value k;
        k["kty"] = web::json::value::string("EC");
        k["use"] = web::json::value::string("sig");
        k["kid"] = web::json::value::string(kid);
        k["alg"] = web::json::value::string("ES256");
        k["crv"] = web::json::value::string("P-256");
        k["x"] = web::json::value::string(
            bignumParameter(ecKey_.get(), OSSL_PKEY_PARAM_EC_PUB_X, kCoordinateSize));
        k["y"] = web::json::value::string(
            bignumParameter(ecKey_.get(), OSSL_PKEY_PARAM_EC_PUB_Y, kCoordinateSize));
        return k;
    }

    // {"keys": [keys...]}
    static web::json::value keySet(const std::vector<web::json::value>& keys) {
        web::json::value set;
        web::json::value array = web::json::value::array(keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i) {
            array[i] = keys[i];
        }
        set["keys"] = array;
        return set;
    }

    // base64url(header) + "." + base64url(payload) + "." + base64url(RS256 signature).
    std::string token(const std::string& header, const std::string& payload) const {
        const std::string signedText =
            Varkel::Zu::Base64::encode_url(header) + "." + Varkel::Zu::Base64::encode_url(payload);
        return signedText + "." + Varkel::Zu::Base64::encode_url(sign(signedText));
    }

    // The same signed PS256 (RSA-PSS, SHA-256, salt as long as the digest).
    std::string tokenPs256(const std::string& header, const std::string& payload) const {
        const std::string signedText =
            Varkel::Zu::Base64::encode_url(header) + "." + Varkel::Zu::Base64::encode_url(payload);
        return signedText + "." + Varkel::Zu::Base64::encode_url(sign(signedText, true));
    }

    // The same signed ES256 with the P-256 key (r and s side by side, 32 bytes each).
    std::string tokenEs256(const std::string& header, const std::string& payload) const {
        const std::string signedText =
            Varkel::Zu::Base64::encode_url(header) + "." + Varkel::Zu::Base64::encode_url(payload);
        const std::string der = signWith(ecKey_.get(), signedText, false);
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(der.data());
        std::unique_ptr<ECDSA_SIG, void (*)(ECDSA_SIG*)> pair(
            d2i_ECDSA_SIG(nullptr, &bytes, static_cast<long>(der.size())), ECDSA_SIG_free);
        if (!pair) {
            throw std::runtime_error("cannot read the ECDSA signature");
        }
        std::string raw(2 * kCoordinateSize, '\0');
        BN_bn2binpad(ECDSA_SIG_get0_r(pair.get()), reinterpret_cast<unsigned char*>(&raw[0]),
                     kCoordinateSize);
        BN_bn2binpad(ECDSA_SIG_get0_s(pair.get()),
                     reinterpret_cast<unsigned char*>(&raw[kCoordinateSize]), kCoordinateSize);
        return signedText + "." + Varkel::Zu::Base64::encode_url(raw);
    }

    std::string sign(const std::string& text, bool pss = false) const {
        return signWith(key_.get(), text, pss);
    }

  private:
    static constexpr int kCoordinateSize = 32;

    // A key's big-number parameter as base64url, padded to `width` bytes when not 0.
    static std::string bignumParameter(EVP_PKEY* key, const char* name, int width) {
        BIGNUM* number = nullptr;
        if (EVP_PKEY_get_bn_param(key, name, &number) != 1) {
            throw std::runtime_error("cannot read a key parameter");
        }
        std::string bytes(width != 0 ? static_cast<std::size_t>(width)
                                     : static_cast<std::size_t>(BN_num_bytes(number)),
                          '\0');
        BN_bn2binpad(number, reinterpret_cast<unsigned char*>(&bytes[0]),
                     static_cast<int>(bytes.size()));
        BN_free(number);
        return Varkel::Zu::Base64::encode_url(bytes);
    }

    static std::string signWith(EVP_PKEY* key, const std::string& text, bool pss) {
        std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
        std::size_t size = 0;
        EVP_PKEY_CTX* keyContext = nullptr;
        if (EVP_DigestSignInit(context.get(), &keyContext, EVP_sha256(), nullptr, key) != 1 ||
            (pss && (EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) != 1 ||
                     EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) != 1)) ||
            EVP_DigestSign(context.get(), nullptr, &size,
                           reinterpret_cast<const unsigned char*>(text.data()), text.size()) != 1) {
            throw std::runtime_error("cannot sign");
        }
        std::string signature(size, '\0');
        if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(&signature[0]), &size,
                           reinterpret_cast<const unsigned char*>(text.data()), text.size()) != 1) {
            throw std::runtime_error("cannot sign");
        }
        signature.resize(size);
        return signature;
    }

    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key_;
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> ecKey_;
    std::unique_ptr<X509, void (*)(X509*)> certificate_;
    std::string certificateText_;
};

}  // namespace TolvaRestTest
