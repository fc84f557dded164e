#include "TlsCertificates.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include <boost/asio/ip/address.hpp>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace qxpemu {

namespace {

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertFree {
    void operator()(X509* cert) const { X509_free(cert); }
};
struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
using CertPtr = std::unique_ptr<X509, CertFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;

[[noreturn]] void fail(const std::string& what) {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    char reason[256] = "";
    if (code != 0) {
        ERR_error_string_n(code, reason, sizeof reason);
    }
    throw std::runtime_error(what + (code != 0 ? std::string(": ") + reason : std::string()));
}

KeyPtr makeKey() {
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key) {
        fail("cannot make a P-256 key");
    }
    return key;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    if (extension == nullptr) {
        fail(std::string("cannot make the certificate extension ") + OBJ_nid2sn(nid));
    }
    const int added = X509_add_ext(cert, extension, -1);
    X509_EXTENSION_free(extension);
    if (added != 1) {
        fail("cannot add a certificate extension");
    }
}

// A certificate for subject's key, signed by issuerKey (issuer null: self-signed).
CertPtr makeCertificate(const std::string& commonName, EVP_PKEY* subjectKey, X509* issuer,
                        EVP_PKEY* issuerKey, long validDays, const std::string& altNames = "") {
    CertPtr cert(X509_new());
    if (!cert) {
        fail("cannot make a certificate");
    }
    X509_set_version(cert.get(), 2);
    // A random 120-bit serial: two emulators' certificates never share one.
    unsigned char serialBytes[15];
    if (RAND_bytes(serialBytes, sizeof serialBytes) != 1) {
        fail("cannot draw a certificate serial number");
    }
    serialBytes[0] &= 0x7f;
    BIGNUM* serial = BN_bin2bn(serialBytes, sizeof serialBytes, nullptr);
    if (serial == nullptr ||
        BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(cert.get())) == nullptr) {
        BN_free(serial);
        fail("cannot set a certificate serial number");
    }
    BN_free(serial);
    // Valid from an hour ago, so a client whose clock is a little behind accepts it.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), validDays * 24 * 3600);
    X509_set_pubkey(cert.get(), subjectKey);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("qxp-emulator"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                               0);
    X509* signer = issuer != nullptr ? issuer : cert.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
    if (issuer == nullptr) {
        addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
        addExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
        addExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
    } else {
        addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
        addExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature");
        addExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth");
        addExtension(cert.get(), signer, NID_subject_alt_name, altNames.c_str());
        addExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
        addExtension(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
    }
    if (X509_sign(cert.get(), issuerKey, EVP_sha256()) == 0) {
        fail("cannot sign a certificate");
    }
    return cert;
}

std::string pemOf(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) {
        fail("cannot write a certificate as PEM");
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, std::size_t(size));
}

std::string pemOf(EVP_PKEY* key) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio ||
        PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        fail("cannot write a private key as PEM");
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, std::size_t(size));
}

std::string readFile(const std::string& path, const char* what) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    if (!in || !(text << in.rdbuf())) {
        throw std::runtime_error(std::string("cannot read the TLS ") + what + " file " + path);
    }
    return text.str();
}

}  // namespace

TlsCertificates TlsCertificates::makeSigned(const std::vector<std::string>& names) {
    if (names.empty()) {
        throw std::runtime_error("a TLS certificate needs at least one name");
    }
    std::string altNames;
    for (const auto& name : names) {
        boost::system::error_code notAnAddress;
        boost::asio::ip::make_address(name, notAnAddress);
        altNames +=
            (altNames.empty() ? "" : ",") + std::string(notAnAddress ? "DNS:" : "IP:") + name;
    }
    const KeyPtr caKey = makeKey();
    const CertPtr ca =
        makeCertificate("qxp-emulator local CA", caKey.get(), nullptr, caKey.get(), 3650);
    const KeyPtr serverKey = makeKey();
    const CertPtr server =
        makeCertificate(names.front(), serverKey.get(), ca.get(), caKey.get(), 365, altNames);
    TlsCertificates made;
    made.chainPem = pemOf(server.get());
    made.keyPem = pemOf(serverKey.get());
    made.caPem = pemOf(ca.get());
    return made;
}

TlsCertificates TlsCertificates::fromFiles(const std::string& chainFile,
                                           const std::string& keyFile) {
    TlsCertificates loaded;
    loaded.chainPem = readFile(chainFile, "certificate");
    loaded.keyPem = readFile(keyFile, "key");
    try {
        loaded.serverContext();
    } catch (const std::exception& error) {
        throw std::runtime_error("the TLS certificate " + chainFile + " and key " + keyFile +
                                 " cannot be served: " + error.what());
    }
    return loaded;
}

std::unique_ptr<boost::asio::ssl::context> TlsCertificates::serverContext() const {
    namespace ssl = boost::asio::ssl;
    auto context = std::make_unique<ssl::context>(ssl::context::tls_server);
    SSL_CTX* native = context->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    // Thousands of parked long polls hold a TLS connection each; idle ones give back their
    // record buffers.
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    boost::system::error_code error;
    context->use_certificate_chain(boost::asio::buffer(chainPem), error);
    if (error) {
        throw std::runtime_error("the certificate chain is not usable (" + error.message() + ")");
    }
    context->use_private_key(boost::asio::buffer(keyPem), ssl::context::pem, error);
    if (error) {
        throw std::runtime_error("the private key is not usable (" + error.message() + ")");
    }
    if (SSL_CTX_check_private_key(native) != 1) {
        ERR_clear_error();
        throw std::runtime_error("the private key does not belong to the certificate");
    }
    return context;
}

}  // namespace qxpemu
