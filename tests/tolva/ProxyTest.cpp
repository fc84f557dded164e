// Requests through a forward HTTP proxy named by "http_proxy": a ForwardProxy on loopback, in
// the test process, between the library and the emulator.
#include "RestTestSupport.h"

#include "ForwardProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>

namespace TolvaRestTest {
namespace {

using TolvaTest::ForwardProxy;

constexpr const char* kProxyName = "tolva-test-proxy";

// A plain TCP connection from the test to a loopback port. Reads time out after 10 s, so that
// a missing reply fails the test rather than hanging it.
class LoopbackSocket {
  public:
    explicit LoopbackSocket(unsigned short port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        if (fd_ < 0) {
            return;
        }
        timeval timeout{};
        timeout.tv_sec = 10;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~LoopbackSocket() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    bool connected() const { return connected_; }

    bool send(const std::string& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t sent = ::send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(sent);
        }
        return true;
    }

    // The next reply head through its empty line; empty when none arrives.
    std::string readHead() {
        for (;;) {
            const auto end = buffer_.find("\r\n\r\n");
            if (end != std::string::npos) {
                const std::string head = buffer_.substr(0, end + 4);
                buffer_.erase(0, end + 4);
                return head;
            }
            if (!fill()) {
                return {};
            }
        }
    }

    // The next `size` bytes; fewer when the connection ends or the read times out.
    std::string readBytes(std::size_t size) {
        while (buffer_.size() < size && fill()) {
        }
        const std::string bytes = buffer_.substr(0, size);
        buffer_.erase(0, bytes.size());
        return bytes;
    }

  private:
    bool fill() {
        char data[4096];
        const ssize_t received = ::recv(fd_, data, sizeof data, 0);
        if (received <= 0) {
            return false;
        }
        buffer_.append(data, static_cast<std::size_t>(received));
        return true;
    }

    int fd_;
    bool connected_ = false;
    std::string buffer_;
};

struct Reply {
    std::string head;
    std::string body;
};

// Reads one reply whose body is delimited by Content-Length (or that has none).
Reply readReply(LoopbackSocket& socket) {
    Reply reply;
    reply.head = socket.readHead();
    std::string lower = reply.head;
    for (auto& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    const std::string name = "\r\ncontent-length:";
    const auto at = lower.find(name);
    if (at != std::string::npos) {
        reply.body = socket.readBytes(std::stoul(reply.head.substr(at + name.size())));
    }
    return reply;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

class ProxyTest : public RestTest {
  protected:
    std::string emulatorAuthority() const {
        return "127.0.0.1:" + std::to_string(emulator_.port());
    }

    ForwardProxy proxy_{kProxyName};
};

TEST_F(ProxyTest, RequestsGoThroughTheProxyNamedByHttpProxy) {
    const ScopedEnv viaProxy("http_proxy", proxy_.url());

    const auto api = makeApi();
    ASSERT_FALSE(api->getCurrentToken().accessToken.empty());
    // The proxy keeps the library's connection open across requests, so the post goes out
    // without a fresh client (how many connections the HTTP library opens is its own business;
    // the proxy's keep-alive is checked on a raw connection below).
    api->postNotification(L"through/proxy", L"c", 0);
    EXPECT_GE(proxy_.originConnectionCount(), 1u);

    // Token, key set and notification all passed the proxy, which names itself in "Via".
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].target, kTokenPath);
    EXPECT_EQ(requests[1].target, kKeySetPath);
    EXPECT_EQ(requests[2].target, kNotificationsPath);
    for (const auto& request : requests) {
        EXPECT_EQ(request.header("Via"), std::string("1.1 ") + kProxyName) << request.target;
    }
    // The proxy passes the library's headers and the body on unchanged.
    EXPECT_EQ(requests[0].header("Authorization"), "Basic " + emulator_.apiKey());
    EXPECT_EQ(requests[2].header("Authorization"),
              "Bearer " + Varkel::Zu::narrow(api->getCurrentToken().accessToken));
    EXPECT_EQ(requests[2].header("User-Agent"), "Tolva");
    EXPECT_NE(requests[2].body.find("\"topic\":\"through/proxy\""), std::string::npos)
        << requests[2].body;
}

TEST_F(ProxyTest, TheProxyHandledExactlyTheRequestsTheEmulatorReceived) {
    const ScopedEnv viaProxy("http_proxy", proxy_.url());

    const auto api = makeApi();
    api->postNotification(L"through/proxy", L"c", 0);

    // The library sends absolute targets to the proxy, which passes each on in origin form.
    const auto received = emulator_.requests();
    const auto handled = proxy_.requestLines();
    ASSERT_EQ(handled.size(), received.size());
    ASSERT_FALSE(handled.empty());
    for (std::size_t i = 0; i < handled.size(); ++i) {
        EXPECT_EQ(handled[i].method, received[i].method) << i;
        EXPECT_EQ(handled[i].target, emulator_.baseUrl() + received[i].target) << i;
    }
}

TEST_F(ProxyTest, WithoutHttpProxyRequestsGoDirect) {
    const auto api = makeApi();
    const auto requests = emulator_.requests();
    ASSERT_FALSE(requests.empty());
    for (const auto& request : requests) {
        EXPECT_EQ(request.header("Via"), "");
    }
    EXPECT_TRUE(proxy_.requestLines().empty());
}

TEST_F(ProxyTest, AnUnreachableProxyFailsTheRequests) {
    const ScopedEnv deadProxy("http_proxy", Varkel::Zu::narrow(unreachableUrl()));
    const auto api = makeApi();
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    // The emulator itself is reachable, so the connection that failed is the one to the proxy;
    // the HTTP library's text does not tell a proxy from an origin.
    try {
        api->postNotification(L"t", L"c", 0);
        ADD_FAILURE() << "postNotification succeeded";
    } catch (const web::http::http_exception&) {
        ADD_FAILURE() << "the HTTP library's exception leaked out";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Failed to connect to any resolved endpoint");
    }
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(ProxyTest, OneClientConnectionCarriesSeveralRequestsOverOneOriginConnection) {
    LoopbackSocket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    std::string request = "GET " + emulator_.baseUrl() + kKeySetPath + " HTTP/1.1\r\n";
    request += "Host: " + emulatorAuthority() + "\r\n";
    request += "X-First: 1\r\nProxy-Connection: keep-alive\r\nX-Second: 2\r\n";
    request += "Proxy-Authorization: Basic dXNlcjpwYXNz\r\nX-Third: 3\r\n\r\n";
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(socket.send(request)) << round;
        const Reply reply = readReply(socket);
        EXPECT_TRUE(startsWith(reply.head, "HTTP/1.1 200 ")) << round << ": " << reply.head;
        EXPECT_NE(reply.body.find("\"keys\""), std::string::npos) << round << ": " << reply.body;
    }

    EXPECT_EQ(proxy_.originConnectionCount(), 1u);
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const auto& received : requests) {
        EXPECT_EQ(received.method, "GET");
        EXPECT_EQ(received.target, kKeySetPath);
        // The proxy's own fields are gone; the others arrive unchanged and in order, "Via"
        // last.
        const std::vector<std::pair<std::string, std::string>> expected = {
            {"Host", emulatorAuthority()},
            {"X-First", "1"},
            {"X-Second", "2"},
            {"X-Third", "3"},
            {"Via", std::string("1.1 ") + kProxyName}};
        EXPECT_EQ(received.headers, expected);
    }
}

TEST_F(ProxyTest, ConnectOpensATunnelToTheEmulator) {
    LoopbackSocket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    const std::string host = "Host: " + emulatorAuthority() + "\r\n";
    ASSERT_TRUE(socket.send("CONNECT " + emulatorAuthority() + " HTTP/1.1\r\n" + host + "\r\n"));
    EXPECT_EQ(socket.readHead(), "HTTP/1.1 200 Connection established\r\n\r\n");

    // Through the tunnel, a request as to the emulator itself.
    ASSERT_TRUE(socket.send(std::string("GET ") + kKeySetPath + " HTTP/1.1\r\n" + host + "\r\n"));
    const Reply reply = readReply(socket);
    EXPECT_TRUE(startsWith(reply.head, "HTTP/1.1 200 ")) << reply.head;
    EXPECT_NE(reply.body.find("\"keys\""), std::string::npos) << reply.body;

    const std::vector<ForwardProxy::RequestLine> expectedLines = {{"CONNECT", emulatorAuthority()}};
    EXPECT_EQ(proxy_.requestLines(), expectedLines);
    // The tunnel passes the bytes untouched: no "Via" added.
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].target, kKeySetPath);
    EXPECT_EQ(requests[0].header("Via"), "");
}

TEST_F(ProxyTest, ConnectToAnUnreachablePortAnswersBadGateway) {
    LoopbackSocket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    ASSERT_TRUE(socket.send("CONNECT 127.0.0.1:9 HTTP/1.1\r\nHost: 127.0.0.1:9\r\n\r\n"));
    const Reply reply = readReply(socket);
    EXPECT_TRUE(startsWith(reply.head, "HTTP/1.1 502 ")) << reply.head;
    EXPECT_EQ(proxy_.originConnectionCount(), 0u);
}

}  // namespace
}  // namespace TolvaRestTest
