// The emulator's side of TLS: a certificate authority made at start with a server
// certificate it signs for the loopback names, or a certificate and key the user brings,
// turned into the server context every HTTPS connection is accepted with.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/asio/ssl/context.hpp>

namespace qxpemu {

struct TlsCertificates {
    // The server's certificate chain (leaf first) and its private key, both PEM.
    std::string chainPem;
    std::string keyPem;
    // The CA certificate (PEM) that signed the chain, when the emulator made it; empty for a
    // certificate the user brought.
    std::string caPem;

    // A fresh CA (P-256, valid for 10 years) and a server certificate it signs (P-256, valid
    // for 1 year) naming `names` (host names and IP addresses). Throws std::runtime_error
    // when OpenSSL fails or names is empty.
    static TlsCertificates makeSigned(const std::vector<std::string>& names);

    // A chain and key read from PEM files. Throws std::runtime_error naming the file that
    // cannot be read, or when the key does not belong to the first certificate.
    static TlsCertificates fromFiles(const std::string& chainFile, const std::string& keyFile);

    // A TLS 1.2+ server context serving this chain and key. Throws std::runtime_error.
    std::unique_ptr<boost::asio::ssl::context> serverContext() const;
};

}  // namespace qxpemu
