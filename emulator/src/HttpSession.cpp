#include "HttpSession.h"

#include <chrono>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/chunk_encode.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include "ControlApi.h"
#include "PlatformRouter.h"

namespace qxpemu {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

// An idle keep-alive connection is closed after this long without a request, unless the
// connection policy says sooner.
constexpr std::chrono::seconds kIdleTimeout(300);
constexpr std::uint32_t kHeaderLimit = 64 * 1024;
// How long, and how much, a connection closed after an early answer is drained.
constexpr std::chrono::seconds kLingerTimeout(2);
constexpr std::size_t kLingerDrainLimit = 64 * 1024 * 1024;
// A client that connects over TLS and says nothing is cut off after this long.
constexpr std::chrono::seconds kHandshakeTimeout(30);

bool startsWith(const std::string& textIn, const char* prefix) {
    return textIn.rfind(prefix, 0) == 0;
}

}  // namespace

template <class Stream>
void HttpSession<Stream>::run() {
    net::dispatch(stream_.get_executor(), [self = this->shared_from_this()] {
        if constexpr (kTls) {
            self->tcp().expires_after(kHandshakeTimeout);
            self->stream_.async_handshake(net::ssl::stream_base::server,
                                          [self](beast::error_code error) {
                                              if (error) {
                                                  // Nothing was read: no exchange to end.
                                                  self->closeConnection();
                                                  return;
                                              }
                                              self->readRequest();
                                          });
        } else {
            self->readRequest();
        }
    });
}

template <class Stream>
void HttpSession<Stream>::readRequest() {
    parser_.emplace();
    parser_->body_limit(core_.options.maxBodyBytes);
    parser_->header_limit(kHeaderLimit);
    const int idleCloseMs = core_.connections.policy().idleCloseMs;
    if (idleCloseMs > 0) {
        tcp().expires_after(std::chrono::milliseconds(idleCloseMs));
    } else {
        tcp().expires_after(kIdleTimeout);
    }
    http::async_read(stream_, buffer_, *parser_,
                     [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                         self->onRead(error);
                     });
}

template <class Stream>
void HttpSession<Stream>::onRead(beast::error_code error) {
    if (error == http::error::body_limit) {
        send(HttpReply::text(413, "request body larger than " +
                                      std::to_string(core_.options.maxBodyBytes) + " bytes"),
             true);
        return;
    }
    if (error == http::error::header_limit) {
        send(HttpReply::text(
                 431, "request header larger than " + std::to_string(kHeaderLimit) + " bytes"),
             true);
        return;
    }
    if (error == beast::error::timeout && buffer_.size() == 0 && !parser_->got_some()) {
        // Idle: the stream has closed the socket already (a FIN, no close_notify over TLS).
        core_.connections.closedIdle();
        closeConnection();
        return;
    }
    if (error == http::error::end_of_stream || error == net::error::eof ||
        error == beast::error::timeout || error == net::error::operation_aborted ||
        error == net::error::connection_reset || error == net::error::broken_pipe ||
        error == http::error::partial_message) {
        closeConnection();
        return;
    }
    if (error) {
        send(HttpReply::text(400, "malformed HTTP request: " + error.message()), true);
        return;
    }
    tcp().expires_never();

    auto message = parser_->release();
    parser_.reset();
    // Long polls park thousands of idle connections; give back the read buffer meanwhile.
    if (buffer_.size() == 0) {
        buffer_.shrink_to_fit();
    }
    request_ = IncomingRequest();
    request_.method = std::string(message.method_string());
    request_.target = std::string(message.target());
    const auto question = request_.target.find('?');
    request_.path = request_.target.substr(0, question);
    request_.query = question == std::string::npos ? "" : request_.target.substr(question + 1);
    for (const auto& field : message) {
        request_.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    }
    request_.body = std::move(message.body());
    keepAlive_ = message.keep_alive();
    httpVersion_ = message.version();
    ++requestsRead_;
    trickleChunkBytes_ = 0;
    trickleIntervalMs_ = 0;
    handleRequest();
}

template <class Stream>
void HttpSession<Stream>::handleRequest() {
    if (startsWith(request_.path, ControlApi::kPrefix)) {
        send(ControlApi(core_).handle(request_));
        return;
    }
    if (request_.path == "/" || request_.path == "/index.html") {
        send(ControlApi(core_).dashboardPage(request_));
        return;
    }
    // Browsers ask for an icon beside the dashboard; it has none.
    if (request_.path == "/favicon.ico") {
        send(HttpReply::empty(204));
        return;
    }
    exchangeOpen_ = true;
    exchangeMethod_ = request_.method;
    exchangeTarget_ = request_.target;
    exchangeStart_ = std::chrono::steady_clock::now();
    core_.log.add(RecordedRequest{request_.method, request_.target, request_.headers, request_.body,
                                  std::chrono::steady_clock::now()});
    if (auto fault = core_.faults.take(request_.method, request_.path)) {
        if (request_.method != "HEAD") {
            trickleChunkBytes_ = fault->trickleChunkBytes;
            trickleIntervalMs_ = fault->trickleIntervalMs;
        }
        if (fault->delayMs > 0) {
            timer_.expires_after(std::chrono::milliseconds(fault->delayMs));
            timer_.async_wait(
                [self = this->shared_from_this(), rule = *fault](beast::error_code error) {
                    if (!error) {
                        self->applyFault(rule);
                    }
                });
            return;
        }
        applyFault(*fault);
        return;
    }
    dispatch();
}

template <class Stream>
void HttpSession<Stream>::applyFault(const FaultRule& fault) {
    if (fault.drop) {
        closeConnection();
        return;
    }
    if (fault.status != 0) {
        HttpReply reply;
        reply.status = unsigned(fault.status);
        reply.reason = fault.reason;
        reply.contentType = fault.contentType;
        reply.body = fault.body;
        reply.extraHeaders = fault.headers;
        send(std::move(reply));
        return;
    }
    dispatch();
}

template <class Stream>
void HttpSession<Stream>::dispatch() {
    RouteOutcome outcome = PlatformRouter(core_).route(request_);
    if (outcome.longPoll) {
        startPoll(outcome.mailboxId, outcome.waitSeconds);
        return;
    }
    send(std::move(outcome.reply));
}

template <class Stream>
void HttpSession<Stream>::startPoll(const std::string& mailboxId, int waitSeconds) {
    // The hub owns the waiter while it is parked, and the waiter's completion owns this
    // session: a parked poll keeps its connection alive without a pending operation, and the
    // session holds only a weak reference back, so there is no cycle to leak at shutdown.
    auto waiter = std::make_shared<PollWaiter>();
    // The completion runs on whichever thread delivers; it only hops onto this session's
    // strand, with the executor taken here so nothing of the session is read over there.
    waiter->complete = [self = this->shared_from_this(),
                        strand = stream_.get_executor()](HttpReply reply) {
        net::post(strand, [self, reply = std::move(reply)]() mutable {
            self->finishPoll(std::move(reply));
        });
    };
    HttpReply reply;
    switch (core_.hub.startPoll(mailboxId, waiter, reply)) {
        case NotificationHub::PollStart::Unknown:
            send(HttpReply::text(404, "unknown mailbox " + mailboxId));
            return;
        case NotificationHub::PollStart::Answered:
            send(std::move(reply));
            return;
        case NotificationHub::PollStart::Waiting:
            break;
    }
    waiter_ = waiter;
    pollMailbox_ = mailboxId;
    // Nothing of the request is needed to answer the poll; a parked connection should cost
    // as little as possible.
    request_ = IncomingRequest();
    timer_.expires_after(std::chrono::seconds(waitSeconds));
    timer_.async_wait([self = this->shared_from_this()](beast::error_code error) {
        if (error) {
            return;
        }
        // Mail, a newer poll or a deletion may have taken the waiter already; then that path
        // has posted the answer and this wake-up has nothing to do.
        auto parked = self->waiter_.lock();
        if (parked && self->core_.hub.withdrawPoll(self->pollMailbox_, parked)) {
            self->waiter_.reset();
            self->send(HttpReply::empty(204));
        }
    });
}

template <class Stream>
void HttpSession<Stream>::finishPoll(HttpReply reply) {
    timer_.cancel();
    waiter_.reset();
    send(std::move(reply));
}

template <class Stream>
void HttpSession<Stream>::endExchange(unsigned status) {
    if (!exchangeOpen_) {
        return;
    }
    exchangeOpen_ = false;
    core_.recent.addExchange({std::chrono::system_clock::now(), std::move(exchangeMethod_),
                              std::move(exchangeTarget_), status,
                              std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - exchangeStart_)
                                  .count()});
}

template <class Stream>
void HttpSession<Stream>::send(HttpReply reply, bool forceClose) {
    endExchange(reply.status);
    response_.emplace();
    auto& response = *response_;
    response.version(httpVersion_);
    response.result(reply.status);
    if (!reply.reason.empty()) {
        response.reason(reply.reason);
    } else if (http::obsolete_reason(http::int_to_status(reply.status)) == "<unknown-status>") {
        response.reason("Unknown");
    }
    response.set(http::field::server, "qxp-emulator");
    const bool bodyAllowed = !(reply.status < 200 || reply.status == 204 || reply.status == 304);
    if (bodyAllowed) {
        if (!reply.contentType.empty()) {
            response.set(http::field::content_type, reply.contentType);
        }
        response.body() = std::move(reply.body);
    }
    for (const auto& field : reply.extraHeaders) {
        response.insert(field.first, field.second);
    }
    bool close = forceClose || !keepAlive_;
    bool announceClose = close;
    const ConnectionPolicy policy = core_.connections.policy();
    if (!close && policy.maxRequestsPerConnection > 0 &&
        requestsRead_ >= std::size_t(policy.maxRequestsPerConnection)) {
        // The last request this connection serves: answered whole, then closed, said so in
        // the answer or not.
        core_.connections.closedAfterRequests();
        close = true;
        announceClose = policy.announceClose;
    }
    response.keep_alive(!announceClose);
    // Chunked coding needs HTTP/1.1; an HTTP/1.0 client gets the body in one piece.
    if (bodyAllowed && trickleChunkBytes_ > 0 && httpVersion_ >= 11) {
        sendTrickled(std::move(response.base()), std::move(response.body()), close);
        response_.reset();
        return;
    }
    response.prepare_payload();
    http::async_write(stream_, response,
                      [self = this->shared_from_this(), close](
                          beast::error_code error, std::size_t) { self->onWritten(error, close); });
}

template <class Stream>
void HttpSession<Stream>::sendTrickled(http::response_header<> head, std::string body, bool close) {
    trickleHead_.emplace(std::move(head));
    trickleHead_->chunked(true);
    trickleBody_ = std::move(body);
    trickleSent_ = 0;
    trickleSerializer_.emplace(*trickleHead_);
    http::async_write_header(
        stream_, *trickleSerializer_,
        [self = this->shared_from_this(), close](beast::error_code error, std::size_t) {
            if (error) {
                self->onWritten(error, close);
                return;
            }
            self->trickleNext(close);
        });
}

template <class Stream>
void HttpSession<Stream>::trickleNext(bool close) {
    auto self = this->shared_from_this();
    if (trickleSent_ >= trickleBody_.size()) {
        net::async_write(stream_, http::make_chunk_last(),
                         [self, close](beast::error_code error, std::size_t) {
                             self->trickleSerializer_.reset();
                             self->trickleHead_.reset();
                             self->trickleBody_.clear();
                             self->onWritten(error, close);
                         });
        return;
    }
    timer_.expires_after(std::chrono::milliseconds(trickleIntervalMs_));
    timer_.async_wait([self, close](beast::error_code error) {
        if (error) {
            self->closeConnection();
            return;
        }
        const std::size_t size = std::min(self->trickleBody_.size() - self->trickleSent_,
                                          std::size_t(self->trickleChunkBytes_));
        net::async_write(
            self->stream_,
            http::make_chunk(net::buffer(self->trickleBody_.data() + self->trickleSent_, size)),
            [self, close, size](beast::error_code writeError, std::size_t) {
                if (writeError) {
                    self->onWritten(writeError, close);
                    return;
                }
                self->trickleSent_ += size;
                self->trickleNext(close);
            });
    });
}

template <class Stream>
void HttpSession<Stream>::onWritten(beast::error_code error, bool close) {
    response_.reset();
    if (error) {
        closeConnection();
        return;
    }
    if (close) {
        lingerThenClose();
        return;
    }
    readRequest();
}

template <class Stream>
void HttpSession<Stream>::lingerThenClose() {
    // A client answered early (413, 431, 400) may still be sending; closing at once would
    // reset the connection and destroy the answer in flight. Stop sending, drain what comes
    // for a while, then close. Over TLS the close is announced (close_notify) and the
    // client's own close_notify awaited instead, within the same time.
    if constexpr (kTls) {
        tcp().expires_after(kLingerTimeout);
        stream_.async_shutdown(
            [self = this->shared_from_this()](beast::error_code) { self->closeConnection(); });
        return;
    }
    beast::error_code ignored;
    tcp().socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
    tcp().expires_after(kLingerTimeout);
    drain(0);
}

template <class Stream>
void HttpSession<Stream>::drain(std::size_t drained) {
    buffer_.consume(buffer_.size());
    stream_.async_read_some(
        buffer_.prepare(16 * 1024),
        [self = this->shared_from_this(), drained](beast::error_code error, std::size_t count) {
            if (error || drained + count > kLingerDrainLimit) {
                self->closeConnection();
                return;
            }
            self->buffer_.commit(count);
            self->drain(drained + count);
        });
}

template <class Stream>
void HttpSession<Stream>::closeConnection() {
    endExchange(0);
    beast::error_code ignored;
    tcp().socket().shutdown(net::ip::tcp::socket::shutdown_both, ignored);
    tcp().close();
    timer_.cancel();
}

template class HttpSession<PlainStream>;
template class HttpSession<TlsStream>;

}  // namespace qxpemu
