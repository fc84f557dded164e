// The qxp-emulator binary: prints its URL and a usable configuration, serves, and stops
// cleanly on Ctrl-C (SIGINT).
#ifdef QXP_EMULATOR_BINARY

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/version.hpp>

#include <nlohmann/json.hpp>

#include <fstream>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "HttpTestClient.h"

namespace EmulatorTest {
namespace {

class RunningBinary {
  public:
    explicit RunningBinary(std::vector<std::string> arguments) {
        int out[2];
        if (pipe(out) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(QXP_EMULATOR_BINARY));
            for (auto& argument : arguments) {
                argv.push_back(argument.data());
            }
            argv.push_back(nullptr);
            execv(QXP_EMULATOR_BINARY, argv.data());
            _exit(127);
        }
        close(out[1]);
        outFd_ = out[0];
    }
    ~RunningBinary() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (outFd_ >= 0) {
            close(outFd_);
        }
    }
    // Reads output until it contains `marker` or the deadline passes.
    std::string readUntil(const std::string& marker, std::chrono::seconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (output_.find(marker) == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            pollfd ready{outFd_, POLLIN, 0};
            if (::poll(&ready, 1, 100) <= 0) {
                continue;
            }
            char chunk[4096];
            const ssize_t count = read(outFd_, chunk, sizeof chunk);
            if (count <= 0) {
                break;
            }
            output_.append(chunk, std::size_t(count));
        }
        return output_;
    }
    // Sends `signal` and returns the exit status, -1 when it did not exit normally.
    int stopWith(int signal) {
        kill(pid_, signal);
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_ = -1;
    int outFd_ = -1;
    bool reaped_ = false;
    std::string output_;
};

TEST(CommandLineTest, PrintsAConfigurationThatWorksAndStopsOnCtrlC) {
    RunningBinary binary({"--port", "0", "--max-poll", "1", "--token-lifetime", "120"});
    const std::string output = binary.readUntil("Press Ctrl-C", std::chrono::seconds(30));
    const auto configStart = output.find("QX_PLATFORM_CONFIG='");
    ASSERT_NE(std::string::npos, configStart) << output;
    const auto valueStart = configStart + std::string("QX_PLATFORM_CONFIG='").size();
    const auto config = nlohmann::json::parse(
        output.substr(valueStart, output.find('\'', valueStart) - valueStart));
    const std::string url = config["url"];
    const std::string apiKey = config["logging"]["credentials"];
    EXPECT_GT(apiKey.size(), 100u);
    EXPECT_NE(std::string::npos, output.find("listening on " + url));
    const unsigned short port =
        static_cast<unsigned short>(std::stoi(url.substr(url.rfind(':') + 1)));

    HttpTestClient client(port);
    const auto token = client.request("POST", "/identity/connect/token",
                                      "grant_type=client_credentials&scope=platform+cluster",
                                      {{"Authorization", "Basic " + apiKey},
                                       {"Content-Type", "application/x-www-form-urlencoded"}});
    ASSERT_EQ(200, token.status) << token.body;
    EXPECT_EQ(120, nlohmann::json::parse(token.body)["expires_in"]);
    EXPECT_EQ(
        1, nlohmann::json::parse(client.request("GET", "/_emulator/state").body)["maxPollSeconds"]);

    EXPECT_EQ(0, binary.stopWith(SIGINT));
}

TEST(CommandLineTest, ConnectionOptionsSetThePolicy) {
    RunningBinary binary({"--port", "0", "--idle-close-ms", "300", "--max-requests-per-connection",
                          "4", "--close-unannounced"});
    const std::string output = binary.readUntil("Press Ctrl-C", std::chrono::seconds(30));
    const std::string marker = "listening on http://127.0.0.1:";
    const auto at = output.find(marker);
    ASSERT_NE(std::string::npos, at) << output;
    const auto port = static_cast<unsigned short>(std::stoi(output.substr(at + marker.size())));

    HttpTestClient client(port);
    const auto connections =
        nlohmann::json::parse(client.request("GET", "/_emulator/connections").body);
    EXPECT_EQ(300, connections["idleCloseMs"]);
    EXPECT_EQ(4, connections["maxRequestsPerConnection"]);
    EXPECT_EQ(false, connections["announceClose"]);
    EXPECT_EQ(1, connections["accepted"]);
    EXPECT_EQ(0, binary.stopWith(SIGINT));
}

// One HTTPS request to 127.0.0.1:port trusting only caFile, with host-name checking.
// Returns the status and body; throws boost::system::system_error when TLS fails.
std::pair<unsigned, std::string> httpsRequest(unsigned short port, const std::string& caFile,
                                              const std::string& method, const std::string& target,
                                              const std::string& body = "") {
    namespace net = boost::asio;
    namespace http = boost::beast::http;
    net::io_context io;
    net::ssl::context context(net::ssl::context::tls_client);
    context.load_verify_file(caFile);
    context.set_verify_mode(net::ssl::verify_peer);
    boost::beast::ssl_stream<boost::beast::tcp_stream> stream(io, context);
    stream.set_verify_callback(net::ssl::host_name_verification("127.0.0.1"));
    stream.next_layer().connect(net::ip::tcp::endpoint(net::ip::make_address("127.0.0.1"), port));
    stream.handshake(net::ssl::stream_base::client);
    http::request<http::string_body> request(http::string_to_verb(method), target, 11);
    request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
    request.body() = body;
    request.prepare_payload();
    http::write(stream, request);
    boost::beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(stream, buffer, response);
    return {response.result_int(), response.body()};
}

TEST(CommandLineTest, WithTlsItServesHttpsAndPrintsTheCaFile) {
    RunningBinary binary({"--port", "0", "--tls"});
    const std::string output = binary.readUntil("Press Ctrl-C", std::chrono::seconds(30));
    const auto listening = output.find("listening on https://127.0.0.1:");
    ASSERT_NE(std::string::npos, listening) << output;
    const auto caLine = output.find("\nCA certificate: ");
    ASSERT_NE(std::string::npos, caLine) << output;
    const auto pathStart = caLine + std::string("\nCA certificate: ").size();
    const std::string caFile = output.substr(pathStart, output.find('\n', pathStart) - pathStart);
    std::ifstream ca(caFile);
    std::string firstLine;
    std::getline(ca, firstLine);
    EXPECT_EQ("-----BEGIN CERTIFICATE-----", firstLine);
    EXPECT_NE(std::string::npos, output.find("QX_PLATFORM_CONFIG='{\"url\":\"https://127.0.0.1:"))
        << output;
    EXPECT_NE(std::string::npos, output.find("Dashboard: https://127.0.0.1:")) << output;
    const std::string portText = output.substr(listening + 31);
    const auto port = static_cast<unsigned short>(std::stoi(portText));

    // Platform, control interface and dashboard, all over TLS.
    const auto keySet =
        httpsRequest(port, caFile, "GET", "/identity/.well-known/openid-configuration/jwks");
    EXPECT_EQ(200u, keySet.first);
    EXPECT_TRUE(nlohmann::json::parse(keySet.second).contains("keys"));
    const auto state = httpsRequest(port, caFile, "GET", "/_emulator/state");
    EXPECT_EQ(200u, state.first);
    EXPECT_EQ(30, nlohmann::json::parse(state.second)["maxPollSeconds"]);
    const auto dashboard = httpsRequest(port, caFile, "GET", "/");
    EXPECT_EQ(200u, dashboard.first);
    EXPECT_NE(std::string::npos, dashboard.second.find("<html")) << dashboard.second.substr(0, 200);

    // Plain HTTP on the TLS port gets no answer.
    HttpTestClient plain(port, std::chrono::seconds(5));
    EXPECT_EQ(0, plain.request("GET", "/_emulator/state").status);

    EXPECT_EQ(0, binary.stopWith(SIGINT));
    EXPECT_FALSE(std::ifstream(caFile).good()) << "the CA file outlived the emulator";
}

TEST(CommandLineTest, ACertificateFileThatCannotBeReadIsReported) {
    RunningBinary keyless({"--port", "0", "--tls", "--tls-cert", "/nonexistent/cert.pem",
                           "--tls-key", "/nonexistent/key.pem"});
    // The whole line, not only its start: it may come in more than one read.
    const std::string expected =
        "qxp-emulator: cannot read the TLS certificate file /nonexistent/cert.pem\n";
    const std::string output = keyless.readUntil(expected, std::chrono::seconds(30));
    EXPECT_NE(std::string::npos, output.find(expected)) << output;
    EXPECT_EQ(1, keyless.stopWith(0));
}

TEST(CommandLineTest, RejectsUnknownOptionsAndBadValues) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--frobnicate", "1"},
                                                      {"--port", "70000"},
                                                      {"--client", "no-colons"},
                                                      {"--max-poll"},
                                                      {"--tls-cert", "cert.pem"},
                                                      {"--tls", "--tls-cert", "cert.pem"},
                                                      {"--tls", "--tls-name"},
                                                      {"--idle-close-ms", "-1"},
                                                      {"--idle-close-ms"},
                                                      {"--max-requests-per-connection", "x"}}) {
        RunningBinary binary(arguments);
        const std::string output = binary.readUntil("Usage:", std::chrono::seconds(30));
        EXPECT_NE(std::string::npos, output.find("qxp-emulator: ")) << output;
        EXPECT_EQ(2, binary.stopWith(0));
    }
}

}  // namespace
}  // namespace EmulatorTest

#endif
