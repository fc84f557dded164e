// The API object's clients: like WebUtils::createHttpClient (the proxy from the environment,
// the process's TLS trust), without an authorisation stage, with the given time-out per step
// of a request, and without following redirects (no platform operation accepts one).
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <cpprest/http_client.h>

namespace Varkel {
namespace Tolva {
namespace WebUtils {

// Throws web::uri_exception for a malformed url or proxy value.
std::shared_ptr<web::http::client::http_client> makeHttpClient(const std::wstring& url,
                                                               std::chrono::seconds stepTimeout);

}  // namespace WebUtils
}  // namespace Tolva
}  // namespace Varkel
