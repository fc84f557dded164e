#include "RestCall.h"

#include <ZuCore/DebugLog.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <stdexcept>

namespace Varkel {
namespace Tolva {
namespace Rest {

using web::http::http_exception;
using web::http::http_response;

RestCall::RestCall(const web::http::method& method, const std::string& path) : request_(method) {
    request_.set_request_uri(path);
}

RestCall& RestCall::header(const char* name, const std::string& value) {
    request_.headers().add(name, value);
    return *this;
}

RestCall& RestCall::jsonBody(const web::json::value& body) {
    request_.set_body(body);
    return *this;
}

RestCall& RestCall::textBody(const std::string& body, const char* contentType) {
    // The two-argument overload keeps the given content type; the one-argument one would
    // replace a type set earlier with the library's text default.
    request_.set_body(body, contentType);
    return *this;
}

RestCall& RestCall::accept(std::initializer_list<web::http::status_code> statuses) {
    accepted_.assign(statuses.begin(), statuses.end());
    return *this;
}

RestCall& RestCall::failureText(std::wstring text, std::wstring suffix) {
    failureText_ = std::move(text);
    failureSuffix_ = std::move(suffix);
    return *this;
}

RestCall& RestCall::beforeFailure(std::function<void()> hook) {
    beforeFailure_ = std::move(hook);
    return *this;
}

RestCall& RestCall::cancellation(const pplx::cancellation_token& token) {
    cancellation_ = token;
    return *this;
}

pplx::task<http_response> RestCall::sendUnchecked(
    const std::shared_ptr<web::http::client::http_client>& client) const {
    if (!client) {
        return pplx::task_from_exception<http_response>(
            http_exception("No HTTP client for the platform URL."));
    }
    return client->request(request_, cancellation_);
}

pplx::task<http_response> RestCall::send(
    const std::shared_ptr<web::http::client::http_client>& client) const {
    // The continuation owns copies of what it needs: it may run after this object is gone.
    return sendUnchecked(client).then(
        [accepted = accepted_, failureText = failureText_, failureSuffix = failureSuffix_,
         beforeFailure = beforeFailure_](http_response response) -> pplx::task<http_response> {
            const web::http::status_code status = response.status_code();
            if (std::find(accepted.begin(), accepted.end(), status) != accepted.end()) {
                return pplx::task_from_result(response);
            }
            if (beforeFailure) {
                beforeFailure();
            }
            Varkel::Zu::DebugLog::error(failureText + std::to_wstring(status) + L" " +
                                        Varkel::Zu::widen(response.reason_phrase()) +
                                        failureSuffix);
            // The body is read asynchronously so that no continuation blocks a pool thread.
            return response.extract_string(true).then(
                [status](const std::string& body) -> http_response {
                    throw http_exception(status, body);
                });
        });
}

http_response RestCall::perform(
    const std::shared_ptr<web::http::client::http_client>& client) const {
    return send(client).get();
}

void RestCall::throwAsStdException(const http_exception& e) {
    throw std::runtime_error(e.what());
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
