// The connection policy: idle keep-alive connections closed after a while, connections closed
// after a number of requests, as a reverse proxy in front of the platform does it; and the
// connection counts that show when a client had to open a new connection.
#include "EmulatorFixture.h"
#include "RawConnection.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

namespace EmulatorTest {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const std::string kKeySetRequest =
    "GET /identity/.well-known/openid-configuration/jwks HTTP/1.1\r\nHost: x\r\n\r\n";

class ConnectionPolicyTest : public EmulatorFixture {
  protected:
    void restartWith(const qxpemu::ConnectionPolicy& policy) {
        auto options = defaultOptions();
        options.connections = policy;
        restart(options);
    }

    qxpemu::ConnectionCounts counts() const { return emulator->connectionCounts(); }
};

TEST_F(ConnectionPolicyTest, EverythingIsOffByDefault) {
    const auto policy = emulator->connectionPolicy();
    EXPECT_EQ(0, policy.idleCloseMs);
    EXPECT_EQ(0, policy.maxRequestsPerConnection);
    EXPECT_TRUE(policy.announceClose);
    RawConnection connection(emulator->port());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(connection.send(kKeySetRequest));
        const auto response = connection.readResponse();
        ASSERT_EQ(200, response.status()) << i;
        EXPECT_EQ("", response.header("Connection"));
    }
    EXPECT_FALSE(connection.waitForClose(milliseconds(300)));
    EXPECT_EQ(0u, counts().closedIdle);
    EXPECT_EQ(0u, counts().closedAfterRequests);
}

TEST_F(ConnectionPolicyTest, AnIdleConnectionIsClosedAfterIdleCloseMs) {
    qxpemu::ConnectionPolicy policy;
    policy.idleCloseMs = 300;
    restartWith(policy);
    client.reset();

    RawConnection connection(emulator->port());
    ASSERT_TRUE(connection.send(kKeySetRequest));
    const auto response = connection.readResponse();
    ASSERT_EQ(200, response.status());
    // Kept alive: the answer does not announce the close that follows.
    EXPECT_EQ("", response.header("Connection"));
    ASSERT_TRUE(connection.waitForClose(std::chrono::seconds(5)));
    const auto idle = Clock::now() - response.headArrived;
    EXPECT_GE(idle, milliseconds(250));
    EXPECT_LT(idle, milliseconds(3000));
    // The count follows the close on the emulator's thread.
    EXPECT_TRUE(eventually([&] { return counts().closedIdle == 1; }));
    EXPECT_EQ(1u, counts().accepted);
    EXPECT_EQ(0u, counts().closedAfterRequests);
    EXPECT_TRUE(eventually([&] { return counts().open == 0; }));
}

TEST_F(ConnectionPolicyTest, RequestsInsideTheIdleTimeKeepTheConnection) {
    qxpemu::ConnectionPolicy policy;
    policy.idleCloseMs = 400;
    restartWith(policy);
    client.reset();

    RawConnection connection(emulator->port());
    const auto started = Clock::now();
    // Each request restarts the idle time, so the connection outlives idleCloseMs.
    while (Clock::now() - started < milliseconds(1000)) {
        ASSERT_TRUE(connection.send(kKeySetRequest));
        ASSERT_EQ(200, connection.readResponse().status());
        EXPECT_FALSE(connection.waitForClose(milliseconds(100)));
    }
    EXPECT_EQ(1u, counts().accepted);
    EXPECT_EQ(0u, counts().closedIdle);
    ASSERT_TRUE(connection.waitForClose(std::chrono::seconds(5)));
    EXPECT_TRUE(eventually([&] { return counts().closedIdle == 1; }));
}

TEST_F(ConnectionPolicyTest, AClientThatClosesIsNotCountedAsIdleClose) {
    qxpemu::ConnectionPolicy policy;
    policy.idleCloseMs = 200;
    restartWith(policy);
    client.reset();
    {
        RawConnection connection(emulator->port());
        ASSERT_TRUE(connection.send(kKeySetRequest));
        ASSERT_EQ(200, connection.readResponse().status());
    }
    EXPECT_TRUE(eventually([&] { return counts().open == 0; }));
    EXPECT_EQ(1u, counts().accepted);
    EXPECT_EQ(0u, counts().closedIdle);
}

TEST_F(ConnectionPolicyTest, TheNextRequestOpensANewConnection) {
    qxpemu::ConnectionPolicy policy;
    policy.idleCloseMs = 150;
    restartWith(policy);

    ASSERT_EQ(200, call("GET", "/discovery/api/v1/service").status);
    EXPECT_EQ(1u, counts().accepted);
    ASSERT_TRUE(eventually([&] { return counts().closedIdle == 1; }));
    // The test client notices the close only when it reuses the connection; it reconnects.
    HttpResponse second = call("GET", "/discovery/api/v1/service");
    if (second.status == 0) {
        second = call("GET", "/discovery/api/v1/service");
    }
    EXPECT_EQ(200, second.status) << second.error;
    EXPECT_EQ(2u, counts().accepted);
}

TEST_F(ConnectionPolicyTest, IdleCloseOverTls) {
    auto options = defaultOptions();
    options.tls = true;
    options.connections.idleCloseMs = 200;
    restart(options);
    client.reset();

    net::io_context io;
    net::ssl::context context(net::ssl::context::tls_client);
    context.load_verify_file(emulator->caCertificateFile());
    context.set_verify_mode(net::ssl::verify_peer);
    beast::ssl_stream<beast::tcp_stream> stream(io, context);
    beast::get_lowest_layer(stream).connect(
        net::ip::tcp::endpoint(net::ip::make_address("127.0.0.1"), emulator->port()));
    stream.handshake(net::ssl::stream_base::client);

    http::request<http::empty_body> request(http::verb::get,
                                            "/identity/.well-known/openid-configuration/jwks", 11);
    request.set(http::field::host, "127.0.0.1");
    http::write(stream, request);
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(stream, buffer, response);
    ASSERT_EQ(200u, response.result_int());
    EXPECT_TRUE(response.keep_alive());
    const auto answered = Clock::now();

    // The next read ends when the emulator closes the idle connection: a plain close, no
    // close_notify, so TLS calls it a truncated stream.
    beast::error_code error;
    http::response<http::string_body> none;
    beast::get_lowest_layer(stream).expires_after(std::chrono::seconds(5));
    http::async_read(stream, buffer, none,
                     [&](beast::error_code readError, std::size_t) { error = readError; });
    io.run();
    EXPECT_TRUE(error == net::ssl::error::stream_truncated || error == http::error::end_of_stream)
        << error.message();
    EXPECT_GE(Clock::now() - answered, milliseconds(150));
    EXPECT_TRUE(eventually([&] { return counts().closedIdle == 1; }));
    EXPECT_EQ(1u, counts().accepted);
}

TEST_F(ConnectionPolicyTest, TheLastAllowedRequestIsAnsweredWithConnectionClose) {
    qxpemu::ConnectionPolicy policy;
    policy.maxRequestsPerConnection = 3;
    restartWith(policy);
    client.reset();

    RawConnection connection(emulator->port());
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(connection.send(kKeySetRequest));
        const auto response = connection.readResponse();
        ASSERT_EQ(200, response.status()) << i;
        ASSERT_TRUE(response.complete) << i;
        EXPECT_EQ(i == 3 ? "close" : "", response.header("Connection")) << i;
    }
    EXPECT_TRUE(connection.waitForClose(std::chrono::seconds(5)));
    EXPECT_EQ(1u, counts().closedAfterRequests);
    EXPECT_EQ(0u, counts().closedIdle);
    EXPECT_EQ(1u, counts().accepted);
}

TEST_F(ConnectionPolicyTest, AnUnannouncedCloseFollowsAnOrdinaryAnswer) {
    qxpemu::ConnectionPolicy policy;
    policy.maxRequestsPerConnection = 2;
    policy.announceClose = false;
    restartWith(policy);
    client.reset();

    RawConnection connection(emulator->port());
    for (int i = 1; i <= 2; ++i) {
        ASSERT_TRUE(connection.send(kKeySetRequest));
        const auto response = connection.readResponse();
        ASSERT_EQ(200, response.status()) << i;
        EXPECT_EQ("", response.header("Connection")) << i;
    }
    EXPECT_TRUE(connection.waitForClose(std::chrono::seconds(5)));
    EXPECT_EQ(1u, counts().closedAfterRequests);

    // A client that reuses the connection anyway gets no answer: the request was not handled.
    const auto recorded = emulator->requests().size();
    RawConnection reused(emulator->port());
    ASSERT_TRUE(reused.send(kKeySetRequest + kKeySetRequest));
    EXPECT_EQ(200, reused.readResponse().status());
    EXPECT_EQ(200, reused.readResponse().status());
    reused.send(kKeySetRequest);
    EXPECT_EQ(0, reused.readResponse(milliseconds(2000)).status());
    EXPECT_EQ(recorded + 2, emulator->requests().size());
}

TEST_F(ConnectionPolicyTest, TheLimitAppliesToErrorAnswersAndPostsToo) {
    qxpemu::ConnectionPolicy policy;
    policy.maxRequestsPerConnection = 2;
    restartWith(policy);

    EXPECT_EQ(401, call("POST", "/notifications/api/v1/notifications", "{}", false).status);
    const auto second = createMailbox(kMailboxA, "t");
    EXPECT_EQ(200, second.status);
    EXPECT_EQ("close", second.header("Connection"));
    EXPECT_EQ(204, publish("t", "after the close").status);
    EXPECT_EQ(2u, counts().accepted);
    EXPECT_EQ(1u, counts().closedAfterRequests);
}

TEST_F(ConnectionPolicyTest, ThePolicyChangesAtRunTime) {
    qxpemu::ConnectionPolicy policy;
    policy.idleCloseMs = 100;
    emulator->setConnectionPolicy(policy);
    EXPECT_EQ(100, emulator->connectionPolicy().idleCloseMs);
    client.reset();

    RawConnection connection(emulator->port());
    ASSERT_TRUE(connection.send(kKeySetRequest));
    ASSERT_EQ(200, connection.readResponse().status());
    EXPECT_TRUE(connection.waitForClose(std::chrono::seconds(5)));
    EXPECT_TRUE(eventually([&] { return counts().closedIdle == 1; }));

    policy.idleCloseMs = -1;
    EXPECT_THROW(emulator->setConnectionPolicy(policy), std::invalid_argument);
    policy.idleCloseMs = 0;
    policy.maxRequestsPerConnection = -5;
    EXPECT_THROW(emulator->setConnectionPolicy(policy), std::invalid_argument);
    EXPECT_EQ(100, emulator->connectionPolicy().idleCloseMs);
}

TEST_F(ConnectionPolicyTest, ControlInterfaceShowsAndChangesThePolicy) {
    const auto initial =
        nlohmann::json::parse(client->request("GET", "/_emulator/connections").body);
    EXPECT_EQ(0, initial["idleCloseMs"]);
    EXPECT_EQ(0, initial["maxRequestsPerConnection"]);
    EXPECT_EQ(true, initial["announceClose"]);
    EXPECT_EQ(1, initial["accepted"]);
    EXPECT_EQ(1, initial["open"]);
    EXPECT_EQ(0, initial["closedIdle"]);
    EXPECT_EQ(0, initial["closedAfterRequests"]);

    for (const char* bad : {"{\"idleCloseMs\":-1}", "{\"maxRequestsPerConnection\":\"3\"}",
                            "{\"announceClose\":1}", "[1]", "{"}) {
        EXPECT_EQ(400, client->request("POST", "/_emulator/connections", bad).status) << bad;
    }
    EXPECT_EQ(405, client->request("DELETE", "/_emulator/connections").status);
    EXPECT_EQ(0, emulator->connectionPolicy().idleCloseMs);

    // Members left out keep their value.
    ASSERT_EQ(204, client
                       ->request("POST", "/_emulator/connections",
                                 "{\"idleCloseMs\":250,\"maxRequestsPerConnection\":7}")
                       .status);
    ASSERT_EQ(
        204, client->request("POST", "/_emulator/connections", "{\"announceClose\":false}").status);
    const auto policy = emulator->connectionPolicy();
    EXPECT_EQ(250, policy.idleCloseMs);
    EXPECT_EQ(7, policy.maxRequestsPerConnection);
    EXPECT_FALSE(policy.announceClose);

    const auto shown = state()["connections"];
    EXPECT_EQ(250, shown["idleCloseMs"]);
    EXPECT_EQ(7, shown["maxRequestsPerConnection"]);
    EXPECT_EQ(false, shown["announceClose"]);

    // A reset goes back to the options and zeroes the counts.
    ASSERT_EQ(204, client->request("POST", "/_emulator/reset").status);
    EXPECT_EQ(0, emulator->connectionPolicy().idleCloseMs);
    EXPECT_EQ(0, emulator->connectionPolicy().maxRequestsPerConnection);
    EXPECT_TRUE(emulator->connectionPolicy().announceClose);
    EXPECT_EQ(0u, counts().accepted);
    EXPECT_TRUE(eventually([&] { return counts().open == 1; }));
}

TEST_F(ConnectionPolicyTest, ManyConnectionsAreCounted) {
    client.reset();
    for (int i = 0; i < 5; ++i) {
        RawConnection connection(emulator->port());
        ASSERT_TRUE(connection.send(kKeySetRequest));
        ASSERT_EQ(200, connection.readResponse().status());
    }
    EXPECT_EQ(5u, counts().accepted);
    EXPECT_TRUE(eventually([&] { return counts().open == 0; }));
}

}  // namespace
}  // namespace EmulatorTest
