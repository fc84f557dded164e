// RestCall: the one way the library sends a platform request. An operation states what
// differs (method, path, headers in the order it adds them, body, the statuses it accepts and
// its failure text); RestCall builds the request, sends it through the API object's client and
// checks the status. A status outside the accepted ones writes
// "ERROR: " + failure text + status + " " + reason phrase to the debug log and fails the task
// with web::http::http_exception(status, response body).
//
//   RestCall call(web::http::methods::POST, "/notifications/api/v1/mailbox");
//   call.header("Accept", RestCall::kJsonContentType).jsonBody(body)
//       .accept({web::http::status_codes::OK}).failureText(L"Create Mailbox failed ");
//   web::http::http_response response = call.perform(client);
//
// Internal to the library: cpprestsdk stays behind this class and the API object's sources.
#pragma once

#include <cpprest/http_client.h>
#include <cpprest/json.h>
#include <pplx/pplxtasks.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Varkel {
namespace Tolva {
namespace Rest {

class RestCall {
  public:
    // Header values the operations share.
    static constexpr const char* kUserAgent = "Tolva";
    static constexpr const char* kJsonContentType = "application/json";

    RestCall(const web::http::method& method, const std::string& path);

    // Adds a header. The HTTP library keeps headers sorted by name, so the order on the wire
    // is its own; operations still add them in their documented order.
    RestCall& header(const char* name, const std::string& value);

    // Attaches a JSON body (content type "application/json").
    RestCall& jsonBody(const web::json::value& body);

    // Attaches a text body with the given content type, which replaces the library's text
    // default.
    RestCall& textBody(const std::string& body, const char* contentType);

    // The statuses that count as success (default: none, so set them).
    RestCall& accept(std::initializer_list<web::http::status_code> statuses);

    // The text of the "ERROR: " line written for any other status, and what follows the
    // reason phrase on that line (nothing unless set).
    RestCall& failureText(std::wstring text, std::wstring suffix = L"");

    // Runs on a status failure just before the "ERROR: " line (for an operation that reports
    // the failure elsewhere too).
    RestCall& beforeFailure(std::function<void()> hook);

    // Cancels the request with the token (the task then fails with http_exception).
    RestCall& cancellation(const pplx::cancellation_token& token);

    // Sends. The task yields the response when its status is accepted and fails with
    // web::http::http_exception otherwise, or when the request fails in transport or no client
    // is given. Never throws itself.
    pplx::task<web::http::http_response> send(
        const std::shared_ptr<web::http::client::http_client>& client) const;

    // Sends without checking the status; the task fails only in transport (or for no client).
    pplx::task<web::http::http_response> sendUnchecked(
        const std::shared_ptr<web::http::client::http_client>& client) const;

    // send(client) waited for on the calling thread: the response with an accepted status, or
    // the failure thrown.
    web::http::http_response perform(
        const std::shared_ptr<web::http::client::http_client>& client) const;

    // Runs `operation`; a web::http::http_exception coming out of it is thrown again as a
    // plain std::exception (std::runtime_error) with the same what() text, the way the
    // posting, registration and token operations report failures.
    template <class Operation>
    static auto translatingHttpFailure(Operation&& operation) -> decltype(operation()) {
        try {
            return operation();
        } catch (const web::http::http_exception& e) {
            throwAsStdException(e);
        }
    }

  private:
    [[noreturn]] static void throwAsStdException(const web::http::http_exception& e);

    web::http::http_request request_;
    std::vector<web::http::status_code> accepted_;
    std::wstring failureText_;
    std::wstring failureSuffix_;
    std::function<void()> beforeFailure_;
    pplx::cancellation_token cancellation_ = pplx::cancellation_token::none();
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
