// Trickled answers: a fault rule with trickleChunkBytes sends the body with chunked coding,
// one small chunk at a time, as a struggling upstream does; canned answers and normal ones.
#include "EmulatorFixture.h"
#include "RawConnection.h"

namespace EmulatorTest {
namespace {

using std::chrono::milliseconds;

constexpr char kTokenPath[] = "/identity/connect/token";
constexpr char kKeySetPath[] = "/identity/.well-known/openid-configuration/jwks";
constexpr char kGrant[] = "grant_type=client_credentials&scope=platform+cluster";

class TrickleTest : public EmulatorFixture {
  protected:
    qxpemu::FaultRule trickle(const std::string& method, const std::string& path, int status,
                              int chunkBytes, int intervalMs) {
        qxpemu::FaultRule rule;
        rule.method = method;
        rule.pathPattern = path;
        rule.status = status;
        rule.trickleChunkBytes = chunkBytes;
        rule.trickleIntervalMs = intervalMs;
        return rule;
    }

    std::string tokenRequest() const {
        const std::string body = kGrant;
        return std::string("POST ") + kTokenPath + " HTTP/1.1\r\nHost: x\r\nAuthorization: Basic " +
               emulator->apiKey() +
               "\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    // Every chunk of `response` but the first came at least about `intervalMs` after the one
    // before it, and the first that long after the head.
    static void expectPaced(const RawConnection::Response& response, int intervalMs) {
        auto previous = response.headArrived;
        for (std::size_t i = 0; i < response.chunks.size(); ++i) {
            EXPECT_GE(response.chunks[i].second - previous, milliseconds(intervalMs * 3 / 4))
                << "chunk " << i;
            previous = response.chunks[i].second;
        }
    }
};

TEST_F(TrickleTest, ACannedTokenAnswerArrivesInSmallChunks) {
    qxpemu::FaultRule rule = trickle("POST", kTokenPath, 200, 4, 60);
    rule.contentType = "application/json";
    rule.body = "{\"access_token\":\"x\"}";  // 20 bytes: five chunks of 4
    emulator->addFault(rule);

    RawConnection connection(emulator->port());
    ASSERT_TRUE(connection.send(tokenRequest()));
    const auto response = connection.readResponse();
    ASSERT_TRUE(response.complete);
    EXPECT_EQ(200, response.status());
    EXPECT_EQ("chunked", response.header("Transfer-Encoding"));
    EXPECT_EQ("", response.header("Content-Length"));
    EXPECT_EQ("application/json", response.header("Content-Type"));
    EXPECT_EQ(rule.body, response.body);
    ASSERT_EQ(5u, response.chunks.size());
    for (const auto& chunk : response.chunks) {
        EXPECT_EQ(4u, chunk.first);
    }
    expectPaced(response, 60);

    // The connection stays usable, and the next token request is answered normally.
    ASSERT_TRUE(connection.send(tokenRequest()));
    const auto normal = connection.readResponse();
    EXPECT_EQ(200, normal.status());
    EXPECT_NE("", normal.header("Content-Length"));
    EXPECT_NE(std::string::npos, normal.body.find("\"access_token\""));
}

TEST_F(TrickleTest, TheNormalKeySetTrickles) {
    emulator->addFault(trickle("GET", kKeySetPath, 0, 512, 20));
    RawConnection connection(emulator->port());
    ASSERT_TRUE(
        connection.send(std::string("GET ") + kKeySetPath + " HTTP/1.1\r\nHost: x\r\n\r\n"));
    const auto response = connection.readResponse();
    ASSERT_TRUE(response.complete);
    EXPECT_EQ(200, response.status());
    EXPECT_EQ("chunked", response.header("Transfer-Encoding"));
    EXPECT_EQ(emulator->keySet(), response.body);
    EXPECT_EQ((response.body.size() + 511) / 512, response.chunks.size());
    EXPECT_GE(response.chunks.size(), 2u);
    expectPaced(response, 20);
}

TEST_F(TrickleTest, AnErrorAnswerToAPostTrickles) {
    qxpemu::FaultRule rule = trickle("POST", "/notifications/api/v1/notifications", 500, 1, 30);
    rule.body = "internal error";
    emulator->addFault(rule);
    const auto started = std::chrono::steady_clock::now();
    const auto response = publish("t", "x");
    EXPECT_EQ(500, response.status);
    EXPECT_EQ("internal error", response.body);
    EXPECT_EQ("chunked", response.header("Transfer-Encoding"));
    EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(14 * 30));
    // One use: the next post is handled.
    EXPECT_EQ(204, publish("t", "x").status);
}

TEST_F(TrickleTest, CreatingAMailboxTricklesItsNormalAnswer) {
    emulator->addFault(trickle("POST", "/notifications/api/v1/mailbox", 0, 8, 10));
    const auto response = createMailbox(kMailboxA, "t");
    EXPECT_EQ(200, response.status);
    EXPECT_EQ("chunked", response.header("Transfer-Encoding"));
    EXPECT_FALSE(nlohmann::json::parse(response.body)["secret"].get<std::string>().empty());
    EXPECT_EQ(1u, state()["mailboxes"].size());
}

TEST_F(TrickleTest, APollAnsweredWithMailTrickles) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "t").status);
    ASSERT_EQ(204, publish("t", "trickled mail").status);
    emulator->addFault(trickle("GET", "/notifications/api/v1/notifications/.*", 0, 16, 5));
    const auto response = poll(kMailboxA, 1);
    EXPECT_EQ(200, response.status);
    EXPECT_EQ("chunked", response.header("Transfer-Encoding"));
    EXPECT_EQ("trickled mail", nlohmann::json::parse(response.body)[0]["content"]);
}

TEST_F(TrickleTest, AnAnswerWithoutBodyIsSentAsUsual) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "t").status);
    emulator->addFault(trickle("", "/notifications/api/v1/notifications", 0, 1, 1000));
    const auto started = std::chrono::steady_clock::now();
    const auto response = publish("t", "x");
    EXPECT_EQ(204, response.status);
    EXPECT_EQ("", response.header("Transfer-Encoding"));
    EXPECT_LT(std::chrono::steady_clock::now() - started, milliseconds(1000));
}

TEST_F(TrickleTest, AClientThatLeavesEndsTheTrickle) {
    qxpemu::FaultRule rule = trickle("GET", kKeySetPath, 200, 1, 20);
    rule.body = std::string(1000, 'x');
    emulator->addFault(rule);
    {
        RawConnection connection(emulator->port());
        ASSERT_TRUE(
            connection.send(std::string("GET ") + kKeySetPath + " HTTP/1.1\r\nHost: x\r\n\r\n"));
        const auto partial = connection.readResponse(milliseconds(200));
        EXPECT_EQ(200, partial.status());
        EXPECT_FALSE(partial.complete);
    }
    // The emulator notices at its next chunk and lets the connection go.
    EXPECT_TRUE(eventually([&] { return emulator->connectionCounts().open == 0; }));
}

TEST_F(TrickleTest, TrickleSettingsOverTheControlInterface) {
    const nlohmann::json rule = {{"pathPattern", kKeySetPath},
                                 {"status", 503},
                                 {"body", "slow"},
                                 {"trickleChunkBytes", 2},
                                 {"trickleIntervalMs", 5}};
    ASSERT_EQ(204, client->request("POST", "/_emulator/faults", rule.dump()).status);
    const auto listed = nlohmann::json::parse(client->request("GET", "/_emulator/faults").body);
    ASSERT_EQ(1u, listed.size());
    EXPECT_EQ(2, listed[0]["trickleChunkBytes"]);
    EXPECT_EQ(5, listed[0]["trickleIntervalMs"]);
    const auto response = client->request("GET", kKeySetPath);
    EXPECT_EQ(503, response.status);
    EXPECT_EQ("slow", response.body);
    EXPECT_EQ("chunked", response.header("Transfer-Encoding"));

    EXPECT_EQ(400, client
                       ->request("POST", "/_emulator/faults",
                                 "{\"pathPattern\":\".*\",\"trickleChunkBytes\":-1}")
                       .status);
    qxpemu::FaultRule bad;
    bad.pathPattern = ".*";
    bad.trickleIntervalMs = -5;
    EXPECT_THROW(emulator->addFault(bad), std::invalid_argument);
}

}  // namespace
}  // namespace EmulatorTest
