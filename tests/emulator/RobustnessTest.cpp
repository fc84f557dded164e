// Hostile and broken input: every case gets a clear 4xx and leaves the state intact.
#include "EmulatorFixture.h"

namespace EmulatorTest {
namespace {

class RobustnessTest : public EmulatorFixture {
  protected:
    void SetUp() override {
        EmulatorFixture::SetUp();
        ASSERT_EQ(200, createMailbox(kMailboxA, "kept").status);
        ASSERT_EQ(204, publish("kept", "survivor").status);
    }
    // The mailbox made in SetUp still holds its one notification.
    void expectStateIntact() {
        client = std::make_unique<HttpTestClient>(emulator->port());
        const auto mailboxes = state()["mailboxes"];
        ASSERT_EQ(1u, mailboxes.size());
        EXPECT_EQ(1, mailboxes[0]["queueDepth"]);
        const auto response = poll(kMailboxA, 0);
        ASSERT_EQ(200, response.status);
        EXPECT_EQ("survivor", nlohmann::json::parse(response.body)[0]["content"]);
    }
};

TEST_F(RobustnessTest, HugeBodyIs413) {
    const std::string huge(2 * 1024 * 1024, 'x');
    const auto response = call("POST", "/notifications/api/v1/notifications", huge);
    EXPECT_EQ(413, response.status);
    EXPECT_NE(std::string::npos, response.body.find("larger than"));
    expectStateIntact();
}

TEST_F(RobustnessTest, HugeHeaderIs431) {
    const std::string answer = HttpTestClient::rawExchange(
        emulator->port(), "GET /discovery/api/v1/service HTTP/1.1\r\nHost: x\r\nX-Big: " +
                              std::string(100000, 'h') + "\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(0u, answer.find("HTTP/1.1 431")) << answer.substr(0, 200);
    expectStateIntact();
}

TEST_F(RobustnessTest, MalformedHttpIs400) {
    const std::string answer =
        HttpTestClient::rawExchange(emulator->port(), "THIS IS NOT HTTP\r\n\r\n");
    EXPECT_EQ(0u, answer.find("HTTP/1.1 400")) << answer;
    const std::string badLength = HttpTestClient::rawExchange(
        emulator->port(), "POST /x HTTP/1.1\r\nContent-Length: nope\r\n\r\n");
    EXPECT_EQ(0u, badLength.find("HTTP/1.1 400")) << badLength;
    expectStateIntact();
}

TEST_F(RobustnessTest, UnknownPathsAre404AndWrongMethods405) {
    EXPECT_EQ(404, call("GET", "/nothing-here").status);  // "/" is the dashboard
    EXPECT_EQ(404, call("GET", "/notifications/api/v2/notifications").status);
    EXPECT_EQ(404, call("POST", "/notifications/api/v1/mailbox/a/b/c").status);
    EXPECT_EQ(404, call("GET", "/\xFF\xFE").status);
    const auto wrong = call("DELETE", "/notifications/api/v1/notifications");
    EXPECT_EQ(405, wrong.status);
    EXPECT_EQ("POST", wrong.header("Allow"));
    EXPECT_EQ(405, call("PATCH", "/discovery/api/v1/service", "{}").status);
    EXPECT_EQ(405, call("GET", "/notifications/api/v1/mailbox").status);
    expectStateIntact();
}

TEST_F(RobustnessTest, InvalidUtf8AndWrongTypesAre400) {
    EXPECT_EQ(400, call("POST", "/notifications/api/v1/notifications",
                        "{\"id\":\"1\",\"time\":\"t\",\"topic\":\"\xF0\x28\x8C\x28\","
                        "\"content\":\"c\",\"source\":\"s\"}")
                       .status);
    EXPECT_EQ(400, call("POST", std::string("/notifications/api/v1/mailbox/") + kMailboxA +
                                    "/subscribe/%C3%28")
                       .status);
    EXPECT_EQ(400, call("POST", "/notifications/api/v1/notifications",
                        "{\"id\":1,\"time\":[],\"topic\":{},\"content\":null,\"source\":true}")
                       .status);
    EXPECT_EQ(400, call("POST", "/notifications/api/v1/mailbox", "\"just a string\"").status);
    EXPECT_EQ(400, call("POST", "/discovery/api/v1/service", "null").status);
    EXPECT_EQ(400, call("POST", "/notifications/api/v1/notifications",
                        std::string(500000, '[') + std::string(500000, ']'))
                       .status);
    expectStateIntact();
}

TEST_F(RobustnessTest, RecordedBinaryDataIsServedAsValidJson) {
    call("POST", "/notifications/api/v1/notifications", std::string("\xFF\x00\xC3", 3));
    const auto response = client->request("GET", "/_emulator/requests");
    ASSERT_EQ(200, response.status);
    EXPECT_TRUE(nlohmann::json::accept(response.body));
    expectStateIntact();
}

}  // namespace
}  // namespace EmulatorTest
