// A mailbox's life with the default rules: a failed deletion, deleting and creating again
// (inside a listener and from another thread), what the host is told when a mailbox stops or
// the token cannot be renewed, and what request and reply leaves in the statistics.
#include "MailTestSupport.h"

#include <TolvaCore/ApiStatistics.h>
#include <TolvaCore/RecoveryMode.h>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>

#include <atomic>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::Rest::ApiEvent;
using Varkel::Tolva::Rest::ApiStatistics;
using Varkel::Tolva::Rest::MailboxState;
using Varkel::Tolva::Rest::QxPlatformApi;
using Varkel::Tolva::Rest::RecoveryMode;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using Clock = std::chrono::steady_clock;

constexpr const char* kMailboxPath = "/notifications/api/v1/mailbox";

class MailboxLifeTest : public MailTest {
  protected:
    // Polls that the platform holds for its full 30 s: with them, a second poll cycle of one
    // mailbox shows at once (each new poll ends the one the platform holds).
    MailboxLifeTest() : MailTest(testEmulatorOptions()) {}

    // Polls of `mailbox` the platform received at or after `from`.
    std::size_t pollsSince(const Mailbox& mailbox, Clock::time_point from) const {
        const std::string target = pollTarget(mailbox);
        const auto seen = emulator_.requests();
        return static_cast<std::size_t>(std::count_if(seen.begin(), seen.end(), [&](const auto& r) {
            return r.method == "GET" && r.target == target && r.received >= from;
        }));
    }

    // Watches the platform for two seconds (or until it has seen 50 more requests) and
    // returns how many polls of `mailbox` came meanwhile. One poll cycle held by the platform
    // sends none; two cycles of one mailbox end each other's polls thousands of times a second.
    std::size_t pollsInTwoSeconds(const Mailbox& mailbox) const {
        const Clock::time_point from = Clock::now();
        emulator_.waitForRequests(emulator_.requests().size() + 50, std::chrono::seconds(2));
        return pollsSince(mailbox, from);
    }

    static const ApiStatistics::MailboxView* viewOf(const ApiStatistics& stats,
                                                    const Mailbox& mailbox) {
        const std::wstring id = widen(mailboxIdText(mailbox));
        for (const auto& view : stats.mailboxes) {
            if (view.mailboxId == id) {
                return &view;
            }
        }
        return nullptr;
    }
};

TEST_F(MailboxLifeTest, ADeleteAnsweredWithAnErrorEndsThePollingForGood) {
    const auto api = makeApi();
    ASSERT_EQ(api->recoveryMode(), RecoveryMode::Strict);
    const auto [mailbox, listener] = listening(*api, L"life/deleted");
    const auto [control, controlListener] = listening(*api, L"life/control");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    ASSERT_EQ(waitForPolls(*control, 1).size(), 1u);

    emulator_.addFault(statusRule("DELETE", std::string(kMailboxPath) + "/.*", 500));
    EXPECT_THROW(api->deleteMailbox(mailbox), web::http::http_exception);
    const Clock::time_point deleted = Clock::now();

    // The platform still has the mailbox and queues mail for it; none of it may be polled
    // or delivered. The control mailbox, polled by the same thread, shows that polling went on.
    api->postNotification(L"life/deleted", L"after the delete", 0);
    api->postNotification(L"life/control", L"first", 0);
    ASSERT_EQ(controlListener->waitFor(1).size(), 1u);
    api->postNotification(L"life/control", L"second", 0);
    ASSERT_EQ(controlListener->waitFor(2).size(), 2u);
    EXPECT_EQ(pollsSince(*mailbox, deleted), 0u);
    EXPECT_EQ(listener->count(), 0u);

    // As before: the mailbox is forgotten, and a second deletion is refused.
    EXPECT_THROW(api->deleteMailbox(mailbox), Varkel::Zu::InvalidArgumentException);
    EXPECT_EQ(viewOf(api->statistics(), *mailbox), nullptr);
    // Its cancelled poll ended because of the deletion, not as a failure.
    EXPECT_TRUE(waitUntil([&] { return api->statistics().pollsEndedByDeletion == 1; }));
    EXPECT_EQ(api->statistics().pollsStatusFailures, 0u);
    EXPECT_EQ(api->statistics().pollsTransportFailures, 0u);
}

// Deletes its mailbox and creates the same Mailbox object again, from inside the listener.
class RecreatingListener : public MailboxListener {
  public:
    RecreatingListener(std::weak_ptr<QxPlatformApi> api, std::wstring topic)
        : api_(std::move(api)), topic_(std::move(topic)) {}

    void attach(const std::shared_ptr<Mailbox>& mailbox) { mailbox_ = mailbox; }

    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        ++received;
        if (content != L"recreate") {
            return;
        }
        const auto api = api_.lock();
        const auto mailbox = mailbox_.lock();
        if (api && mailbox) {
            api->deleteMailbox(mailbox);
            api->createMailbox(mailbox, topic_);
            recreated = true;
        }
    }

    std::atomic<int> received{0};
    std::atomic<bool> recreated{false};

  private:
    std::weak_ptr<QxPlatformApi> api_;
    std::weak_ptr<Mailbox> mailbox_;
    std::wstring topic_;
};

TEST_F(MailboxLifeTest, CreatingTheMailboxAgainInsideItsListenerKeepsOnePollCycle) {
    const auto api = makeApi();
    const auto mailbox = newMailbox();
    const auto listener = std::make_shared<RecreatingListener>(api, L"life/again");
    listener->attach(mailbox);
    mailbox->addListener(listener);
    api->createMailbox(mailbox, L"life/again");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);

    api->postNotification(L"life/again", L"recreate", 0);
    ASSERT_TRUE(waitUntil([&] { return listener->recreated.load(); }));
    // The new creation's first poll, then a quiet platform.
    ASSERT_EQ(waitForPolls(*mailbox, 2).size(), 2u);
    EXPECT_LE(pollsInTwoSeconds(*mailbox), 1u);

    // Mail after the re-creation arrives once.
    api->postNotification(L"life/again", L"after", 0);
    EXPECT_TRUE(waitUntil([&] { return listener->received.load() == 2; }));
    EXPECT_LE(pollsInTwoSeconds(*mailbox), 1u);
    EXPECT_EQ(listener->received.load(), 2);
}

TEST_F(MailboxLifeTest, CreatingTheMailboxAgainFromAnotherThreadWhileItsListenerRunsKeepsOneCycle) {
    const auto api = makeApi();
    const auto mailbox = newMailbox();
    const auto gate = std::make_shared<GateListener>();
    const auto recorder = std::make_shared<RecordingListener>();
    mailbox->addListener(gate);
    mailbox->addListener(recorder);
    api->createMailbox(mailbox, L"life/gate");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);

    api->postNotification(L"life/gate", L"held", 0);
    ASSERT_TRUE(gate->waitEntered());
    // The listener holds this mailbox's delivery while the host deletes and creates it again.
    api->deleteMailbox(mailbox);
    api->createMailbox(mailbox, L"life/gate");
    ASSERT_EQ(waitForPolls(*mailbox, 2).size(), 2u);
    gate->open();
    ASSERT_EQ(recorder->waitFor(1).size(), 1u);
    EXPECT_LE(pollsInTwoSeconds(*mailbox), 1u);

    api->postNotification(L"life/gate", L"after", 0);
    ASSERT_EQ(recorder->waitFor(2).size(), 2u);
    EXPECT_LE(pollsInTwoSeconds(*mailbox), 1u);
    EXPECT_EQ(recorder->count(), 2u);
}

TEST_F(MailboxLifeTest, AMailboxStoppedByAStatusIsReportedToTheHost) {
    const DebugLogTail log;
    const LogRecords records;
    const auto api = makeApi();
    const auto events = std::make_shared<EventLog>();
    api->setEventCallback(EventLog::callbackFor(events));
    // Its first poll is answered 500.
    const auto mailbox = newMailbox();
    emulator_.addFault(statusRule("GET", pollPath(*mailbox), 500));
    api->createMailbox(mailbox, L"life/stopped");
    const std::wstring id = widen(mailboxIdText(*mailbox));
    ASSERT_TRUE(events->waitFor(ApiEvent::Kind::MailboxStopped, id));

    const auto all = events->events();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].httpStatus, 500);
    EXPECT_EQ(all[0].reason, L"answered 500 Internal Server Error");
    // On the library's own events thread, never the caller's or the HTTP pool's.
    EXPECT_EQ(events->threadNames().at(0), "QXP events");
    // The default rules as they were: the line, and the mailbox dropped.
    EXPECT_TRUE(
        log.hasLine("ERROR: Received status code 500 when attempting to get mail for "
                    "mailbox : " +
                    narrow(id) + ". Will delete mailbox."))
        << log.text();
    EXPECT_TRUE(api->hasDeletedMailboxes());
    // And a record on the events logger.
    const auto messages = records.messages("TolvaCore.Events");
    EXPECT_NE(
        std::find(messages.begin(), messages.end(),
                  L"mailboxStopped " + id + L" (HTTP 500): answered 500 Internal Server Error"),
        messages.end());

    const ApiStatistics stats = api->statistics();
    const auto* view = viewOf(stats, *mailbox);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->state, MailboxState::Stopped);
    EXPECT_EQ(view->lastHttpStatus, 500);
    EXPECT_EQ(stats.mailboxesDroppedByStatus, 1u);
    // Not polled again.
    EXPECT_EQ(pollsInTwoSeconds(*mailbox), 0u);
}

TEST_F(MailboxLifeTest, ATokenRenewalThatFailsAndRecoversIsReportedInOrder) {
    const auto api = makeApi();
    const auto events = std::make_shared<EventLog>();
    api->setEventCallback(EventLog::callbackFor(events));
    emulator_.addFault(statusRule("POST", kTokenPath, 503));
    api->clearToken();
    // The renewal fails; by default the post then goes out without a token and is refused.
    EXPECT_THROW(api->postNotification(L"life/token", L"refused", 0), std::exception);
    ASSERT_TRUE(events->waitFor(ApiEvent::Kind::TokenRenewalFailed));
    api->postNotification(L"life/token", L"accepted", 0);
    ASSERT_TRUE(events->waitFor(ApiEvent::Kind::TokenRenewalRecovered));
    const auto all = events->events();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].kind, ApiEvent::Kind::TokenRenewalFailed);
    EXPECT_EQ(all[1].kind, ApiEvent::Kind::TokenRenewalRecovered);
    EXPECT_TRUE(all[0].subject.empty());
}

TEST_F(MailboxLifeTest, ASuccessfulRequestAndReplyCountsNoFailure) {
    const auto api = makeApi();
    const auto responderApi = makeApi();
    // Answers every request on "life/requests" with "pong" on "life/replies".
    class Responder : public MailboxListener {
      public:
        explicit Responder(std::weak_ptr<QxPlatformApi> poster) : poster_(std::move(poster)) {}
        void onMailReceived(const std::wstring&, const std::wstring&) override {
            if (const auto poster = poster_.lock()) {
                poster->postNotification(L"life/replies", L"pong", 0);
            }
        }

      private:
        std::weak_ptr<QxPlatformApi> poster_;
    };
    const auto responder = newMailbox();
    responder->addListener(std::make_shared<Responder>(responderApi));
    responderApi->createMailbox(responder, L"life/requests");
    ASSERT_EQ(waitForPolls(*responder, 1).size(), 1u);

    EXPECT_EQ(api->postNotificationAndWaitForReply(L"life/requests", L"ping", L"life/replies",
                                                   Clock::now() + std::chrono::seconds(20)),
              L"pong");
    // A poll of the temporary mailbox that was out when it was deleted ends with the deletion:
    // not a failure, nothing dropped.
    EXPECT_TRUE(waitUntil([&] { return api->statistics().pollsInFlight == 0; }));
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.pollsSent, stats.pollsWithMail + stats.pollsEmpty + stats.pollsEndedByDeletion);
    EXPECT_EQ(stats.pollsStatusFailures, 0u);
    EXPECT_EQ(stats.mailboxesDroppedByStatus, 0u);
    EXPECT_TRUE(stats.mailboxes.empty());
    responderApi->deleteMailbox(responder);
}

}  // namespace
}  // namespace TolvaRestTest
