// Requests through a real HTTP proxy named by "http_proxy": a tinyproxy on loopback between
// the library and the emulator.
#include "RestTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

extern char** environ;

namespace TolvaRestTest {
namespace {

using Varkel::Zu::widen;

constexpr const char* kTinyproxy = "/usr/bin/tinyproxy";
constexpr const char* kProxyName = "tolva-test-proxy";

unsigned short freeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof(address);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        return 0;
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

bool acceptsConnections(unsigned short port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool connected =
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return connected;
}

// A tinyproxy in the foreground on a free loopback port, stopped at destruction.
class Tinyproxy {
  public:
    Tinyproxy() {
        port_ = freeLoopbackPort();
        if (port_ == 0) {
            return;
        }
        config_ =
            std::filesystem::current_path() / ("tinyproxy-" + std::to_string(port_) + ".conf");
        std::ofstream(config_) << "Port " << port_ << "\n"
                               << "Listen 127.0.0.1\n"
                               << "Timeout 60\n"
                               << "Allow 127.0.0.1\n"
                               << "MaxClients 20\n"
                               << "LogLevel Error\n"
                               << "ViaProxyName \"" << kProxyName << "\"\n";
        const std::string configPath = config_.string();
        char* const argv[] = {const_cast<char*>(kTinyproxy), const_cast<char*>("-d"),
                              const_cast<char*>("-c"), const_cast<char*>(configPath.c_str()),
                              nullptr};
        if (::posix_spawn(&pid_, kTinyproxy, nullptr, nullptr, argv, environ) != 0) {
            pid_ = -1;
            return;
        }
        // Awaits the listening socket rather than sleeping a fixed time.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!acceptsConnections(port_) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    ~Tinyproxy() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            int status = 0;
            ::waitpid(pid_, &status, 0);
        }
        std::error_code ignored;
        std::filesystem::remove(config_, ignored);
    }

    Tinyproxy(const Tinyproxy&) = delete;
    Tinyproxy& operator=(const Tinyproxy&) = delete;

    bool running() const { return pid_ > 0 && acceptsConnections(port_); }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  private:
    unsigned short port_ = 0;
    pid_t pid_ = -1;
    std::filesystem::path config_;
};

using ProxyTest = RestTest;

TEST_F(ProxyTest, RequestsGoThroughTheProxyNamedByHttpProxy) {
    if (::access(kTinyproxy, X_OK) != 0) {
        GTEST_SKIP() << "tinyproxy is not installed";
    }
    const Tinyproxy proxy;
    ASSERT_TRUE(proxy.running());
    const ScopedEnv viaProxy("http_proxy", proxy.url());

    const auto api = makeApi();
    ASSERT_FALSE(api->getCurrentToken().accessToken.empty());
    // tinyproxy closes its client connection after every exchange without announcing it
    // ("Connection: close"), while the HTTP library keeps the connection in its pool; a POST
    // body written to that stale connection fails. A fresh client starts a fresh connection.
    api->createClient();
    api->postNotification(L"through/proxy", L"c", 0);

    // Token, key set and notification all passed the proxy, which names itself in "Via".
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].target, kTokenPath);
    EXPECT_EQ(requests[1].target, kKeySetPath);
    EXPECT_EQ(requests[2].target, kNotificationsPath);
    for (const auto& request : requests) {
        EXPECT_NE(request.header("Via").find(kProxyName), std::string::npos)
            << request.target << " Via: " << request.header("Via");
    }
    // The proxy passes the library's headers on unchanged.
    EXPECT_EQ(requests[0].header("Authorization"), "Basic " + emulator_.apiKey());
    EXPECT_EQ(requests[2].header("User-Agent"), "Tolva");
}

TEST_F(ProxyTest, WithoutHttpProxyRequestsGoDirect) {
    const auto api = makeApi();
    const auto requests = emulator_.requests();
    ASSERT_FALSE(requests.empty());
    for (const auto& request : requests) {
        EXPECT_EQ(request.header("Via"), "");
    }
}

TEST_F(ProxyTest, AnUnreachableProxyFailsTheRequests) {
    const ScopedEnv deadProxy("http_proxy", std::string("http://127.0.0.1:9"));
    const auto api = makeApi();
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    EXPECT_THROW(api->postNotification(L"t", L"c", 0), std::exception);
    EXPECT_TRUE(emulator_.requests().empty());
}

}  // namespace
}  // namespace TolvaRestTest
