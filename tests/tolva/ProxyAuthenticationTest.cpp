// The test proxy's Basic authentication: requests without the right Proxy-Authorization are
// answered 407 with a challenge and an HTML page, plain requests and CONNECT alike; with it
// they pass, and the field never reaches the origin.
#include "ForwardProxy.h"

#include <gtest/gtest.h>
#include <qxpemu/Emulator.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <vector>

namespace {

using TolvaTest::ForwardProxy;

constexpr char kKeySetPath[] = "/identity/.well-known/openid-configuration/jwks";
// base64("alice:s3cret") and base64("alice:wrong").
constexpr char kGoodCredentials[] = "Basic YWxpY2U6czNjcmV0";
constexpr char kWrongCredentials[] = "Basic YWxpY2U6d3Jvbmc=";

// A plain TCP connection to a loopback port; reads give up after 10 s.
class Socket {
  public:
    explicit Socket(unsigned short port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        timeval timeout{};
        timeout.tv_sec = 10;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Socket() { ::close(fd_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool connected() const { return connected_; }

    bool send(const std::string& text) {
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == ssize_t(text.size());
    }

    // One reply: the head through its empty line and a body of Content-Length bytes; an empty
    // head when none arrives.
    std::pair<std::string, std::string> readReply() {
        std::string head;
        for (auto end = buffer_.find("\r\n\r\n"); end == std::string::npos;
             end = buffer_.find("\r\n\r\n")) {
            if (!fill()) {
                return {};
            }
        }
        const auto end = buffer_.find("\r\n\r\n");
        head = buffer_.substr(0, end + 4);
        buffer_.erase(0, end + 4);
        const auto length = header(head, "Content-Length");
        const std::size_t size = length.empty() ? 0 : std::stoul(length);
        while (buffer_.size() < size && fill()) {
        }
        std::string body = buffer_.substr(0, size);
        buffer_.erase(0, body.size());
        return {head, body};
    }

    // Whether the peer closes the connection (rather than sending more or nothing).
    bool closedByPeer() {
        char data[256];
        return buffer_.empty() && ::recv(fd_, data, sizeof data, 0) == 0;
    }

    static std::string header(const std::string& head, const std::string& name) {
        std::string lower = head;
        for (auto& c : lower) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        std::string key = "\r\n" + name + ":";
        for (auto& c : key) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        const auto at = lower.find(key);
        if (at == std::string::npos) {
            return "";
        }
        const auto start = head.find_first_not_of(' ', at + key.size());
        return head.substr(start, head.find("\r\n", start) - start);
    }

  private:
    bool fill() {
        char data[4096];
        const ssize_t received = ::recv(fd_, data, sizeof data, 0);
        if (received <= 0) {
            return false;
        }
        buffer_.append(data, std::size_t(received));
        return true;
    }

    int fd_;
    bool connected_ = false;
    std::string buffer_;
};

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

class ProxyAuthenticationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        emulator_.start();
        proxy_.requireBasicAuthentication("alice", "s3cret", "Tolva test realm");
    }

    std::string authority() const { return "127.0.0.1:" + std::to_string(emulator_.port()); }

    // A GET of the key set through the proxy, with `extra` header lines.
    std::string keySetRequest(const std::string& extra) const {
        return "GET " + emulator_.baseUrl() + kKeySetPath + " HTTP/1.1\r\nHost: " + authority() +
               "\r\n" + extra + "\r\n";
    }

    static void expectChallenge(const std::pair<std::string, std::string>& reply) {
        const std::string& head = reply.first;
        EXPECT_TRUE(startsWith(head, "HTTP/1.1 407 Proxy Authentication Required\r\n")) << head;
        EXPECT_EQ(Socket::header(head, "Proxy-Authenticate"), "Basic realm=\"Tolva test realm\"");
        EXPECT_EQ(Socket::header(head, "Content-Type"), "text/html;charset=utf-8");
        EXPECT_EQ(reply.second, ForwardProxy::authenticationPage());
        EXPECT_GE(reply.second.size(), 3500u);
        EXPECT_LE(reply.second.size(), 5000u);
        EXPECT_TRUE(startsWith(reply.second, "<!DOCTYPE html>"));
    }

    qxpemu::Emulator emulator_;
    ForwardProxy proxy_;
};

TEST_F(ProxyAuthenticationTest, APlainRequestWithoutCredentialsIsChallenged) {
    Socket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    ASSERT_TRUE(socket.send(keySetRequest("")));
    const auto challenge = socket.readReply();
    expectChallenge(challenge);
    EXPECT_EQ(Socket::header(challenge.first, "Connection"), "keep-alive");
    EXPECT_TRUE(emulator_.requests().empty());
    EXPECT_EQ(proxy_.originConnectionCount(), 0u);
    EXPECT_EQ(proxy_.authenticationChallengeCount(), 1u);

    // The client answers the challenge on the same connection, as curl does.
    ASSERT_TRUE(socket.send(
        keySetRequest(std::string("Proxy-Authorization: ") + kGoodCredentials + "\r\n")));
    const auto passed = socket.readReply();
    EXPECT_TRUE(startsWith(passed.first, "HTTP/1.1 200 ")) << passed.first;
    EXPECT_NE(passed.second.find("\"keys\""), std::string::npos);

    const auto received = emulator_.requests();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].header("Proxy-Authorization"), "");
    EXPECT_EQ(proxy_.proxyAuthorizations(), std::vector<std::string>{kGoodCredentials});
    EXPECT_EQ(proxy_.authenticationChallengeCount(), 1u);
}

TEST_F(ProxyAuthenticationTest, WrongCredentialsAreChallengedAndRecorded) {
    Socket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    const std::vector<std::string> refused = {kWrongCredentials, "Bearer YWxpY2U6czNjcmV0", "Basic",
                                              "basic YWxpY2U6czNjcmV0X"};
    for (const auto& value : refused) {
        ASSERT_TRUE(socket.send(keySetRequest("Proxy-Authorization: " + value + "\r\n")));
        expectChallenge(socket.readReply());
    }
    // The scheme is compared in any case.
    ASSERT_TRUE(socket.send(keySetRequest("Proxy-Authorization: bASIC YWxpY2U6czNjcmV0\r\n")));
    EXPECT_TRUE(startsWith(socket.readReply().first, "HTTP/1.1 200 "));

    auto expected = refused;
    expected.push_back("bASIC YWxpY2U6czNjcmV0");
    EXPECT_EQ(proxy_.proxyAuthorizations(), expected);
    EXPECT_EQ(proxy_.authenticationChallengeCount(), refused.size());
    EXPECT_EQ(emulator_.requests().size(), 1u);
}

TEST_F(ProxyAuthenticationTest, ARequestBodyIsReadBeforeTheChallenge) {
    Socket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    const std::string body = "{\"id\":\"x\"}";
    ASSERT_TRUE(socket.send("POST " + emulator_.baseUrl() +
                            "/notifications/api/v1/notifications HTTP/1.1\r\nHost: " + authority() +
                            "\r\nContent-Type: application/json\r\nContent-Length: " +
                            std::to_string(body.size()) + "\r\n\r\n" + body));
    expectChallenge(socket.readReply());
    // The body did not spill into the next request on the connection.
    ASSERT_TRUE(socket.send(
        keySetRequest(std::string("Proxy-Authorization: ") + kGoodCredentials + "\r\n")));
    EXPECT_TRUE(startsWith(socket.readReply().first, "HTTP/1.1 200 "));
    const auto received = emulator_.requests();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].target, kKeySetPath);
}

TEST_F(ProxyAuthenticationTest, AClientThatClosesGetsTheChallengeAndTheClose) {
    Socket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    ASSERT_TRUE(socket.send(keySetRequest("Connection: close\r\n")));
    const auto challenge = socket.readReply();
    expectChallenge(challenge);
    EXPECT_EQ(Socket::header(challenge.first, "Connection"), "close");
    EXPECT_TRUE(socket.closedByPeer());
}

TEST_F(ProxyAuthenticationTest, ConnectWithoutCredentialsIsChallenged) {
    Socket socket(proxy_.port());
    ASSERT_TRUE(socket.connected());
    const std::string connect =
        "CONNECT " + authority() + " HTTP/1.1\r\nHost: " + authority() + "\r\n";
    ASSERT_TRUE(socket.send(connect + "\r\n"));
    expectChallenge(socket.readReply());
    EXPECT_EQ(proxy_.originConnectionCount(), 0u);

    ASSERT_TRUE(socket.send(connect + "Proxy-Authorization: " + kWrongCredentials + "\r\n\r\n"));
    expectChallenge(socket.readReply());

    ASSERT_TRUE(socket.send(connect + "Proxy-Authorization: " + kGoodCredentials + "\r\n\r\n"));
    EXPECT_EQ(socket.readReply().first, "HTTP/1.1 200 Connection established\r\n\r\n");
    EXPECT_EQ(proxy_.originConnectionCount(), 1u);
    // Through the tunnel, a request as to the emulator itself.
    ASSERT_TRUE(socket.send(std::string("GET ") + kKeySetPath +
                            " HTTP/1.1\r\nHost: " + authority() + "\r\n\r\n"));
    const auto reply = socket.readReply();
    EXPECT_TRUE(startsWith(reply.first, "HTTP/1.1 200 ")) << reply.first;
    EXPECT_NE(reply.second.find("\"keys\""), std::string::npos);

    EXPECT_EQ(proxy_.proxyAuthorizations(),
              (std::vector<std::string>{kWrongCredentials, kGoodCredentials}));
    EXPECT_EQ(proxy_.authenticationChallengeCount(), 2u);
    const std::vector<ForwardProxy::RequestLine> lines(3, {"CONNECT", authority()});
    EXPECT_EQ(proxy_.requestLines(), lines);
}

TEST(ProxyWithoutAuthentication, RecordsProxyAuthorizationAndStripsIt) {
    qxpemu::Emulator emulator;
    emulator.start();
    ForwardProxy proxy;
    Socket socket(proxy.port());
    ASSERT_TRUE(socket.connected());
    const std::string authority = "127.0.0.1:" + std::to_string(emulator.port());
    ASSERT_TRUE(socket.send("GET " + emulator.baseUrl() + kKeySetPath + " HTTP/1.1\r\nHost: " +
                            authority + "\r\nProxy-Authorization: Basic dXNlcjpwYXNz\r\n\r\n"));
    EXPECT_TRUE(startsWith(socket.readReply().first, "HTTP/1.1 200 "));
    ASSERT_TRUE(socket.send("GET " + emulator.baseUrl() + kKeySetPath +
                            " HTTP/1.1\r\nHost: " + authority + "\r\n\r\n"));
    EXPECT_TRUE(startsWith(socket.readReply().first, "HTTP/1.1 200 "));
    EXPECT_EQ(proxy.proxyAuthorizations(), std::vector<std::string>{"Basic dXNlcjpwYXNz"});
    EXPECT_EQ(proxy.authenticationChallengeCount(), 0u);
    const auto received = emulator.requests();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].header("Proxy-Authorization"), "");
}

}  // namespace
