#include "RestCall.h"

#include <TolvaCore/PlatformRequestError.h>

#include <ZuCore/DebugLog.h>
#include <ZuCore/StringConversion.h>

#include "HttpClientMaker.h"
#include "InlineScheduler.h"
#include "RequestDeadline.h"

#include <algorithm>
#include <cctype>
#include <system_error>

namespace Varkel {
namespace Tolva {
namespace Rest {

using web::http::http_exception;
using web::http::http_request;
using web::http::http_response;
using Client = web::http::client::http_client;

// What an operation asked for; copied when the request is sent, so that the continuations
// own what they use.
struct RestCall::Plan {
    web::http::method method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::pair<std::string, std::string>> body;  // text, content type
    std::vector<web::http::status_code> accepted;
    std::wstring failureText;
    std::wstring failureSuffix;
    std::function<void()> beforeFailure;
    std::function<void()> onResend;
    std::function<void()> onWritten;
    pplx::cancellation_token cancellation = pplx::cancellation_token::none();
    std::chrono::milliseconds timeLimit = RestCall::kDefaultTimeLimit;

    // A new request each time: a request object can be sent only once.
    http_request build() const {
        http_request request(method);
        request.set_request_uri(path);
        for (const auto& header : headers) {
            request.headers().add(header.first, header.second);
        }
        if (body) {
            // The two-argument overload keeps the given content type; the one-argument one
            // would replace a type set earlier with the library's text default.
            request.set_body(body->first, body->second);
        }
        if (onWritten) {
            request.set_progress_handler(
                [hook = onWritten](web::http::message_direction::direction direction,
                                   utility::size64_t) {
                    if (direction == web::http::message_direction::upload) {
                        hook();
                    }
                });
        }
        return request;
    }
};

namespace {

// The HTTP library's texts for a request that could not be written (before any answer).
bool notWritten(const http_exception& e) {
    if (e.error_code() == std::errc::timed_out) {
        return false;
    }
    const std::string text = e.what();
    return text.rfind("Failed to write request headers", 0) == 0 ||
           text.rfind("Failed to write request body", 0) == 0;
}

bool isTlsFailure(const std::string& text) {
    return text.rfind("TLS handshake with ", 0) == 0 ||
           text.find("SSL handshake") != std::string::npos;
}

PlatformHttpException timedOut(const RequestDeadline& deadline) {
    return PlatformHttpException(static_cast<int>(std::errc::timed_out),
                                 "No complete answer within " +
                                     std::to_string(deadline.limit().count()) +
                                     " ms; the request was abandoned.",
                                 RequestFailure::Kind::TimedOut);
}

// The failure of an attempt, with its kind.
PlatformHttpException failureOf(const std::exception_ptr& failure,
                                const RequestDeadline& deadline) {
    if (deadline.expired() && !deadline.cancelledByCaller()) {
        return timedOut(deadline);
    }
    try {
        std::rethrow_exception(failure);
    } catch (const http_exception& e) {
        return RestCall::classify(e);
    } catch (const std::exception& e) {
        return PlatformHttpException(0, e.what(), RequestFailure::Kind::Transport);
    } catch (...) {
        return PlatformHttpException(0, "Unknown failure.", RequestFailure::Kind::Transport);
    }
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A page written for a browser (a proxy's error page) says nothing a caller can use but its
// text: the status, the reason and a short, one-line excerpt without markup.
std::string pageExcerpt(web::http::status_code status, const std::string& reason,
                        const std::string& page) {
    constexpr std::size_t kLongest = 160;
    std::string text;
    bool inTag = false;
    bool space = false;
    for (const char c : page) {
        if (c == '<') {
            inTag = true;
            space = true;
            continue;
        }
        if (c == '>') {
            inTag = false;
            continue;
        }
        if (inTag) {
            continue;
        }
        if (std::isspace(static_cast<unsigned char>(c)) != 0 ||
            static_cast<unsigned char>(c) < 0x20) {
            space = true;
            continue;
        }
        if (space && !text.empty()) {
            text += ' ';
        }
        space = false;
        text += c;
        if (text.size() >= kLongest) {
            text += "...";
            break;
        }
    }
    std::string summary = "HTTP status " + std::to_string(status);
    if (!reason.empty()) {
        summary += " " + reason;
    }
    if (!text.empty()) {
        summary += ": " + text;
    }
    return summary;
}

bool isPage(const http_response& response) {
    const auto type = response.headers().content_type();
    return lowerCase(type).find("text/html") != std::string::npos;
}

// An answer whose status the operation does not accept: the "ERROR: " line, then a task that
// fails with the status and the body (read first).
pplx::task<http_response> refused(const std::shared_ptr<const RestCall::Plan>& plan,
                                  http_response response) {
    const web::http::status_code status = response.status_code();
    if (plan->beforeFailure) {
        plan->beforeFailure();
    }
    const std::string reason = response.reason_phrase();
    Varkel::Zu::DebugLog::error(plan->failureText + std::to_wstring(status) + L" " +
                                Varkel::Zu::widen(reason) + plan->failureSuffix);
    // A proxy's answer (its own error page, or its request for credentials) is told by
    // status and an excerpt; the platform's own bodies stay as they are.
    const bool page = status == web::http::status_codes::ProxyAuthRequired || isPage(response);
    // Read asynchronously (the body is there already), so no continuation waits.
    // A body that cannot be read fails the request as the reading failed (the deadline, say).
    return response.extract_utf8string(true).then([status, reason,
                                                   page](const std::string& read) -> http_response {
        const std::string body = page ? pageExcerpt(status, reason, read) : read;
        throw PlatformHttpException(status, body, RequestFailure::Kind::HttpStatus, status, reason);
    });
}

// The answer's body read: the response once the HTTP library has read its body (and, for an
// answer without one, closed its empty body stream), or the failure of reading it. Unlike
// http_response::content_ready, it completes on the thread that set the body's end rather than
// through a task queued to the pool. The HTTP library puts the connection back in its pool
// right after it queues the closing of the body stream, so by the time the body's end is set
// the caller's next request almost always finds the connection there. (Completing an answer
// without a body at its head would save those two tasks, but then the caller's next request
// often came before the connection was back, and opened another.)
pplx::task<http_response> bodyRead(const http_response& response) {
    return pplx::create_task(response._get_impl()->_get_data_available(),
                             InlineScheduler::options())
        .then([response](utility::size64_t) { return response; }, InlineScheduler::options());
}

// The answer of one attempt with its body read (within the deadline, as the body may trickle).
// Its continuations are short, never block and run no host code, so they run where the answer
// arrives (see InlineScheduler).
pplx::task<http_response> attempt(const std::shared_ptr<Client>& client,
                                  const std::shared_ptr<const RestCall::Plan>& plan,
                                  const std::shared_ptr<RequestDeadline>& deadline, bool check,
                                  bool mayResend) {
    return client->request(plan->build(), deadline->token())
        .then(
            [client, plan, deadline, check,
             mayResend](pplx::task<http_response> sent) -> pplx::task<http_response> {
                http_response response;
                try {
                    response = sent.get();
                } catch (const http_exception& e) {
                    if (mayResend && notWritten(e) && !deadline->token().is_canceled()) {
                        if (plan->onResend) {
                            plan->onResend();
                        }
                        // A client of its own has no pooled connection: the request surely goes on
                        // a new one, whatever else the old client's pool holds. Made as the API
                        // object's clients are (proxy and its credentials, trust, no redirects).
                        auto fresh = WebUtils::makeHttpClient(
                            Varkel::Zu::widen(client->base_uri().to_string()),
                            client->client_config().timeout<std::chrono::seconds>());
                        return attempt(fresh, plan, deadline, check, false);
                    }
                    throw;
                }
                // The status is checked as soon as it is there; an accepted answer's body is read
                // whole before the request counts as done.
                if (check && std::find(plan->accepted.begin(), plan->accepted.end(),
                                       response.status_code()) == plan->accepted.end()) {
                    return refused(plan, response);
                }
                return bodyRead(response);
            },
            InlineScheduler::options());
}

}  // namespace

RestCall::RestCall(const web::http::method& method, const std::string& path)
    : plan_(std::make_shared<Plan>()) {
    plan_->method = method;
    plan_->path = path;
}

RestCall& RestCall::header(const char* name, const std::string& value) {
    plan_->headers.emplace_back(name, value);
    return *this;
}

RestCall& RestCall::jsonBody(const web::json::value& body) {
    plan_->body = std::make_pair(body.serialize(), std::string(kJsonContentType));
    return *this;
}

RestCall& RestCall::textBody(const std::string& body, const char* contentType) {
    plan_->body = std::make_pair(body, std::string(contentType));
    return *this;
}

RestCall& RestCall::accept(std::initializer_list<web::http::status_code> statuses) {
    plan_->accepted.assign(statuses.begin(), statuses.end());
    return *this;
}

RestCall& RestCall::failureText(std::wstring text, std::wstring suffix) {
    plan_->failureText = std::move(text);
    plan_->failureSuffix = std::move(suffix);
    return *this;
}

RestCall& RestCall::beforeFailure(std::function<void()> hook) {
    plan_->beforeFailure = std::move(hook);
    return *this;
}

RestCall& RestCall::cancellation(const pplx::cancellation_token& token) {
    plan_->cancellation = token;
    return *this;
}

RestCall& RestCall::timeLimit(std::chrono::milliseconds limit) {
    plan_->timeLimit = limit;
    return *this;
}

RestCall& RestCall::onResend(std::function<void()> hook) {
    plan_->onResend = std::move(hook);
    return *this;
}

RestCall& RestCall::onWritten(std::function<void()> hook) {
    plan_->onWritten = std::move(hook);
    return *this;
}

PlatformHttpException RestCall::classify(const http_exception& e) {
    if (const auto* typed = dynamic_cast<const PlatformHttpException*>(&e)) {
        return *typed;
    }
    const std::string text = e.what();
    RequestFailure::Kind kind = RequestFailure::Kind::Transport;
    if (e.error_code() == std::errc::timed_out) {
        kind = RequestFailure::Kind::TimedOut;
    } else if (isTlsFailure(text)) {
        kind = RequestFailure::Kind::Tls;
    }
    return PlatformHttpException(e.error_code().value(), text, kind);
}

pplx::task<http_response> RestCall::sendChecking(const std::shared_ptr<Client>& client,
                                                 bool check) const {
    if (!client) {
        return pplx::task_from_exception<http_response>(PlatformHttpException(
            0, "No HTTP client for the platform URL.", RequestFailure::Kind::Transport));
    }
    // The continuations own a copy of what they need: they may run after this object is gone.
    const std::shared_ptr<const Plan> plan = std::make_shared<const Plan>(*plan_);
    std::shared_ptr<RequestDeadline> deadline;
    pplx::task<http_response> answer;
    try {
        deadline = RequestDeadline::start(plan->timeLimit, plan->cancellation);
        answer = attempt(client, plan, deadline, check, true);
    } catch (...) {
        // Making the request failed before it left (a bad path, no memory).
        return pplx::task_from_exception<http_response>(PlatformHttpException(
            0, "The request could not be sent.", RequestFailure::Kind::Transport));
    }
    // One last continuation takes every outcome: the clock stops, and a failure leaves with its
    // kind. It runs inline too and completes the caller's task through an event, so that the
    // caller's task and its continuations belong to the pool's scheduler, not the inline one
    // (continuations inherit their antecedent's scheduler).
    pplx::task_completion_event<http_response> outcome;
    answer.then(
        [deadline, outcome](pplx::task<http_response> done) {
            deadline->finish();
            try {
                outcome.set(done.get());
            } catch (const PlatformHttpException& e) {
                if (e.kind() == RequestFailure::Kind::HttpStatus) {
                    outcome.set_exception(std::current_exception());  // the status check's own
                } else {
                    outcome.set_exception(failureOf(std::current_exception(), *deadline));
                }
            } catch (...) {
                outcome.set_exception(failureOf(std::current_exception(), *deadline));
            }
        },
        InlineScheduler::options());
    return pplx::create_task(outcome);
}

pplx::task<http_response> RestCall::sendUnchecked(const std::shared_ptr<Client>& client) const {
    return sendChecking(client, false);
}

pplx::task<http_response> RestCall::send(const std::shared_ptr<Client>& client) const {
    return sendChecking(client, true);
}

web::json::value RestCall::readJson(const http_response& response) {
    return response._get_impl()->_extract_json(true);
}

http_response RestCall::perform(const std::shared_ptr<Client>& client) const {
    return send(client).get();
}

void RestCall::throwAsStdException(const http_exception& e) {
    const PlatformHttpException typed = classify(e);
    throw PlatformRequestError(typed.what(), typed);
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
