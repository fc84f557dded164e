// A signer for JWT tests: an RSA-2048 key with a self-signed certificate, a key set that
// carries the certificate the way the platform's does ("x5c", standard Base64 DER), and RS256
// tokens made from any header and payload text, so tests can craft every kind of token.
#pragma once

#include <ZuCore/Base64.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <cpprest/json.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace TolvaRestTest {

class JwtTestSigner {
  public:
    JwtTestSigner() : key_(EVP_RSA_gen(2048), EVP_PKEY_free), certificate_(X509_new(), X509_free) {
        if (!key_ || !certificate_) {
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

    std::string sign(const std::string& text) const {
        std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
        std::size_t size = 0;
        if (EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) != 1 ||
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

  private:
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key_;
    std::unique_ptr<X509, void (*)(X509*)> certificate_;
    std::string certificateText_;
};

}  // namespace TolvaRestTest
