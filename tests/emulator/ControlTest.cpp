// The control interface and its in-process twin: recorded requests, fault rules, state,
// token lifetime, key rotation and reset.
#include <future>

#include "EmulatorFixture.h"

namespace EmulatorTest {
namespace {

class ControlTest : public EmulatorFixture {};

TEST_F(ControlTest, RecordsEveryHeaderInTheOrderReceived) {
    const std::string raw =
        "POST /notifications/api/v1/notifications HTTP/1.1\r\n"
        "Accept: application/json\r\n"
        "Content-Type: application/json\r\n"
        "User-Agent: Tolva\r\n"
        "Authorization: Bearer " +
        token +
        "\r\n"
        "X-Zeta: last-by-name\r\n"
        "Host: 127.0.0.1\r\n"
        "x-alpha: lower\r\n"
        "Content-Length: 2\r\n"
        "Connection: close\r\n"
        "\r\n{}";
    const std::string answer = HttpTestClient::rawExchange(emulator->port(), raw);
    EXPECT_EQ(0u, answer.find("HTTP/1.1 400"));
    const auto recorded = emulator->requests();
    ASSERT_EQ(1u, recorded.size());
    EXPECT_EQ("POST", recorded[0].method);
    EXPECT_EQ("/notifications/api/v1/notifications", recorded[0].target);
    EXPECT_EQ("{}", recorded[0].body);
    const std::vector<std::string> expectedNames = {
        "Accept", "Content-Type", "User-Agent",     "Authorization", "X-Zeta",
        "Host",   "x-alpha",      "Content-Length", "Connection"};
    ASSERT_EQ(expectedNames.size(), recorded[0].headers.size());
    for (std::size_t i = 0; i < expectedNames.size(); ++i) {
        EXPECT_EQ(expectedNames[i], recorded[0].headers[i].first);
    }
    EXPECT_EQ("Tolva", recorded[0].header("user-agent"));
    EXPECT_EQ("", recorded[0].header("missing"));
}

TEST_F(ControlTest, ControlRequestsAreNotRecordedAndRecordsAreServed) {
    call("GET", "/discovery/api/v1/service?x=1");
    call("GET", "/_emulator/state", "", false);
    const auto response = client->request("GET", "/_emulator/requests");
    ASSERT_EQ(200, response.status);
    const auto list = nlohmann::json::parse(response.body);
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ("GET", list[0]["method"]);
    EXPECT_EQ("/discovery/api/v1/service?x=1", list[0]["target"]);
    EXPECT_EQ("Authorization", list[0]["headers"][1]["name"]);
    EXPECT_EQ(204, client->request("DELETE", "/_emulator/requests").status);
    EXPECT_TRUE(emulator->requests().empty());
}

TEST_F(ControlTest, WaitForRequestsReturnsOnceEnoughArrived) {
    auto later = std::async(std::launch::async, [this] {
        HttpTestClient own(emulator->port());
        own.request("GET", "/one");
        own.request("GET", "/two");
    });
    const auto seen = emulator->waitForRequests(2, std::chrono::seconds(10));
    later.get();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ("/one", seen[0].target);
    EXPECT_EQ(2u, emulator->waitForRequests(5, std::chrono::milliseconds(1)).size());
}

TEST_F(ControlTest, FaultAnswersTheChosenStatusForTheNextNMatches) {
    qxpemu::FaultRule rule;
    rule.method = "GET";
    rule.pathPattern = "/discovery/.*";
    rule.status = 503;
    rule.reason = "Resting";
    rule.body = "come back later";
    rule.times = 2;
    emulator->addFault(rule);
    // The method does not match: handled normally.
    EXPECT_EQ(400, call("POST", "/discovery/api/v1/service", "{").status);
    for (int i = 0; i < 2; ++i) {
        const auto response = call("GET", "/discovery/api/v1/service");
        EXPECT_EQ(503, response.status);
        EXPECT_EQ("Resting", response.reason);
        EXPECT_EQ("come back later", response.body);
        EXPECT_EQ("text/plain", response.header("Content-Type"));
    }
    EXPECT_EQ(200, call("GET", "/discovery/api/v1/service").status);
    // Faulted requests are recorded too.
    EXPECT_EQ(4u, emulator->requests().size());
}

TEST_F(ControlTest, GatewayFaultsAnswer502And504AsAProxyDoes) {
    qxpemu::FaultRule timeout;
    timeout.pathPattern = "/notifications/api/v1/notifications/.*";
    timeout.status = 504;
    timeout.reason = "Gateway Time-out";
    timeout.contentType = "text/html";
    timeout.body = "<html><body><h1>504 Gateway Time-out</h1></body></html>";
    emulator->addFault(timeout);
    qxpemu::FaultRule badGateway;
    badGateway.method = "POST";
    badGateway.pathPattern = "/notifications/api/v1/notifications";
    badGateway.status = 502;
    badGateway.contentType = "";
    emulator->addFault(badGateway);

    const auto polled = poll(kMailboxA, 1);
    EXPECT_EQ(504, polled.status);
    EXPECT_EQ("Gateway Time-out", polled.reason);
    EXPECT_EQ("text/html", polled.header("Content-Type"));
    EXPECT_EQ(timeout.body, polled.body);
    const auto posted = publish("t", "x");
    EXPECT_EQ(502, posted.status);
    EXPECT_EQ("Bad Gateway", posted.reason);
    EXPECT_EQ("", posted.body);
    EXPECT_EQ("", posted.header("Content-Type"));
    EXPECT_EQ("0", posted.header("Content-Length"));
}

TEST_F(ControlTest, FaultWithoutLimitAppliesToEveryMatchUntilCleared) {
    qxpemu::FaultRule rule;
    rule.pathPattern = "/identity/connect/token";
    rule.status = 500;
    rule.times = -1;
    emulator->addFault(rule);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(500, call("POST", "/identity/connect/token", "x").status);
    }
    // The pattern must match the whole path, and the query is not part of it.
    EXPECT_EQ(500, call("POST", "/identity/connect/token?x=1", "x").status);
    EXPECT_EQ(404, call("POST", "/identity/connect/token/more", "x").status);
    emulator->clearFaults();
    EXPECT_EQ(401, call("POST", "/identity/connect/token", "x", false).status);
}

TEST_F(ControlTest, DelayFaultHandlesTheRequestAfterTheDelay) {
    qxpemu::FaultRule rule;
    rule.pathPattern = "/discovery/api/v1/service";
    rule.delayMs = 300;
    emulator->addFault(rule);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(200, call("GET", "/discovery/api/v1/service").status);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));
}

TEST_F(ControlTest, DropFaultClosesTheConnectionWithoutAnswer) {
    qxpemu::FaultRule rule;
    rule.pathPattern = "/notifications/.*";
    rule.drop = true;
    emulator->addFault(rule);
    const auto dropped = publish("t", "x");
    EXPECT_EQ(0, dropped.status);
    EXPECT_FALSE(dropped.error.empty());
    EXPECT_EQ(204, publish("t", "x").status);
}

TEST_F(ControlTest, BadFaultRulesAreRefused) {
    qxpemu::FaultRule rule;
    rule.pathPattern = "([unclosed";
    EXPECT_THROW(emulator->addFault(rule), std::invalid_argument);
    rule.pathPattern = ".*";
    rule.times = 0;
    EXPECT_THROW(emulator->addFault(rule), std::invalid_argument);
    EXPECT_EQ(400, client->request("POST", "/_emulator/faults", "{\"pathPattern\":\"(\"}").status);
    EXPECT_EQ(400, client->request("POST", "/_emulator/faults", "{\"status\":500}").status);
    EXPECT_EQ(
        400,
        client->request("POST", "/_emulator/faults", "{\"pathPattern\":\".*\",\"times\":\"x\"}")
            .status);
    EXPECT_EQ(0, state()["faultRules"]);
}

TEST_F(ControlTest, FaultRulesOverHttp) {
    const nlohmann::json rule = {{"method", "POST"},
                                 {"pathPattern", "/notifications/api/v1/mailbox"},
                                 {"status", 418},
                                 {"body", "{\"teapot\":true}"},
                                 {"contentType", "application/json"},
                                 {"times", 1}};
    ASSERT_EQ(204, client->request("POST", "/_emulator/faults", rule.dump()).status);
    const auto listedRules =
        nlohmann::json::parse(client->request("GET", "/_emulator/faults").body);
    ASSERT_EQ(1u, listedRules.size());
    EXPECT_EQ(418, listedRules[0]["status"]);
    const auto faulted = createMailbox(kMailboxA, "t");
    EXPECT_EQ(418, faulted.status);
    EXPECT_EQ("application/json", faulted.header("Content-Type"));
    EXPECT_EQ(200, createMailbox(kMailboxA, "t").status);
    ASSERT_EQ(204, client->request("POST", "/_emulator/faults", rule.dump()).status);
    EXPECT_EQ(204, client->request("DELETE", "/_emulator/faults").status);
    EXPECT_EQ(200, createMailbox(kMailboxB, "t").status);
}

TEST_F(ControlTest, AFaultAnswerCarriesTheRulesHeaderFields) {
    const nlohmann::json rule = {{"method", "POST"},
                                 {"pathPattern", "/notifications/api/v1/mailbox"},
                                 {"status", 303},
                                 {"headers", {{"Location", "/elsewhere"}, {"Retry-After", "7"}}}};
    ASSERT_EQ(204, client->request("POST", "/_emulator/faults", rule.dump()).status);
    const auto listedRules =
        nlohmann::json::parse(client->request("GET", "/_emulator/faults").body);
    ASSERT_EQ(1u, listedRules.size());
    EXPECT_EQ("/elsewhere", listedRules[0]["headers"]["Location"]);
    const auto faulted = createMailbox(kMailboxA, "t");
    EXPECT_EQ(303, faulted.status);
    EXPECT_EQ("/elsewhere", faulted.header("Location"));
    EXPECT_EQ("7", faulted.header("Retry-After"));
    EXPECT_EQ(400, client
                       ->request("POST", "/_emulator/faults",
                                 "{\"pathPattern\":\".*\",\"headers\":{\"X\":1}}")
                       .status);
    EXPECT_EQ(
        400,
        client->request("POST", "/_emulator/faults", "{\"pathPattern\":\".*\",\"headers\":[\"X\"]}")
            .status);
}

TEST_F(ControlTest, StateShowsMailboxesServicesAndKeys) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "Topic/One", 120).status);
    ASSERT_EQ(204, publish("topic/one", "x").status);
    ASSERT_EQ(201, call("POST", "/discovery/api/v1/service", serviceRecord().dump()).status);
    const auto response = client->request("GET", "/_emulator/state");
    ASSERT_EQ(200, response.status);
    const auto current = nlohmann::json::parse(response.body);
    ASSERT_EQ(1u, current["mailboxes"].size());
    EXPECT_EQ(kMailboxA, current["mailboxes"][0]["id"]);
    EXPECT_EQ(1, current["mailboxes"][0]["queueDepth"]);
    EXPECT_EQ(nlohmann::json::array({"topic/one"}), current["mailboxes"][0]["subscriptions"]);
    ASSERT_EQ(1u, current["services"].size());
    EXPECT_TRUE(current["services"][0]["lastHeartbeatAgeMs"].is_number());
    ASSERT_EQ(1u, current["keys"].size());
    EXPECT_TRUE(current["keys"][0]["current"].get<bool>());
    EXPECT_EQ(3600, current["tokenLifetimeSeconds"]);
    EXPECT_EQ(5, current["maxPollSeconds"]);
}

TEST_F(ControlTest, TokenLifetimeRotationAndTokenOverHttp) {
    ASSERT_EQ(204,
              client->request("POST", "/_emulator/token-lifetime", "{\"seconds\":120}").status);
    EXPECT_EQ(400,
              client->request("POST", "/_emulator/token-lifetime", "{\"seconds\":\"x\"}").status);
    EXPECT_EQ(120, state()["tokenLifetimeSeconds"]);
    const auto rotated = client->request("POST", "/_emulator/rotate-key");
    ASSERT_EQ(200, rotated.status);
    const auto keys = state()["keys"];
    ASSERT_EQ(2u, keys.size());
    EXPECT_EQ(nlohmann::json::parse(rotated.body)["kid"], keys[1]["kid"]);
    const auto issued = client->request("POST", "/_emulator/token");
    ASSERT_EQ(200, issued.status);
    token = nlohmann::json::parse(issued.body)["access_token"];
    EXPECT_EQ(200, call("GET", "/discovery/api/v1/service").status);
    EXPECT_EQ(404, client->request("POST", "/_emulator/token", "{\"clientId\":\"nobody\"}").status);
}

TEST_F(ControlTest, ResetForgetsEverythingButTheCurrentKey) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "t").status);
    ASSERT_EQ(201, call("POST", "/discovery/api/v1/service", serviceRecord().dump()).status);
    qxpemu::FaultRule rule;
    rule.pathPattern = "/nothing";
    emulator->addFault(rule);
    emulator->setTokenLifetime(5);
    emulator->rotateKey();
    token = emulator->issueToken("qxp-emulator-default-client");
    ASSERT_EQ(204, client->request("POST", "/_emulator/reset").status);
    const auto current = state();
    EXPECT_TRUE(current["mailboxes"].empty());
    EXPECT_TRUE(current["services"].empty());
    EXPECT_EQ(0, current["faultRules"]);
    EXPECT_EQ(0, current["recordedRequests"]);
    EXPECT_EQ(3600, current["tokenLifetimeSeconds"]);
    EXPECT_EQ(1u, current["keys"].size());
    EXPECT_EQ(200, call("GET", "/discovery/api/v1/service").status);
}

TEST_F(ControlTest, UnknownControlEndpointsAndMethods) {
    EXPECT_EQ(404, client->request("GET", "/_emulator/nothing").status);
    EXPECT_EQ(405, client->request("POST", "/_emulator/state", "{}").status);
    EXPECT_EQ(405, client->request("GET", "/_emulator/reset").status);
}

}  // namespace
}  // namespace EmulatorTest
