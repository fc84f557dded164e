// One client connection: reads requests, records them, applies fault rules, answers them
// through the routers, and parks long polls without holding a thread. The same session
// serves plain TCP and TLS connections (Stream is PlainStream or TlsStream).
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include "EmulatorCore.h"
#include "HttpExchange.h"
#include "PollWaiter.h"

namespace qxpemu {

using PlainStream = boost::beast::tcp_stream;
using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

template <class Stream>
class HttpSession : public std::enable_shared_from_this<HttpSession<Stream>> {
  public:
    // A plain connection, or a TLS one with the server context as the last argument.
    template <class... TlsContext>
    HttpSession(EmulatorCore& core, boost::asio::ip::tcp::socket&& socket, TlsContext&... tls)
        : stream_(std::move(socket), tls...), timer_(stream_.get_executor()), core_(core) {
        core_.connections.opened();
    }
    ~HttpSession() { core_.connections.closed(); }
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    // Starts the TLS handshake, if any, then reading; the session keeps itself alive
    // through its pending operations.
    void run();

  private:
    static constexpr bool kTls = std::is_same<Stream, TlsStream>::value;
    boost::beast::tcp_stream& tcp() { return boost::beast::get_lowest_layer(stream_); }
    void readRequest();
    void onRead(boost::beast::error_code error);
    void handleRequest();
    void applyFault(const FaultRule& fault);
    void dispatch();
    void startPoll(const std::string& mailboxId, int waitSeconds);
    void finishPoll(HttpReply reply);
    void send(HttpReply reply, bool forceClose = false);
    void onWritten(boost::beast::error_code error, bool close);
    void sendTrickled(boost::beast::http::response_header<> head, std::string body, bool close);
    void trickleNext(bool close);
    void lingerThenClose();
    void drain(std::size_t drained);
    void closeConnection();

    Stream stream_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    boost::asio::steady_timer timer_;
    EmulatorCore& core_;

    IncomingRequest request_;
    unsigned httpVersion_ = 11;
    bool keepAlive_ = true;
    // Requests read on this connection, for ConnectionPolicy::maxRequestsPerConnection.
    std::size_t requestsRead_ = 0;

    // The platform request being answered, for the dashboard's list of recent requests; an
    // answer or a close without one ends it.
    void endExchange(unsigned status);
    bool exchangeOpen_ = false;
    std::string exchangeMethod_;
    std::string exchangeTarget_;
    std::chrono::steady_clock::time_point exchangeStart_;

    std::weak_ptr<PollWaiter> waiter_;
    std::string pollMailbox_;

    std::optional<boost::beast::http::response<boost::beast::http::string_body>> response_;

    // A fault rule's trickle for the current request's answer (0: none), and the answer being
    // trickled: its head, the body and how much of it went out.
    int trickleChunkBytes_ = 0;
    int trickleIntervalMs_ = 0;
    std::optional<boost::beast::http::response<boost::beast::http::empty_body>> trickleHead_;
    std::optional<boost::beast::http::response_serializer<boost::beast::http::empty_body>>
        trickleSerializer_;
    std::string trickleBody_;
    std::size_t trickleSent_ = 0;
};

extern template class HttpSession<PlainStream>;
extern template class HttpSession<TlsStream>;

}  // namespace qxpemu
