// The tool against an emulator that serves HTTPS: every command with --ca-file (or
// TOLVA_CA_FILE), the one-line failures for a certificate that is not trusted or names
// another host, a CA file that cannot be used, and the demo with --tls.
#include "ToolTestSupport.h"

#include <cpprest/json.h>

#include <fstream>

namespace TolvaTest {
namespace {

qxpemu::EmulatorOptions tlsOptions(std::vector<std::string> names = {"localhost", "127.0.0.1"}) {
    qxpemu::EmulatorOptions options = ToolTest::options();
    options.tls = true;
    options.tlsNames = std::move(names);
    return options;
}

class ToolTls : public ToolTest {
  protected:
    ToolTls() : ToolTest(tlsOptions()) {}
    explicit ToolTls(qxpemu::EmulatorOptions emulatorOptions)
        : ToolTest(std::move(emulatorOptions)) {}

    std::vector<std::string> trusting(std::vector<std::string> arguments) const {
        arguments = against(std::move(arguments));
        arguments.insert(arguments.end(), {"--ca-file", emulator_.caCertificateFile()});
        return arguments;
    }

    std::string authority() const { return "127.0.0.1:" + std::to_string(emulator_.port()); }
};

// The served certificate names only 127.0.0.1.
class ToolTlsAddressOnly : public ToolTls {
  protected:
    ToolTlsAddressOnly() : ToolTls(tlsOptions({"127.0.0.1"})) {}
};

TEST_F(ToolTls, TokenTrustsTheCaFileItIsGiven) {
    const auto run = runTool(trusting({"token"}));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("platform      " + emulator_.baseUrl() + "\n"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("verification  Verified\n"), std::string::npos) << run.out;
    EXPECT_EQ(requestsTo("POST", "/identity/connect/token").size(), 1u);
    EXPECT_EQ(requestsTo("GET", "/identity/.well-known/openid-configuration/jwks").size(), 1u);
}

TEST_F(ToolTls, TheEnvironmentVariableNamesTheCaFileToo) {
    const auto run =
        runTool(against({"token"}), {{"TOLVA_CA_FILE", emulator_.caCertificateFile()}});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("verification  Verified\n"), std::string::npos) << run.out;
}

TEST_F(ToolTls, AnUntrustedCertificateIsAOneLineFailureAndNothingIsSent) {
    const auto run = runTool(against({"token"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "tolva token: no access token from " + emulator_.baseUrl() +
                           ": Get token failed TLS handshake with " + authority() +
                           " failed: the server's certificate is not trusted (unable to get "
                           "local issuer certificate)\n");
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(ToolTlsAddressOnly, ACertificateForAnotherHostIsAOneLineFailure) {
    const std::string url = "https://localhost:" + std::to_string(emulator_.port());
    const auto run = runTool({"token", "--url", url, "--credentials", emulator_.apiKey(),
                              "--ca-file", emulator_.caCertificateFile()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "tolva token: no access token from " + url +
                           ": Get token failed TLS handshake with localhost:" +
                           std::to_string(emulator_.port()) +
                           " failed: the server's certificate is not valid for the host name "
                           "localhost\n");
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(ToolTls, ACaFileThatCannotBeUsedIsAUsageError) {
    std::ofstream("empty.pem").flush();
    for (const std::string& path : {std::string("empty.pem"), std::string("/nonexistent.pem")}) {
        const auto run = runTool(against({"post", "a.b", "c", "--ca-file", path}));
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err.rfind("tolva post: cannot use the CA file " + path +
                                    ": it cannot be read or holds no PEM certificate\n",
                                0),
                  0u)
            << run.err;
    }
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(ToolTls, PostListenRequestRegisterAndVerifyOverHttps) {
    ToolProcess listener(trusting({"listen", "tls.events", "--count", "1"}));
    // Every new TLS connection loads the system's CA bundle, which takes a good part of a
    // second under the sanitizers: waits here allow a minute.
    ASSERT_TRUE(listener.waitForError("listening on mailbox", std::chrono::seconds(60)))
        << listener.err();
    ASSERT_EQ(runTool(trusting({"post", "tls.events", "over https"})).status, 0);
    ASSERT_EQ(listener.wait(), 0) << listener.err();
    EXPECT_EQ(listener.out(), "tls.events: over https\n");

    // The answer comes from another tool process, which opens its own TLS connections (token,
    // key set, post), so the request waits up to a minute rather than its default 10 s.
    ToolProcess requester(trusting(
        {"request", "tls.questions", "ping", "--reply-topic", "tls.answers", "--timeout", "60"}));
    ASSERT_TRUE(waitForRequestsTo("POST", "/notifications/api/v1/notifications", 2));
    ASSERT_EQ(runTool(trusting({"post", "tls.answers", "pong"})).status, 0);
    EXPECT_EQ(requester.wait(), 0) << requester.err();
    EXPECT_EQ(requester.out(), "pong\n");

    const auto registered =
        runTool(trusting({"register", "--type", "t", "--instance", "i", "--address", "127.0.0.1",
                          "--port", "1", "--path-rule", "/t/", "--duration", "1", "--json"}));
    ASSERT_EQ(registered.status, 0) << registered.err;
    EXPECT_EQ(requestsTo("POST", "/discovery/api/v1/service").size(), 1u);
    EXPECT_EQ(requestsTo("DELETE", "/discovery/api/v1/service/").size(), 1u);

    const auto verified =
        runTool(trusting({"verify", emulator_.issueToken("tolva-cli"), "--from-platform"}));
    ASSERT_EQ(verified.status, 0) << verified.err;
    EXPECT_EQ(verified.out.rfind("result  Verified\n", 0), 0u) << verified.out;
}

TEST(ToolDemoTls, TheTourPassesOverHttps) {
    const auto run = runTool({"demo", "--tls"});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("    listening on https://127.0.0.1:"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("    trusting the CA certificate in "), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("got \"pong: ping\" on demo.replies"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("All 10 steps passed in "), std::string::npos) << run.out;
}

}  // namespace
}  // namespace TolvaTest
