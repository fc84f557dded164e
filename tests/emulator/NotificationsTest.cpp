// Notifications and mailboxes: posting, routing, subscriptions, deletion, long polls, ttl.
#include <future>
#include <thread>

#include "EmulatorFixture.h"

namespace EmulatorTest {
namespace {

class NotificationsTest : public EmulatorFixture {
  protected:
    nlohmann::json mailboxState(const std::string& id) {
        const auto current = state();
        for (const auto& mailbox : current["mailboxes"]) {
            if (mailbox["id"] == id) {
                return mailbox;
            }
        }
        return nullptr;
    }
    bool isPolling(const std::string& id) {
        const auto mailbox = mailboxState(id);
        return !mailbox.is_null() && mailbox["polling"].get<bool>();
    }
    // Starts a poll on its own connection and returns once the emulator holds it parked.
    std::future<HttpResponse> parkedPoll(const std::string& id, int timeoutSeconds) {
        auto future = std::async(std::launch::async, [this, id, timeoutSeconds] {
            HttpTestClient own(emulator->port());
            return own.request("GET",
                               "/notifications/api/v1/notifications/" + id +
                                   "?timeout=" + std::to_string(timeoutSeconds),
                               "", {{"Authorization", "Bearer " + token}});
        });
        EXPECT_TRUE(eventually([&] { return isPolling(id); }));
        return future;
    }
};

TEST_F(NotificationsTest, CreateMailboxAnswersASecret) {
    const auto response = createMailbox(kMailboxA, "News/Alpha", 60);
    ASSERT_EQ(200, response.status) << response.body;
    const auto answer = nlohmann::json::parse(response.body);
    EXPECT_GE(answer["secret"].get<std::string>().size(), 32u);
    const auto mailbox = mailboxState(kMailboxA);
    EXPECT_EQ(nlohmann::json::array({"news/alpha"}), mailbox["subscriptions"]);
    EXPECT_EQ(60, mailbox["mailboxTTL"]);
    EXPECT_EQ(0, mailbox["queueDepth"]);
}

TEST_F(NotificationsTest, DuplicateMailboxIdIsAConflict) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "a").status);
    EXPECT_EQ(409, createMailbox(kMailboxA, "b").status);
    EXPECT_EQ(nlohmann::json::array({"a"}), mailboxState(kMailboxA)["subscriptions"]);
}

TEST_F(NotificationsTest, MalformedMailboxBodiesAre400) {
    const HeaderList json = {{"Content-Type", "application/json"}};
    for (const std::string& body : std::vector<std::string>{
             "", "not json", "[]", "{\"subscription\":\"a\"}",
             "{\"id\":\"nope\",\"subscription\":\"a\"}",
             std::string("{\"id\":\"") + kMailboxA + "\"}",
             std::string("{\"id\":\"") + kMailboxA + "\",\"subscription\":\"\"}",
             std::string("{\"id\":\"") + kMailboxA + "\",\"subscription\":\"a\",\"mailboxTTL\":-1}",
             std::string("{\"id\":\"") + kMailboxA +
                 "\",\"subscription\":\"a\",\"durable\":\"yes\"}"}) {
        EXPECT_EQ(400, call("POST", "/notifications/api/v1/mailbox", body, true, json).status)
            << body;
    }
    EXPECT_TRUE(state()["mailboxes"].empty());
}

TEST_F(NotificationsTest, PublishDeliversToEverySubscribedMailboxCaseInsensitively) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "studio/alerts").status);
    ASSERT_EQ(200, createMailbox(kMailboxB, "Studio/Alerts").status);
    ASSERT_EQ(200, createMailbox(kMailboxC, "studio/other").status);
    const auto posted = publish("STUDIO/alerts", "{\"a\":1}", 30);
    EXPECT_EQ(204, posted.status);
    EXPECT_EQ("2", posted.header("X-Delivered-To"));
    for (const char* id : {kMailboxA, kMailboxB}) {
        const auto response = poll(id, 0);
        ASSERT_EQ(200, response.status) << id;
        const auto notes = nlohmann::json::parse(response.body);
        ASSERT_EQ(1u, notes.size());
        EXPECT_EQ("STUDIO/alerts", notes[0]["topic"]);
        EXPECT_EQ("{\"a\":1}", notes[0]["content"]);
        EXPECT_EQ("Tolva", notes[0]["source"]);
        EXPECT_EQ(30, notes[0]["ttl"]);
        EXPECT_TRUE(notes[0]["id"].is_string());
        EXPECT_TRUE(notes[0]["time"].is_string());
    }
    EXPECT_EQ(204, poll(kMailboxC, 0).status);
}

TEST_F(NotificationsTest, PollAnswersEveryPendingNotificationInOrder) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "t").status);
    for (const char* content : {"one", "two", "three"}) {
        ASSERT_EQ(204, publish("t", content).status);
    }
    const auto response = poll(kMailboxA, 5);
    ASSERT_EQ(200, response.status);
    const auto notes = nlohmann::json::parse(response.body);
    ASSERT_EQ(3u, notes.size());
    EXPECT_EQ("one", notes[0]["content"]);
    EXPECT_EQ("three", notes[2]["content"]);
    EXPECT_FALSE(notes[0].contains("ttl"));
    EXPECT_EQ(204, poll(kMailboxA, 0).status);
}

TEST_F(NotificationsTest, MalformedNotificationsAre400WithAReason) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "t").status);
    const std::string valid =
        "\"id\":\"1\",\"time\":\"2026-01-01T00:00:00Z\",\"topic\":\"t\",\"source\":\"s\"";
    struct Case {
        std::string body;
        std::string reason;
    };
    for (const Case& bad :
         std::vector<Case>{{"{\"id\":", "malformed JSON"},
                           {"42", "JSON object"},
                           {"{" + valid + "}", "\"content\""},
                           {"{" + valid + ",\"content\":5}", "\"content\" must be a string"},
                           {"{" + valid + ",\"content\":\"x\",\"ttl\":\"soon\"}", "\"ttl\""},
                           {"{" + valid + ",\"content\":\"x\",\"ttl\":-3}", "\"ttl\""},
                           {"{" + valid + ",\"content\":\"\xC3\x28\"}", "malformed JSON"},
                           {std::string(100, '[') + std::string(100, ']'), "nested"}}) {
        const auto response = call("POST", "/notifications/api/v1/notifications", bad.body);
        EXPECT_EQ(400, response.status) << bad.body;
        EXPECT_NE(std::string::npos, response.body.find(bad.reason)) << response.body;
    }
    EXPECT_EQ(0, mailboxState(kMailboxA)["queueDepth"]);
}

TEST_F(NotificationsTest, SubscribeAndUnsubscribeChangeRouting) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "first").status);
    const std::string base = std::string("/notifications/api/v1/mailbox/") + kMailboxA;
    EXPECT_EQ(204, call("POST", base + "/subscribe/news%2FAlpha").status);
    EXPECT_EQ(204, call("POST", base + "/subscribe/plain/slash").status);
    EXPECT_EQ(nlohmann::json::array({"first", "news/alpha", "plain/slash"}),
              mailboxState(kMailboxA)["subscriptions"]);
    ASSERT_EQ(204, publish("news/alpha", "x").status);
    ASSERT_EQ(204, publish("plain/slash", "y").status);
    EXPECT_EQ(2, mailboxState(kMailboxA)["queueDepth"]);
    EXPECT_EQ(204, call("POST", base + "/unsubscribe/news%2Falpha").status);
    EXPECT_EQ("0", publish("news/alpha", "z").header("X-Delivered-To"));
    EXPECT_EQ(400, call("POST", base + "/subscribe/").status);
    EXPECT_EQ(400, call("POST", base + "/subscribe/bad%zz").status);
    EXPECT_EQ(404, call("POST",
                        std::string("/notifications/api/v1/mailbox/") + kMailboxB + "/subscribe/t")
                       .status);
}

TEST_F(NotificationsTest, DeleteBySecret) {
    const auto created = createMailbox(kMailboxA, "t");
    const std::string secret = nlohmann::json::parse(created.body)["secret"];
    EXPECT_EQ(404, call("DELETE", "/notifications/api/v1/mailbox/unknown-secret").status);
    EXPECT_EQ(404,
              call("DELETE", std::string("/notifications/api/v1/mailbox/") + kMailboxA).status);
    EXPECT_EQ(204, call("DELETE", "/notifications/api/v1/mailbox/" + secret).status);
    EXPECT_EQ(404, call("DELETE", "/notifications/api/v1/mailbox/" + secret).status);
    EXPECT_EQ(404, poll(kMailboxA, 0).status);
}

TEST_F(NotificationsTest, PollOfUnknownMailboxIs404) {
    EXPECT_EQ(404, poll(kMailboxA, 1).status);
    EXPECT_EQ(400, call("GET", std::string("/notifications/api/v1/notifications/") + kMailboxA +
                                   "?timeout=soon")
                       .status);
}

TEST_F(NotificationsTest, LongPollWakesUpWhenMailArrives) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "wake").status);
    auto pending = parkedPoll(kMailboxA, 5);
    ASSERT_EQ(204, publish("wake", "hello").status);
    const auto response = pending.get();
    ASSERT_EQ(200, response.status) << response.error;
    EXPECT_EQ("hello", nlohmann::json::parse(response.body)[0]["content"]);
    EXPECT_FALSE(isPolling(kMailboxA));
}

TEST_F(NotificationsTest, LongPollTimesOutWith204) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "quiet").status);
    const auto started = std::chrono::steady_clock::now();
    const auto response = poll(kMailboxA, 1);
    EXPECT_EQ(204, response.status);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(900));
    EXPECT_TRUE(response.body.empty());
}

TEST_F(NotificationsTest, LongPollWaitIsCappedByMaxPollSeconds) {
    auto options = defaultOptions();
    options.maxPollSeconds = 0;
    restart(options);
    ASSERT_EQ(200, createMailbox(kMailboxA, "quiet").status);
    EXPECT_EQ(204, poll(kMailboxA, 3600).status);
}

TEST_F(NotificationsTest, NewerPollTakesOverFromAConcurrentOne) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "race").status);
    auto first = parkedPoll(kMailboxA, 5);
    auto second = std::async(std::launch::async, [this] {
        HttpTestClient own(emulator->port());
        return own.request(
            "GET", std::string("/notifications/api/v1/notifications/") + kMailboxA + "?timeout=5",
            "", {{"Authorization", "Bearer " + token}});
    });
    // The older poll is released at once with "no mail"...
    EXPECT_EQ(204, first.get().status);
    ASSERT_TRUE(eventually([&] { return isPolling(kMailboxA); }));
    // ...and the newer one gets the mail.
    ASSERT_EQ(204, publish("race", "for the second").status);
    const auto response = second.get();
    ASSERT_EQ(200, response.status);
    EXPECT_EQ("for the second", nlohmann::json::parse(response.body)[0]["content"]);
}

TEST_F(NotificationsTest, DeletingAMailboxEndsItsPollWith404) {
    const auto created = createMailbox(kMailboxA, "t");
    const std::string secret = nlohmann::json::parse(created.body)["secret"];
    auto pending = parkedPoll(kMailboxA, 5);
    ASSERT_EQ(204, call("DELETE", "/notifications/api/v1/mailbox/" + secret).status);
    EXPECT_EQ(404, pending.get().status);
}

TEST_F(NotificationsTest, ManyConcurrentPollsAllWakeUp) {
    constexpr int kMailboxes = 20;
    std::vector<std::string> ids;
    for (int i = 0; i < kMailboxes; ++i) {
        char id[37];
        std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", i);
        ids.push_back(id);
        ASSERT_EQ(200, createMailbox(id, "fan/out").status);
    }
    std::vector<std::future<HttpResponse>> polls;
    for (const auto& id : ids) {
        polls.push_back(parkedPoll(id, 5));
    }
    const auto posted = publish("fan/out", "to all");
    EXPECT_EQ(std::to_string(kMailboxes), posted.header("X-Delivered-To"));
    for (auto& pending : polls) {
        const auto response = pending.get();
        ASSERT_EQ(200, response.status);
        EXPECT_EQ("to all", nlohmann::json::parse(response.body)[0]["content"]);
    }
}

TEST_F(NotificationsTest, UndeliveredNotificationsExpireAfterTheirTtl) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "short").status);
    ASSERT_EQ(204, publish("short", "fleeting", 1).status);
    ASSERT_EQ(204, publish("short", "lasting").status);
    EXPECT_EQ(2, mailboxState(kMailboxA)["queueDepth"]);
    ASSERT_TRUE(eventually([&] { return mailboxState(kMailboxA)["queueDepth"] == 1; }));
    const auto response = poll(kMailboxA, 0);
    ASSERT_EQ(200, response.status);
    const auto notes = nlohmann::json::parse(response.body);
    ASSERT_EQ(1u, notes.size());
    EXPECT_EQ("lasting", notes[0]["content"]);
}

TEST_F(NotificationsTest, MailboxNotPolledWithinItsTtlIsRemoved) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "idle", 1).status);
    ASSERT_EQ(200, createMailbox(kMailboxB, "idle").status);
    ASSERT_TRUE(eventually([&] { return mailboxState(kMailboxA).is_null(); }));
    EXPECT_EQ(404, poll(kMailboxA, 0).status);
    EXPECT_EQ(204, poll(kMailboxB, 0).status);
    // The id is free again.
    EXPECT_EQ(200, createMailbox(kMailboxA, "idle").status);
}

TEST_F(NotificationsTest, AParkedPollKeepsAMailboxAlive) {
    ASSERT_EQ(200, createMailbox(kMailboxA, "kept", 1).status);
    auto pending = parkedPoll(kMailboxA, 2);
    EXPECT_EQ(204, pending.get().status);
    EXPECT_EQ(204, poll(kMailboxA, 0).status);
}

}  // namespace
}  // namespace EmulatorTest
