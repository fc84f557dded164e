#include "HttpTestClient.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <strings.h>

namespace EmulatorTest {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

std::string HttpResponse::header(const std::string& name) const {
    for (const auto& field : headers) {
        if (::strcasecmp(field.first.c_str(), name.c_str()) == 0) {
            return field.second;
        }
    }
    return "";
}

class HttpTestClient::Connection {
  public:
    explicit Connection(unsigned short port) : stream(io) {
        stream.connect(net::ip::tcp::endpoint(net::ip::make_address("127.0.0.1"), port));
    }
    net::io_context io;
    beast::tcp_stream stream;
    beast::flat_buffer buffer;
};

HttpTestClient::HttpTestClient(unsigned short port, std::chrono::milliseconds timeout)
    : port_(port), timeout_(timeout) {}

HttpTestClient::~HttpTestClient() = default;

HttpResponse HttpTestClient::request(const std::string& method, const std::string& target,
                                     const std::string& body, const HeaderList& headers) {
    HttpResponse result;
    try {
        if (!connection_) {
            connection_ = std::make_unique<Connection>(port_);
        }
        http::request<http::string_body> message;
        message.method_string(method);
        message.target(target);
        message.version(11);
        message.set(http::field::host, "127.0.0.1:" + std::to_string(port_));
        for (const auto& field : headers) {
            message.insert(field.first, field.second);
        }
        if (!body.empty() || method == "POST" || method == "PUT") {
            message.body() = body;
            message.prepare_payload();
        }

        Connection& connection = *connection_;
        beast::error_code error;
        http::response<http::string_body> response;
        http::response_parser<http::string_body> parser;
        parser.body_limit(64 * 1024 * 1024);
        connection.stream.expires_after(timeout_);
        http::async_write(
            connection.stream, message, [&](beast::error_code writeError, std::size_t) {
                if (writeError) {
                    error = writeError;
                    return;
                }
                http::async_read(
                    connection.stream, connection.buffer, parser,
                    [&](beast::error_code readError, std::size_t) { error = readError; });
            });
        connection.io.restart();
        connection.io.run();
        if (error) {
            connection_.reset();
            result.error = error.message();
            return result;
        }
        response = parser.release();
        result.status = int(response.result_int());
        result.reason = std::string(response.reason());
        for (const auto& field : response) {
            result.headers.emplace_back(std::string(field.name_string()),
                                        std::string(field.value()));
        }
        result.body = std::move(response.body());
        if (!response.keep_alive()) {
            connection_.reset();
        }
    } catch (const std::exception& exception) {
        connection_.reset();
        result.error = exception.what();
    }
    return result;
}

std::string HttpTestClient::rawExchange(unsigned short port, const std::string& bytes,
                                        std::chrono::milliseconds timeout) {
    Connection connection(port);
    std::string received;
    std::array<char, 4096> chunk{};
    std::function<void(beast::error_code, std::size_t)> onRead = [&](beast::error_code error,
                                                                     std::size_t count) {
        received.append(chunk.data(), count);
        if (!error) {
            connection.stream.async_read_some(net::buffer(chunk), onRead);
        }
    };
    connection.stream.expires_after(timeout);
    net::async_write(connection.stream, net::buffer(bytes),
                     [&](beast::error_code error, std::size_t) {
                         if (!error) {
                             connection.stream.async_read_some(net::buffer(chunk), onRead);
                         }
                     });
    connection.io.run();
    return received;
}

}  // namespace EmulatorTest
