#include "HttpServer.h"

#include <stdexcept>

#include <boost/asio/strand.hpp>

#include "HttpSession.h"

namespace qxpemu {

namespace net = boost::asio;

namespace {
constexpr std::chrono::seconds kSweepPeriod(1);
constexpr std::chrono::milliseconds kAcceptRetryDelay(50);
}  // namespace

HttpServer::HttpServer(EmulatorCore& core, boost::asio::ssl::context* tls)
    : core_(core), tls_(tls), acceptor_(io_), sweepTimer_(io_), acceptRetryTimer_(io_) {}

HttpServer::~HttpServer() {
    stop();
}

void HttpServer::start(const std::string& address, unsigned short port, unsigned threads) {
    try {
        const net::ip::tcp::endpoint endpoint(net::ip::make_address(address), port);
        acceptor_.open(endpoint.protocol());
        acceptor_.set_option(net::socket_base::reuse_address(true));
        acceptor_.bind(endpoint);
        acceptor_.listen(net::socket_base::max_listen_connections);
        port_ = acceptor_.local_endpoint().port();
    } catch (const boost::system::system_error& error) {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
        throw std::runtime_error("cannot listen on " + address + ":" + std::to_string(port) + ": " +
                                 error.code().message());
    }
    accept();
    scheduleSweep();
    for (unsigned i = 0; i < threads; ++i) {
        threads_.emplace_back([this] { io_.run(); });
    }
}

void HttpServer::stop() {
    if (threads_.empty()) {
        return;
    }
    io_.stop();
    for (auto& thread : threads_) {
        thread.join();
    }
    threads_.clear();
    // Parked polls own their sessions; let them go while the io_context still exists, so
    // every socket is closed before the context that it belongs to is destroyed.
    core_.hub.abandonWaiters();
    boost::system::error_code ignored;
    acceptor_.close(ignored);
}

void HttpServer::accept() {
    acceptor_.async_accept(net::make_strand(io_), [this](boost::system::error_code error,
                                                         net::ip::tcp::socket socket) {
        if (error == net::error::operation_aborted || !acceptor_.is_open()) {
            return;
        }
        if (error) {
            // Typically out of file descriptors: back off instead of spinning.
            acceptRetryTimer_.expires_after(kAcceptRetryDelay);
            acceptRetryTimer_.async_wait([this](boost::system::error_code waitError) {
                if (!waitError) {
                    accept();
                }
            });
            return;
        }
        socket.set_option(net::ip::tcp::no_delay(true), error);
        if (tls_ != nullptr) {
            std::make_shared<HttpSession<TlsStream>>(core_, std::move(socket), *tls_)->run();
        } else {
            std::make_shared<HttpSession<PlainStream>>(core_, std::move(socket))->run();
        }
        accept();
    });
}

void HttpServer::scheduleSweep() {
    sweepTimer_.expires_after(kSweepPeriod);
    sweepTimer_.async_wait([this](boost::system::error_code error) {
        if (error) {
            return;
        }
        core_.hub.sweep();
        scheduleSweep();
    });
}

}  // namespace qxpemu
