// The HTTP transport: an acceptor and a pool of I/O threads on one io_context. Every
// connection is an asynchronous HttpSession; no thread is tied to a connection.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "EmulatorCore.h"

namespace qxpemu {

class HttpServer {
  public:
    // Serves plain HTTP, or HTTPS with tls when it is given; tls must outlive the server.
    explicit HttpServer(EmulatorCore& core, boost::asio::ssl::context* tls = nullptr);
    ~HttpServer();

    // Binds and starts the threads; throws std::runtime_error when binding fails.
    void start(const std::string& address, unsigned short port, unsigned threads);
    // Stops accepting, cuts every connection and joins the threads.
    void stop();
    unsigned short port() const { return port_; }

  private:
    void accept();
    void scheduleSweep();

    EmulatorCore& core_;
    boost::asio::ssl::context* tls_;
    boost::asio::io_context io_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer sweepTimer_;
    boost::asio::steady_timer acceptRetryTimer_;
    std::vector<std::thread> threads_;
    unsigned short port_ = 0;
};

}  // namespace qxpemu
