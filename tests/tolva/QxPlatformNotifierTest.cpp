// QxPlatformNotifier: construction, fire-and-forget posting in order on the notifier's own
// worker, empty posts dropped, failures that never reach the caller, and the capped line when
// the worker refuses a message.
#include "RestTestSupport.h"

#include <TolvaCore/QxPlatformNotifier.h>

#include <ZuCore/InvalidArgumentException.h>

#include <chrono>
#include <fstream>

namespace TolvaRestTest {
namespace {

using TolvaTest::threadsNamed;

using Varkel::Tolva::QxPlatformNotifier;
using Varkel::Zu::ThreadEnum;
using Clock = std::chrono::steady_clock;

// Gives the tests the worker, to stop it early.
class TestNotifier : public QxPlatformNotifier {
  public:
    TestNotifier(Varkel::Zu::PrivateConstructorType tag, const std::wstring& name,
                 const std::shared_ptr<QxPlatformApi>& api)
        : QxPlatformNotifier(tag, name, api, ThreadEnum::Priority::Normal) {}
    using QxPlatformNotifier::getWorker;
};

class QxPlatformNotifierTest : public RestTest {
  protected:
    void SetUp() override {
        RestTest::SetUp();
        api_ = makeApi();
        emulator_.clearRequests();
    }

    std::shared_ptr<TestNotifier> makeNotifier(const std::wstring& name = L"Alerts") {
        return Varkel::Zu::MakeShared::create<TestNotifier>(name, api_);
    }

    std::vector<qxpemu::RecordedRequest> waitForPosts(std::size_t count) {
        return waitForMatching(
            [](const qxpemu::RecordedRequest& r) {
                return r.method == "POST" && r.target == kNotificationsPath;
            },
            count);
    }

    std::shared_ptr<TestApi> api_;
};

TEST_F(QxPlatformNotifierTest, ANullApiIsRefusedAndStartsNoThread) {
    const LogRecords records;
    const std::size_t before = threadsNamed("Nil QXP notif");
    try {
        Varkel::Zu::MakeShared::create<QxPlatformNotifier>(std::wstring(L"Nil"), nullptr,
                                                           ThreadEnum::Priority::Normal);
        FAIL() << "a notifier without an API object was made";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e), L"Invalid QX Platform API.");
    }
    EXPECT_EQ(threadsNamed("Nil QXP notif"), before);
    bool logged = false;
    for (const auto& record : records.records()) {
        logged = logged ||
                 (record.logger == "root" &&
                  record.message.rfind(
                      L"THROWING EXCEPTION with message : Invalid QX Platform API. in ", 0) == 0 &&
                  record.message.find(L"(api/Tolva/Tolva/TolvaCore/QxPlatformNotifier(") !=
                      std::wstring::npos);
    }
    EXPECT_TRUE(logged);
}

TEST_F(QxPlatformNotifierTest, TheWorkerIsNamedAfterTheNotifier) {
    const auto notifier = makeNotifier(L"Alerts");
    EXPECT_EQ(notifier->getName(), L"Alerts");
    EXPECT_EQ(notifier->getWorker()->getName(), L"Alerts QXP notif thread");
}

TEST_F(QxPlatformNotifierTest, PostsLeaveInTheOrderTheyWereQueued) {
    const auto notifier = makeNotifier();
    for (int i = 0; i < 20; ++i) {
        notifier->postNotification(L"Plant/Alerts", L"n" + std::to_wstring(i), i == 0 ? 60 : 0);
    }
    const auto posts = waitForPosts(20);
    ASSERT_EQ(posts.size(), 20u);
    for (int i = 0; i < 20; ++i) {
        const auto body = web::json::value::parse(posts[static_cast<std::size_t>(i)].body);
        EXPECT_EQ(body.at("content").as_string(), "n" + std::to_string(i));
        EXPECT_EQ(body.at("topic").as_string(), "plant/alerts");
    }
    // The value is passed through as the time to live.
    EXPECT_EQ(web::json::value::parse(posts[0].body).at("ttl").as_integer(), 60);
    EXPECT_FALSE(web::json::value::parse(posts[1].body).has_field("ttl"));
}

TEST_F(QxPlatformNotifierTest, AnEmptyTopicOrContentIsDroppedByTheWorker) {
    const auto notifier = makeNotifier();
    notifier->postNotification(L"", L"content", 0);
    notifier->postNotification(L"topic", L"", 0);
    notifier->postNotification(L"topic", L"after the empty ones", 0);
    const auto posts = waitForPosts(1);
    ASSERT_EQ(posts.size(), 1u);
    // Queued in order, so the empty ones were handled (and dropped) before this one went.
    EXPECT_EQ(web::json::value::parse(posts[0].body).at("content").as_string(),
              "after the empty ones");
}

TEST_F(QxPlatformNotifierTest, PostingReturnsBeforeTheRequestAndAFailureNeverReachesTheCaller) {
    const LogRecords records;
    qxpemu::FaultRule slowFailure = statusRule("POST", kNotificationsPath, 500, "down");
    slowFailure.delayMs = 1500;
    emulator_.addFault(slowFailure);
    const auto notifier = makeNotifier();
    EXPECT_NO_THROW(notifier->postNotification(L"t", L"c", 0));
    const auto returned = Clock::now();
    // The call returned before the platform answered, 1.5 s after the request arrived, however
    // slow the machine; the 500 stays with the worker.
    const auto posts = waitForPosts(1);
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_LT(returned, posts[0].received + std::chrono::milliseconds(1500));
    notifier->postNotification(L"t", L"second", 0);
    ASSERT_EQ(waitForPosts(2).size(), 2u);
    EXPECT_TRUE(records.messages("TolvaCore.QxPlatformNotifier").empty());
}

TEST_F(QxPlatformNotifierTest, ARefusedPostIsLoggedAtMostOnceInFiveSeconds) {
    const LogRecords records;
    const auto notifier = makeNotifier();
    notifier->getWorker()->stop(false);
    EXPECT_NO_THROW(notifier->postNotification(L"t", L"refused", 0));
    EXPECT_NO_THROW(notifier->postNotification(L"t", L"refused again", 0));
    const auto lines = records.messages("TolvaCore.QxPlatformNotifier");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind(L"Failed to post QXP notif message: ", 0), 0u);
    EXPECT_GT(lines[0].size(), std::wstring(L"Failed to post QXP notif message: ").size());
    EXPECT_TRUE(requestsTo("POST", kNotificationsPath).empty());
}

TEST_F(QxPlatformNotifierTest, DestructionDropsWhatIsStillQueued) {
    qxpemu::FaultRule slow;
    slow.method = "POST";
    slow.pathPattern = kNotificationsPath;
    slow.delayMs = 800;
    slow.times = -1;
    emulator_.addFault(slow);
    auto notifier = makeNotifier();
    for (int i = 0; i < 5; ++i) {
        notifier->postNotification(L"t", L"n" + std::to_wstring(i), 0);
    }
    ASSERT_EQ(waitForPosts(1).size(), 1u);
    notifier.reset();
    // The post under way finished; the four behind it were dropped.
    EXPECT_EQ(requestsTo("POST", kNotificationsPath).size(), 1u);
}

}  // namespace
}  // namespace TolvaRestTest
