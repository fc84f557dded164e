// WebUtils: how the library makes its HTTP clients, with the proxy taken from the
// environment and, on request, bearer authorisation added to every request.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <memory>
#include <string>

#include <cpprest/http_client.h>

namespace Varkel {
namespace Tolva {
namespace Rest {
class QxPlatformApi;
}  // namespace Rest

namespace WebUtils {

// Makes an HTTP client for url with the HTTP library's default time-out (30 s per step).
// Proxy, from the environment variable "http_proxy": unset or empty leaves the system default;
// exactly "auto" (lower case) selects automatic proxy discovery; anything else is parsed as the
// proxy's URI. When api is not empty, every request sent through the client gets the header
// "Authorization: Bearer <token>" with the token text api holds at send time; the client keeps
// only a weak reference to api, and sends without the header once api is gone.
// Throws web::uri_exception for a malformed url or "http_proxy" value. Any thread.
TOLVA_EXPORT std::shared_ptr<web::http::client::http_client> createHttpClient(
    const std::wstring& url, const std::shared_ptr<Rest::QxPlatformApi>& api);

}  // namespace WebUtils
}  // namespace Tolva
}  // namespace Varkel
