// Mail retrieval against the emulator: the poll request, delivery in order, re-queueing after
// 200 and 204, dropping after another status, recovery after transport failures and a
// platform restart, request and reply, and teardown with polls outstanding.
#include "MailTestSupport.h"

#include <ZuCore/StringConversion.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using Clock = std::chrono::steady_clock;
using Varkel::Tolva::Rest::ApiStatistics;

class MailRetrievalTest : public MailTest {
  protected:
    // A 200 poll answer carrying this JSON body, for one poll of the mailbox.
    static qxpemu::FaultRule pollReply(const Mailbox& mailbox, const std::string& body) {
        return statusRule("GET", pollPath(mailbox), 200, body, "application/json");
    }

    // Waits until every mailbox the object created is out of its table (a dropped mailbox
    // leaves it once its poll's answer has been handled).
    bool waitUntilDropped(QxPlatformApi& api) const {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (!api.hasDeletedMailboxes() && Clock::now() < deadline) {
            emulator_.waitForRequests(emulator_.requests().size() + 1,
                                      std::chrono::milliseconds(50));
        }
        return api.hasDeletedMailboxes();
    }

    // A mailbox whose poll is answered 200 with `reply`, which it cannot read, beside a healthy
    // one on the same topic: the broken one says it stopped and is polled no more, while mail
    // still reaches the healthy one. The object's statistics before it ends go to `statistics`
    // when given.
    void expectUnreadableReplyStopsOnlyItsMailbox(const std::string& reply,
                                                  ApiStatistics* statistics = nullptr) {
        const LogRecords records;
        auto api = makeApi();
        auto broken = newMailbox();
        emulator_.addFault(pollReply(*broken, reply));
        api->createMailbox(broken, L"t");
        const auto [healthy, listener] = listening(*api, L"t");
        ASSERT_EQ(waitForPolls(*broken, 1).size(), 1u);
        api->postNotification(L"t", L"still flowing", 0);
        ASSERT_EQ(listener->waitFor(1).size(), 1u);
        EXPECT_TRUE(waitForStoppedLine(records, *broken));
        // Stopped for good: within a whole emulator poll period no next poll of it leaves,
        // while the healthy mailbox goes on being polled.
        EXPECT_EQ(waitForPolls(*broken, 2, std::chrono::milliseconds(1500)).size(), 1u);
        EXPECT_GE(waitForPolls(*healthy, 2).size(), 2u);
        if (statistics) {
            *statistics = api->statistics();
        }
        api.reset();
    }

    // Waits until the library has said that `mailbox` stopped receiving mail. The platform
    // having a poll does not mean its answer has been read: ending the object before this line
    // could cancel that answer unread.
    static bool waitForStoppedLine(const LogRecords& records, const Mailbox& mailbox) {
        const std::wstring prefix =
            L"Mailbox " + widen(mailboxIdText(mailbox)) + L" stopped receiving mail: ";
        return waitUntil([&] {
            const auto messages = records.messages("TolvaCore.QxPlatformApi");
            return std::any_of(messages.begin(), messages.end(),
                               [&](const auto& m) { return m.rfind(prefix, 0) == 0; });
        });
    }
};

TEST_F(MailRetrievalTest, APollIsAGetWithTwoHeadersAndUsesTheTokenAsItStands) {
    const DebugLogTail log;
    auto api = makeApi();
    const auto [mailbox, listener] = listening(*api, L"t");
    const auto first = waitForPolls(*mailbox, 1);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].header("User-Agent"), "Tolva");
    EXPECT_EQ(first[0].header("Authorization"),
              "Bearer " + narrow(api->getCurrentTokenCopy().accessToken));
    EXPECT_EQ(first[0].header("Accept"), "");
    EXPECT_EQ(first[0].header("Content-Type"), "");
    EXPECT_TRUE(first[0].body.empty());

    // No renewal before a poll: with the token cleared, the next poll goes out with an empty
    // bearer (a renewal would have put a token in it), the platform answers 401, and the
    // mailbox is dropped.
    api->clearToken();
    const std::string id = mailboxIdText(*mailbox);
    const auto polls = waitForMatching(
        // Through a reference of its own: C++17 lambdas cannot capture a structured binding.
        [&polled = mailbox](const qxpemu::RecordedRequest& r) {
            return r.target == pollTarget(*polled) && r.header("Authorization") == "Bearer";
        },
        1);
    ASSERT_EQ(polls.size(), 1u);
    ASSERT_TRUE(waitUntilDropped(*api));
    api.reset();
    EXPECT_TRUE(
        log.hasLine("ERROR: Received status code 401 when attempting to get mail for "
                    "mailbox : " +
                    id + ". Will delete mailbox."))
        << log.text();
}

TEST_F(MailRetrievalTest, APostedNotificationReachesTheListener) {
    const auto api = makeApi();
    const auto [mailbox, listener] = listening(*api, L"plant/line1");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    api->postNotification(L"Plant/Line1", L"{\"state\":\"started\"}", 0);
    const auto mail = listener->waitFor(1);
    ASSERT_EQ(mail.size(), 1u);
    EXPECT_EQ(mail[0].first, L"plant/line1");
    EXPECT_EQ(mail[0].second, L"{\"state\":\"started\"}");
}

TEST_F(MailRetrievalTest, ThreeNotificationsOfOneReplyArriveInOrderAndTheMailboxIsPolledAgain) {
    const auto api = makeApi();
    auto mailbox = newMailbox();
    emulator_.addFault(pollReply(
        *mailbox,
        R"([{"topic":"a","content":"1"},{"topic":"b","content":"2"},{"topic":"c","content":"3"}])"));
    const auto listener = std::make_shared<RecordingListener>();
    mailbox->addListener(listener);
    api->createMailbox(mailbox, L"t");

    const auto mail = listener->waitFor(3);
    ASSERT_EQ(mail.size(), 3u);
    EXPECT_EQ(mail[0], std::make_pair(std::wstring(L"a"), std::wstring(L"1")));
    EXPECT_EQ(mail[1], std::make_pair(std::wstring(L"b"), std::wstring(L"2")));
    EXPECT_EQ(mail[2], std::make_pair(std::wstring(L"c"), std::wstring(L"3")));
    EXPECT_EQ(waitForPolls(*mailbox, 2).size(), 2u);
}

TEST_F(MailRetrievalTest, A204IsPolledAgainWithoutCallingAListener) {
    const auto api = makeApi();
    const auto [mailbox, listener] = listening(*api, L"t");
    // The emulator answers an idle poll 204 after one second; the mailbox is polled again.
    EXPECT_EQ(waitForPolls(*mailbox, 2).size(), 2u);
    EXPECT_EQ(listener->count(), 0u);
}

TEST_F(MailRetrievalTest, AnEmptyArrayIsPolledAgainWithoutCallingAListener) {
    const auto api = makeApi();
    auto mailbox = newMailbox();
    emulator_.addFault(pollReply(*mailbox, "[]"));
    const auto listener = std::make_shared<RecordingListener>();
    mailbox->addListener(listener);
    api->createMailbox(mailbox, L"t");
    // The first poll gets 200 with [] at once; the mailbox is polled again.
    const auto polls = waitForPolls(*mailbox, 2);
    EXPECT_EQ(polls.size(), 2u);
    EXPECT_EQ(listener->count(), 0u);
}

TEST_F(MailRetrievalTest, MissingTopicOrContentIsDeliveredEmpty) {
    const auto api = makeApi();
    auto mailbox = newMailbox();
    emulator_.addFault(pollReply(*mailbox, R"([{"content":"only content"},{"topic":"only"}])"));
    const auto listener = std::make_shared<RecordingListener>();
    mailbox->addListener(listener);
    api->createMailbox(mailbox, L"t");
    const auto mail = listener->waitFor(2);
    ASSERT_EQ(mail.size(), 2u);
    EXPECT_EQ(mail[0], std::make_pair(std::wstring(), std::wstring(L"only content")));
    EXPECT_EQ(mail[1], std::make_pair(std::wstring(L"only"), std::wstring()));
}

TEST_F(MailRetrievalTest, AReplyThatIsNotAnArrayStopsThatMailboxWithoutHarm) {
    expectUnreadableReplyStopsOnlyItsMailbox(R"({"not":"an array"})");
}

// Found by fuzzing the delivery: the JSON parser refuses a lone UTF-16 surrogate escape with
// std::range_error, not with its json_exception. It takes the same path as any other body the
// delivery cannot read.
TEST_F(MailRetrievalTest, AReplyWithALoneSurrogateEscapeStopsThatMailboxWithoutHarm) {
    expectUnreadableReplyStopsOnlyItsMailbox(R"([{"topic":"\ud800\u0000","content":"x"}])");
}

// The poll's answer is read at once where it arrives (its body has been read whole): a body
// that is not JSON at all takes the path of any other unreadable answer.
TEST_F(MailRetrievalTest, AReplyThatIsNotJsonStopsThatMailboxWithoutHarm) {
    ApiStatistics statistics;
    expectUnreadableReplyStopsOnlyItsMailbox("<html><body>Busy</body></html>", &statistics);
    EXPECT_EQ(statistics.pollsTransportFailures, 0u);
}

TEST_F(MailRetrievalTest, NeverTwoPollsOfOneMailboxAtOnce) {
    // While the gate holds the delivery, no next poll leaves.
    const auto api = makeApi();
    auto mailbox = newMailbox();
    emulator_.addFault(pollReply(*mailbox, R"([{"topic":"t","content":"held"}])"));
    const auto gate = std::make_shared<GateListener>();
    mailbox->addListener(gate);
    api->createMailbox(mailbox, L"t");
    ASSERT_TRUE(gate->waitEntered());
    // Within a whole emulator poll period nothing more is asked for this mailbox.
    EXPECT_EQ(waitForPolls(*mailbox, 2, std::chrono::milliseconds(1500)).size(), 1u);
    gate->open();
    EXPECT_EQ(waitForPolls(*mailbox, 2).size(), 2u);
}

TEST_F(MailRetrievalTest, A404PollDropsARegisteredMailbox) {
    const DebugLogTail log;
    auto api = makeApi();
    auto mailbox = newMailbox();
    emulator_.addFault(statusRule("GET", pollPath(*mailbox), 404, "unknown"));
    api->createMailbox(mailbox, L"t");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    ASSERT_TRUE(waitUntilDropped(*api));
    api.reset();
    EXPECT_TRUE(
        log.hasLine("ERROR: Received status code 404 when attempting to get mail for "
                    "mailbox : " +
                    mailboxIdText(*mailbox) + ". Will delete mailbox."))
        << log.text();
    EXPECT_EQ(waitForPolls(*mailbox, 2, std::chrono::milliseconds(0)).size(), 1u);
}

TEST_F(MailRetrievalTest, A404ForADroppedMailboxTurnsHasDeletedMailboxesTrue) {
    const auto api = makeApi();
    auto mailbox = newMailbox();
    emulator_.addFault(statusRule("GET", pollPath(*mailbox), 404, "unknown"));
    api->createMailbox(mailbox, L"t");
    EXPECT_TRUE(waitUntilDropped(*api));
}

TEST_F(MailRetrievalTest, APollOfAnAlreadyDeletedMailboxWritesNothing) {
    const DebugLogTail log;
    const auto api = makeApi();
    auto mailbox = newMailbox();
    mailbox->addListener(std::make_shared<RecordingListener>());
    api->createMailbox(mailbox, L"t");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    // The emulator answers the parked poll 404 when the mailbox is deleted. The poll holds
    // the mailbox until the library has handled that answer, with the API object alive.
    api->deleteMailbox(mailbox);
    const std::weak_ptr<Mailbox> polled = mailbox;
    mailbox.reset();
    ASSERT_TRUE(waitUntil([&] { return polled.expired(); }))
        << "the deleted mailbox's poll was not answered";
    EXPECT_EQ(log.countLinesStartingWith("ERROR: Received status code"), 0u) << log.text();
}

TEST_F(MailRetrievalTest, TransportFailuresKeepTheMailboxPolling) {
    const LogRecords records;
    const auto api = makeApi();
    auto mailbox = newMailbox();
    qxpemu::FaultRule dropped;
    dropped.method = "GET";
    dropped.pathPattern = pollPath(*mailbox);
    dropped.drop = true;
    dropped.times = 4;  // the HTTP library retries a dropped pooled connection once
    emulator_.addFault(dropped);
    const auto listener = std::make_shared<RecordingListener>();
    mailbox->addListener(listener);
    api->createMailbox(mailbox, L"t");
    ASSERT_GE(waitForPolls(*mailbox, 5).size(), 5u);
    api->postNotification(L"t", L"after the failures", 0);
    const auto mail = listener->waitFor(1);
    ASSERT_EQ(mail.size(), 1u);
    EXPECT_EQ(mail[0].second, L"after the failures");
    const auto messages = records.messages("TolvaCore.QxPlatformApi");
    // Capped: one record for the run of failures.
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const auto& m) { return m.rfind(L"Poll of mailbox ", 0) == 0; }),
              1);
}

TEST_F(MailRetrievalTest, MailFlowsAgainAfterThePlatformRestarts) {
    const auto api = makeApi();
    const auto [mailbox, listener] = listening(*api, L"t");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    emulator_.stop();  // cuts the parked poll off
    emulator_.start();
    const std::size_t pollsBefore = waitForPolls(*mailbox, 1).size();
    ASSERT_EQ(waitForPolls(*mailbox, pollsBefore + 1).size(), pollsBefore + 1);
    api->postNotification(L"t", L"after the restart", 0);
    const auto mail = listener->waitFor(1);
    ASSERT_EQ(mail.size(), 1u);
    EXPECT_EQ(mail[0].second, L"after the restart");
}

TEST_F(MailRetrievalTest, RequestAndReplyAnsweredByASecondApiObject) {
    // The responder answers from inside its listener, calling back into its API object.
    class Responder : public MailboxListener {
      public:
        explicit Responder(std::shared_ptr<QxPlatformApi> api) : api_(std::move(api)) {}
        void onMailReceived(const std::wstring&, const std::wstring& content) override {
            api_->postNotification(L"replies/r1", L"pong to " + content, 0);
        }

      private:
        std::shared_ptr<QxPlatformApi> api_;
    };
    auto responderApi = makeApi();
    const auto requester = makeApi();
    auto inbox = newMailbox();
    inbox->addListener(std::make_shared<Responder>(responderApi));
    responderApi->createMailbox(inbox, L"service/requests");
    ASSERT_EQ(waitForPolls(*inbox, 1).size(), 1u);

    const std::wstring reply = requester->postNotificationAndWaitForReply(
        L"service/requests", L"ping", L"replies/r1", Clock::now() + std::chrono::seconds(20));
    EXPECT_EQ(reply, L"pong to ping");
    EXPECT_TRUE(requester->hasDeletedMailboxes());
    // The responder's listener holds its API object: break the cycle before teardown.
    stopServing(std::move(responderApi), std::move(inbox));
}

TEST_F(MailRetrievalTest, ATimeOutReturnsEmptyAtTheDeadline) {
    const auto api = makeApi();
    const auto started = Clock::now();
    const auto deadline = started + std::chrono::milliseconds(1500);
    const std::wstring reply = api->postNotificationAndWaitForReply(L"nobody/listens", L"hello",
                                                                    L"replies/none", deadline);
    const auto ended = Clock::now();
    EXPECT_EQ(reply, L"");
    EXPECT_GE(ended, deadline);
    EXPECT_LT(ended - deadline, std::chrono::seconds(5));
    // The temporary mailbox was deleted again.
    EXPECT_TRUE(api->hasDeletedMailboxes());
    std::size_t deletes = 0;
    for (const auto& request : emulator_.requests()) {
        deletes += request.method == "DELETE" ? 1 : 0;
    }
    EXPECT_EQ(deletes, 1u);
}

TEST_F(MailRetrievalTest, AFailedPostLeavesTheTemporaryMailboxInPlace) {
    const auto api = makeApi();
    emulator_.addFault(statusRule("POST", kNotificationsPath, 500, "refused"));
    EXPECT_EQ(thrownText<std::runtime_error>([&] {
                  api->postNotificationAndWaitForReply(L"t", L"c", L"replies/x",
                                                       Clock::now() + std::chrono::seconds(5));
              }),
              "refused");
    // Still registered and polled, not deleted.
    EXPECT_FALSE(api->hasDeletedMailboxes());
    EXPECT_GE(waitForMatching(
                  [](const qxpemu::RecordedRequest& r) {
                      return r.method == "GET" &&
                             r.target.rfind(std::string(kNotificationsPath) + "/", 0) == 0;
                  },
                  1)
                  .size(),
              1u);
    for (const auto& request : emulator_.requests()) {
        EXPECT_NE(request.method, "DELETE");
    }
}

// Lets go of the last reference to `api` and checks that its end took under 5 seconds and
// wrote its one "It took" line.
template <typename Api>
void endWithinFiveSeconds(std::shared_ptr<Api>& api, const DebugLogTail& log) {
    const auto started = Clock::now();
    api.reset();
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(log.countLinesStartingWith("TRACE: It took "), 1u);
}

TEST_F(MailRetrievalTest, TeardownWithAHundredPollsOutstandingEndsPromptly) {
    const DebugLogTail log;
    auto api = makeApi();
    const auto mailboxes = pollingMailboxes(*api, 100);
    ASSERT_EQ(mailboxes.size(), 100u);
    endWithinFiveSeconds(api, log);
    // Nothing polls once the object is gone: a polling thread still running would send a
    // mailbox's next poll within a second (the platform answers idle polls after one).
    const std::size_t requestsAfter = emulator_.requests().size();
    EXPECT_EQ(emulator_.waitForRequests(requestsAfter + 1, std::chrono::milliseconds(2500)).size(),
              requestsAfter);
}

// The platform keeps these polls for its full 30 seconds, so an end that waited for them
// instead of cancelling them would take that long.
class LongPollTeardownTest : public MailTest {
  protected:
    LongPollTeardownTest() : MailTest(testEmulatorOptions()) {}
};

TEST_F(LongPollTeardownTest, TheObjectsEndCancelsParkedPollsInsteadOfWaitingForThem) {
    const DebugLogTail log;
    const LogRecords records;
    auto api = makeApi();
    const auto mailboxes = pollingMailboxes(*api, 100);
    ASSERT_EQ(mailboxes.size(), 100u);
    endWithinFiveSeconds(api, log);
    // A cancelled poll is not a transport failure to retry: none is sent again, and none is
    // reported as failed.
    for (const auto& mailbox : mailboxes) {
        EXPECT_EQ(waitForPolls(*mailbox, 2, std::chrono::milliseconds(0)).size(), 1u);
    }
    for (const auto& message : records.messages("TolvaCore.QxPlatformApi")) {
        EXPECT_NE(message.rfind(L"Poll of mailbox ", 0), 0u) << narrow(message);
    }
}

}  // namespace
}  // namespace TolvaRestTest
