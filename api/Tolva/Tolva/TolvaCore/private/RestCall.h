// RestCall: the one way the library sends a platform request. An operation states what
// differs (method, path, headers in the order it adds them, body, the statuses it accepts and
// its failure text); RestCall builds the request, sends it through the API object's client,
// reads the whole answer and checks the status. A status outside the accepted ones writes
// "ERROR: " + failure text + status + " " + reason phrase to the debug log and fails the task
// with a PlatformHttpException (a web::http::http_exception of status and response body).
//
//   RestCall call(web::http::methods::POST, "/notifications/api/v1/mailbox");
//   call.header("Accept", RestCall::kJsonContentType).jsonBody(body)
//       .accept({web::http::status_codes::OK}).failureText(L"Create Mailbox failed ");
//   web::http::http_response response = call.perform(client);
//
// What every request gets, whatever the operation:
// - an overall time limit (timeLimit, kDefaultTimeLimit unless set) from sending until the
//   answer's body has been read; past it the request is abandoned and fails as timed out;
// - one more try on a new connection when the request could not be written at all: a
//   kept-alive connection that the server closed while it was idle fails the first write that
//   follows, and a request that was not written cannot have been processed. (A connection
//   closed before the status line is retried by the HTTP library itself, when it was reused.)
// - failures of a kind (RequestFailure): transport, time-out, HTTP status, TLS;
// - as few hand-overs between threads as the HTTP library allows: its own checks run on the
//   thread that read the answer, and the task given to the caller belongs to the pool's
//   scheduler (see InlineScheduler).
//
// Internal to the library: cpprestsdk stays behind this class and the API object's sources.
#pragma once

#include <TolvaCore/PlatformHttpException.h>
#include <TolvaCore/PlatformReplyError.h>

#include <cpprest/http_client.h>
#include <cpprest/json.h>
#include <pplx/pplxtasks.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
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

    // The overall limit of a request unless timeLimit says otherwise: twice the client's
    // 30 s step time-out, so a request that used a whole step waiting for its answer still
    // has a whole step for the body.
    static constexpr std::chrono::milliseconds kDefaultTimeLimit{60000};

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

    // The overall limit of this request (see above).
    RestCall& timeLimit(std::chrono::milliseconds limit);

    // Runs (on a pool thread) when the request is sent once more on a new connection.
    RestCall& onResend(std::function<void()> hook);

    // Runs (on a pool thread) once the request has been written on its connection, which is
    // then open (reused, or connected and through its TLS handshake); again if it is sent
    // once more.
    RestCall& onWritten(std::function<void()> hook);

    // Sends. The task yields the response, its body read, when its status is accepted and
    // fails with PlatformHttpException otherwise, or when the request fails in transport, in
    // time or no client is given. Never throws itself.
    pplx::task<web::http::http_response> send(
        const std::shared_ptr<web::http::client::http_client>& client) const;

    // Sends without checking the status; the task fails only in transport or time (or for no
    // client).
    pplx::task<web::http::http_response> sendUnchecked(
        const std::shared_ptr<web::http::client::http_client>& client) const;

    // The JSON body of a response that send or sendUnchecked gave (whose body has been read
    // whole), whatever its content type, parsed at once on the calling thread: unlike
    // http_response::extract_json, no task goes through the pool. Throws
    // web::json::json_exception for a body that is not JSON.
    static web::json::value readJson(const web::http::http_response& response);

    // send(client) waited for on the calling thread: the response with an accepted status, or
    // the failure thrown.
    web::http::http_response perform(
        const std::shared_ptr<web::http::client::http_client>& client) const;

    // Runs `operation`; a web::http::http_exception coming out of it is thrown again as a
    // plain std::exception (a PlatformRequestError, a std::runtime_error) with the same what()
    // text and, when known, the same kind, the way the posting, registration and token
    // operations report failures. A web::json::json_exception (an answer that cannot be read)
    // leaves as a PlatformReplyError, which is one.
    template <class Operation>
    static auto translatingHttpFailure(Operation&& operation) -> decltype(operation()) {
        try {
            return operation();
        } catch (const web::http::http_exception& e) {
            throwAsStdException(e);
        } catch (const PlatformReplyError&) {
            throw;
        } catch (const web::json::json_exception& e) {
            // An accepted answer that cannot be read: still a json_exception, now with its kind.
            throw PlatformReplyError(e.what());
        }
    }

    // The kind of failure e stands for, as a PlatformHttpException (e itself when it already
    // is one).
    static PlatformHttpException classify(const web::http::http_exception& e);

    // What an operation asked for (internal).
    struct Plan;

  private:
    pplx::task<web::http::http_response> sendChecking(
        const std::shared_ptr<web::http::client::http_client>& client, bool check) const;
    [[noreturn]] static void throwAsStdException(const web::http::http_exception& e);

    std::shared_ptr<Plan> plan_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
