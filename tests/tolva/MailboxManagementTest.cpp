// Mailbox management against the emulator: the create, subscribe, unsubscribe and delete
// requests, what each failure gives the caller and the logs, and the mailbox table.
#include "MailTestSupport.h"

#include <ZuCore/InvalidArgumentException.h>

#include <fstream>
#include <locale>
#include <stdexcept>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;

class MailboxManagementTest : public MailTest {
  protected:
    void SetUp() override {
        MailTest::SetUp();
        api_ = makeApi();
        emulator_.clearRequests();
    }

    // The message of the std::invalid_argument a call throws, "" when it throws none.
    template <class Call>
    static std::string invalidArgumentMessage(Call&& call) {
        try {
            call();
        } catch (const std::invalid_argument& e) {
            return e.what();
        }
        return "";
    }

    static std::size_t pollingThreadCount() { return TolvaTest::threadsNamed("Mailbox polling"); }

    std::shared_ptr<TestApi> api_;
};

TEST_F(MailboxManagementTest, CreateSendsTheRecordAndStoresTheSecret) {
    Varkel::Zu::Logger::configureLevels("TolvaCore.QxPlatformApi=debug");
    const LogRecords records;
    const auto mailbox = newMailbox(60);
    api_->createMailbox(mailbox, L"News/Alpha");
    Varkel::Zu::Logger::reloadConfiguration();

    const auto creates = requestsTo("POST", kMailboxPath);
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(web::json::value::parse(creates[0].body),
              web::json::value::parse(
                  R"({"id":")" + mailboxIdText(*mailbox) +
                  R"(","subscription":"News/Alpha","mailboxTTL":60,"durable":true})"));
    EXPECT_EQ(creates[0].header("Accept"), "application/json");
    EXPECT_EQ(creates[0].header("Content-Type"), "application/json");
    EXPECT_EQ(creates[0].header("User-Agent"), "Tolva");
    EXPECT_EQ(creates[0].header("Authorization"),
              "Bearer " + narrow(api_->getCurrentTokenCopy().accessToken));
    EXPECT_FALSE(mailbox->getSecret().empty());
    const auto messages = records.messages("TolvaCore.QxPlatformApi");
    EXPECT_NE(std::find(messages.begin(), messages.end(), L"Mailbox creation successful"),
              messages.end());
}

TEST_F(MailboxManagementTest, AMailboxWithTtl0HasNoMailboxTTLMember) {
    const auto mailbox = newMailbox(0);
    mailbox->setDurable(false);
    api_->createMailbox(mailbox, L"t");
    const auto creates = requestsTo("POST", kMailboxPath);
    ASSERT_EQ(creates.size(), 1u);
    const auto body = web::json::value::parse(creates[0].body);
    EXPECT_FALSE(body.has_field("mailboxTTL"));
    EXPECT_EQ(body.size(), 3u);
    EXPECT_FALSE(body.at("durable").as_bool());
}

TEST_F(MailboxManagementTest, AReplyWithoutSecretSucceedsAndLeavesItEmpty) {
    emulator_.addFault(statusRule("POST", kMailboxPath, 200, "{}", "application/json"));
    const auto mailbox = newMailbox();
    // The canned answer makes no mailbox on the platform, which would answer its polls 404
    // and so drop it from the table; here they are answered "no mail" instead.
    qxpemu::FaultRule idle = statusRule("GET", pollPath(*mailbox), 204);
    idle.times = -1;
    emulator_.addFault(idle);
    api_->createMailbox(mailbox, L"t");
    EXPECT_TRUE(mailbox->getSecret().empty());
    // Kept in the table and polled: a second poll leaves once the first has been answered.
    ASSERT_EQ(waitForPolls(*mailbox, 2).size(), 2u);
    EXPECT_FALSE(api_->hasDeletedMailboxes());
}

TEST_F(MailboxManagementTest, AFailedCreateThrowsAndRegistersNothing) {
    const DebugLogTail log;
    const auto mailbox = newMailbox();
    api_->createMailbox(mailbox, L"t");
    // The same id again: the platform answers 409.
    const auto twin = Varkel::Zu::MakeShared::create<Mailbox>(mailbox->getId(), 0u, true);
    emulator_.clearRequests();
    try {
        api_->createMailbox(twin, L"t");
        FAIL() << "a duplicate mailbox was created";
    } catch (const web::http::http_exception&) {
        FAIL() << "the HTTP library's exception leaked out";
    } catch (const std::exception& e) {
        EXPECT_FALSE(std::string(e.what()).empty());
    }
    EXPECT_TRUE(log.hasLine("ERROR: Create Mailbox failed 409 Conflict")) << log.text();
    EXPECT_TRUE(twin->getSecret().empty());
}

TEST_F(MailboxManagementTest, ANotCreatedMailboxIsNotRegistered) {
    emulator_.addFault(statusRule("POST", kMailboxPath, 500, "down"));
    const auto mailbox = newMailbox();
    EXPECT_EQ(thrownText<std::runtime_error>([&] { api_->createMailbox(mailbox, L"t"); }), "down");
    EXPECT_FALSE(api_->hasDeletedMailboxes());
    EXPECT_THROW(api_->deleteMailbox(mailbox), Varkel::Zu::InvalidArgumentException);
    EXPECT_EQ(pollingThreadCount(), 0u);
}

TEST_F(MailboxManagementTest, ANilIdOrEmptySubscriptionIsRefusedBeforeAnyRequest) {
    const auto nil = Varkel::Zu::MakeShared::create<Mailbox>(boost::uuids::uuid{}, 0u, true);
    const auto mailbox = newMailbox();
    EXPECT_EQ(invalidArgumentMessage([&] { api_->createMailbox(nil, L"t"); }),
              "Invalid mailbox id");
    EXPECT_EQ(invalidArgumentMessage([&] { api_->createMailbox(mailbox, L""); }),
              "Invalid mailbox subscription");
    EXPECT_EQ(invalidArgumentMessage([&] { api_->subscribeTopic(nil, L"t"); }),
              "Invalid mailbox id");
    EXPECT_EQ(invalidArgumentMessage([&] { api_->subscribeTopic(mailbox, L""); }),
              "Invalid mailbox subscription");
    EXPECT_EQ(invalidArgumentMessage([&] { api_->unsubscribeTopic(nil, L"t"); }),
              "Invalid mailbox id");
    EXPECT_EQ(invalidArgumentMessage([&] { api_->unsubscribeTopic(mailbox, L""); }),
              "Invalid mailbox subscription");
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(MailboxManagementTest, TopicsAreLowerCasedAndPercentEncoded) {
    Varkel::Zu::Logger::configureLevels("TolvaCore.QxPlatformApi=debug");
    const LogRecords records;
    const auto mailbox = newMailbox();
    api_->createMailbox(mailbox, L"t");
    const std::string base = std::string(kMailboxPath) + "/" + mailboxIdText(*mailbox);
    emulator_.clearRequests();

    api_->subscribeTopic(mailbox, L"News/Alpha");
    api_->subscribeTopic(mailbox, L"Plant Line");
    {
        // Letters beyond ASCII are lowered by the global locale's rules: C.UTF-8 knows them,
        // the classic "C" locale leaves them as they are.
        const std::locale previous = std::locale::global(std::locale("C.UTF-8"));
        api_->subscribeTopic(mailbox, L"\u00c4rger");
        std::locale::global(previous);
    }
    api_->unsubscribeTopic(mailbox, L"News/Alpha");
    Varkel::Zu::Logger::reloadConfiguration();

    // The mailbox's polls are there too; only the subscription changes count here.
    std::vector<qxpemu::RecordedRequest> requests;
    for (const auto& request : emulator_.requests()) {
        if (request.method == "POST") {
            requests.push_back(request);
        }
    }
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].target, base + "/subscribe/news%2Falpha");
    EXPECT_EQ(requests[1].target, base + "/subscribe/plant%20line");
    EXPECT_EQ(requests[2].target, base + "/subscribe/%C3%A4rger");
    EXPECT_EQ(requests[3].target, base + "/unsubscribe/news%2Falpha");
    for (const auto& request : requests) {
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.header("Accept"), "application/json");
        EXPECT_EQ(request.header("User-Agent"), "Tolva");
        EXPECT_EQ(request.header("Authorization"),
                  "Bearer " + narrow(api_->getCurrentTokenCopy().accessToken));
        EXPECT_TRUE(request.body.empty());
    }
    const auto messages = records.messages("TolvaCore.QxPlatformApi");
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         L"Successfully subscribed the mailbox to new topic."),
              3);
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         L"Successfully unsubscribed the topic from the mailbox."),
              1);
}

TEST_F(MailboxManagementTest, SubscriptionFailuresThrowTheHttpException) {
    const DebugLogTail log;
    // A mailbox the platform does not know: 404 for both.
    const auto unknown = newMailbox();
    try {
        api_->subscribeTopic(unknown, L"t");
        FAIL() << "subscribed an unknown mailbox";
    } catch (const web::http::http_exception& e) {
        EXPECT_EQ(e.error_code().value(), 404);
    }
    EXPECT_THROW(api_->unsubscribeTopic(unknown, L"t"), web::http::http_exception);
    EXPECT_TRUE(log.hasLine("ERROR: Failed to add subscription to the mailbox 404 Not Found."))
        << log.text();
    EXPECT_TRUE(log.hasLine("ERROR: Failed to unsubscription from the mailbox 404 Not Found."))
        << log.text();
}

TEST_F(MailboxManagementTest, DeleteAddressesTheMailboxBySecret) {
    Varkel::Zu::Logger::configureLevels("TolvaCore.QxPlatformApi=debug");
    const LogRecords records;
    const auto mailbox = newMailbox();
    api_->createMailbox(mailbox, L"t");
    emulator_.clearRequests();
    api_->deleteMailbox(mailbox);
    Varkel::Zu::Logger::reloadConfiguration();

    const auto deletes = requestsTo(
        "DELETE",
        std::string(kMailboxPath) + "/" +
            narrow(Varkel::Zu::CommonUtil::encodeUnsafeURLCharacters(mailbox->getSecret())));
    ASSERT_EQ(deletes.size(), 1u);
    EXPECT_EQ(deletes[0].header("Accept"), "application/json");
    EXPECT_EQ(deletes[0].header("User-Agent"), "Tolva");
    const auto messages = records.messages("TolvaCore.QxPlatformApi");
    EXPECT_NE(std::find(messages.begin(), messages.end(),
                        L"Deleted mailbox with id \"" + widen(mailboxIdText(*mailbox)) + L"\"."),
              messages.end());
    EXPECT_THROW(api_->deleteMailbox(mailbox), Varkel::Zu::InvalidArgumentException);
}

TEST_F(MailboxManagementTest, ADeleteAnswered404IsOnlyAWarning) {
    const LogRecords records;
    const auto mailbox = newMailbox();
    api_->createMailbox(mailbox, L"t");
    emulator_.addFault(statusRule("DELETE", std::string(kMailboxPath) + "/.*", 404, "gone"));
    EXPECT_NO_THROW(api_->deleteMailbox(mailbox));
    bool warned = false;
    for (const auto& record : records.records()) {
        warned = warned || (record.level == "warn" &&
                            record.message == L"Mailbox seems to have already been deleted.");
    }
    EXPECT_TRUE(warned);
}

TEST_F(MailboxManagementTest, AFailedDeleteThrowsAndTheMailboxIsForgottenAllTheSame) {
    const DebugLogTail log;
    const auto mailbox = newMailbox();
    api_->createMailbox(mailbox, L"t");
    emulator_.addFault(statusRule("DELETE", std::string(kMailboxPath) + "/.*", 500, "no"));
    EXPECT_THROW(api_->deleteMailbox(mailbox), web::http::http_exception);
    EXPECT_TRUE(log.hasLine("ERROR: Failed to delete the mailbox 500 Internal Server Error."));
    const LogRecords records;
    try {
        api_->deleteMailbox(mailbox);
        FAIL() << "a forgotten mailbox was deleted again";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e),
                  L"Mailbox was not created by this instance of the QX Platform API.");
    }
    EXPECT_EQ(
        requestsTo("DELETE", std::string(kMailboxPath) + "/" + narrow(mailbox->getSecret())).size(),
        1u);
}

TEST_F(MailboxManagementTest, HasDeletedMailboxesFollowsTheTable) {
    EXPECT_FALSE(api_->hasDeletedMailboxes());
    const auto first = newMailbox();
    const auto second = newMailbox();
    api_->createMailbox(first, L"a");
    api_->createMailbox(second, L"b");
    EXPECT_FALSE(api_->hasDeletedMailboxes());
    api_->deleteMailbox(first);
    EXPECT_FALSE(api_->hasDeletedMailboxes());
    api_->deleteMailbox(second);
    EXPECT_TRUE(api_->hasDeletedMailboxes());
}

TEST_F(MailboxManagementTest, ASecondMailboxDoesNotStartASecondPollingThread) {
    EXPECT_EQ(pollingThreadCount(), 0u);
    const auto first = newMailbox();
    const auto second = newMailbox();
    api_->createMailbox(first, L"a");
    api_->createMailbox(second, L"b");
    // Both polled: the thread has named itself and taken both mailboxes by then.
    ASSERT_EQ(waitForPolls(*first, 1).size(), 1u);
    ASSERT_EQ(waitForPolls(*second, 1).size(), 1u);
    EXPECT_EQ(pollingThreadCount(), 1u);
}

}  // namespace
}  // namespace TolvaRestTest
