// ForwardProxy: a small forward HTTP proxy that a test runs inside its own process, on a free
// loopback port, so that requests "through a proxy" need no proxy daemon on the machine.
//
// It takes requests in absolute form ("GET http://host:port/path HTTP/1.1"), keeps each client
// connection alive across requests (HTTP/1.1), and passes every request on to its origin in
// origin form ("GET /path HTTP/1.1") with the header fields unchanged and in order, except the
// proxy's own hop-by-hop fields Proxy-Connection and Proxy-Authorization, and with a
// "Via: 1.1 <name>" field added last. Request bodies are passed on by Content-Length (or
// chunked); responses are relayed as received, with their bodies delimited by Content-Length,
// chunked coding, the status (204, 304, 1xx) or the method (HEAD), or the origin's close.
// A client connection keeps one connection to its origin while the origin allows it.
// "CONNECT host:port" opens a tunnel: "200 Connection established", then bytes both ways
// until either side closes. An origin that cannot be reached gets the client a 502.
//
// With requireBasicAuthentication() it wants "Proxy-Authorization: Basic base64(user:password)"
// on every request, CONNECT included, as a corporate proxy does: a request without it or with
// other credentials is answered "407 Proxy Authentication Required" with
// "Proxy-Authenticate: Basic realm=..." and an HTML error page of about 4 KB (the body of a
// plain request is read first), and the client connection stays open for the next request
// unless the client asked to close it. The field is never passed on to the origin.
//
// Every client connection is served by a thread of its own. The destructor stops accepting,
// ends every connection (tunnels too) and joins every thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace TolvaTest {

class ForwardProxy {
  public:
    // A request line as the proxy received it: "GET" and "http://127.0.0.1:8090/path", or
    // "CONNECT" and "127.0.0.1:8090".
    struct RequestLine {
        std::string method;
        std::string target;

        bool operator==(const RequestLine& other) const {
            return method == other.method && target == other.target;
        }
        bool operator!=(const RequestLine& other) const { return !(*this == other); }
    };

    // Listens on 127.0.0.1 on a free port and starts accepting connections; `name` is what the
    // proxy calls itself in the Via field. Throws std::runtime_error when it cannot listen.
    explicit ForwardProxy(std::string name = "tolva-test-proxy");

    // Closes the listening socket, ends every client and origin connection and joins every
    // thread of the proxy.
    ~ForwardProxy();

    ForwardProxy(const ForwardProxy&) = delete;
    ForwardProxy& operator=(const ForwardProxy&) = delete;

    unsigned short port() const { return port_; }

    // "http://127.0.0.1:<port>", a value for "http_proxy".
    std::string url() const;

    const std::string& name() const { return name_; }

    // Every request line received so far (CONNECT ones included), oldest first. Any thread.
    std::vector<RequestLine> requestLines() const;

    // Connections opened to origins so far (for forwarded requests and tunnels). Any thread.
    std::size_t originConnectionCount() const;

    // From now on, requests must carry "Proxy-Authorization: Basic base64(user + ":" +
    // password)" (the scheme in any case); others get a 407 challenge naming `realm`. Any
    // thread.
    void requireBasicAuthentication(const std::string& user, const std::string& password,
                                    const std::string& realm = "tolva-test-proxy");

    // The value of the Proxy-Authorization field of every request that had one (CONNECT
    // included), oldest first, whether or not authentication is required. Any thread.
    std::vector<std::string> proxyAuthorizations() const;

    // How many requests were answered 407. Any thread.
    std::size_t authenticationChallengeCount() const;

    // The HTML page a 407 answer carries (about 4 KB).
    static const std::string& authenticationPage();

  private:
    struct Connection {
        std::thread thread;
        std::atomic<bool> finished{false};
    };

    void acceptLoop();
    void serve(int clientFd);
    void reapFinishedConnections();
    void closeDescriptors();

    const std::string name_;
    int listenFd_ = -1;
    // Written once by the destructor; every wait of every thread of the proxy also watches
    // the reading end, which then stays readable.
    int stopPipe_[2] = {-1, -1};
    unsigned short port_ = 0;
    std::thread acceptor_;
    // Touched by the acceptor thread only, and by the destructor once that thread ended.
    std::list<std::unique_ptr<Connection>> connections_;

    mutable std::mutex mutex_;
    std::vector<RequestLine> requestLines_;
    std::size_t originConnections_ = 0;
    // Empty while no credentials are required; else "Basic" credentials expected and realm.
    std::string expectedCredentials_;
    std::string realm_;
    std::vector<std::string> proxyAuthorizations_;
    std::size_t challenges_ = 0;
};

}  // namespace TolvaTest
