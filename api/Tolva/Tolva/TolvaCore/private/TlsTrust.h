// What the library's HTTPS connections trust, and how a failed handshake is told.
//
// The HTTP library makes a fresh TLS context for every connection it opens. Each one is
// given a trust store shared by the whole process: the system's trust store, plus the CA
// file the host named (WebUtils::setTrustedCaFile or "TOLVA_CA_FILE"). Certificate and
// host-name checks stay as the HTTP library does them; this only adds trust and records
// why a check failed, so that the failed request can say so instead of "Error in SSL
// handshake".
#pragma once

#include <memory>
#include <string>

#include <cpprest/http_client.h>

namespace Varkel {
namespace Tolva {
namespace TlsTrust {

// Makes a client for uri with config; for an https uri, its connections use the shared
// trust store and a failed handshake fails the request with an http_exception whose text
// names the host and what failed. Throws what the http_client constructor throws.
std::shared_ptr<web::http::client::http_client> makeClient(
    const web::uri& uri, web::http::client::http_client_config config);

// Trusts the CA certificates in the PEM file at path (besides the system's) on every
// connection opened from now on; an empty path trusts the system's store only. Throws
// Varkel::Zu::InvalidArgumentException when the file cannot be read or holds no
// certificate; the trust in force is then left as it was.
void setCaFile(const std::string& path);

// The CA file in force: the one set by setCaFile, else "TOLVA_CA_FILE", else empty.
std::string caFile();

}  // namespace TlsTrust
}  // namespace Tolva
}  // namespace Varkel
