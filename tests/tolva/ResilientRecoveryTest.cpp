// The opt-in resilient recovery against the same faults in both modes: with the default rules
// each fault does what it always did (a token cleared, a mailbox dropped, a lost service left
// alone, a reply mailbox left behind); with resilient recovery nothing is lost and mail posted
// after the fault is delivered once. Also the mode's environment variable.
#include "MailTestSupport.h"
#include "ModelTestSupport.h"

#include <TolvaCore/ApiStatistics.h>
#include <TolvaCore/RecoveryMode.h>

#include <ZuCore/StringConversion.h>

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

std::string modeName(const ::testing::TestParamInfo<bool>& test) {
    return test.param ? "Resilient" : "Strict";
}

class ResilientRecoveryTest : public MailTest {
  protected:
    std::shared_ptr<TestApi> makeApi(RecoveryMode mode) {
        auto api = RestTest::makeApi();
        api->setRecoveryMode(mode);
        api->setEventCallback(EventLog::callbackFor(events_));
        return api;
    }

    std::size_t platformMailboxes() const {
        return web::json::value::parse(emulator_.state()).at("mailboxes").as_array().size();
    }

    // Polls sent without a token ("Bearer" and nothing after it).
    std::size_t pollsWithoutToken() const {
        const auto seen = emulator_.requests();
        return static_cast<std::size_t>(std::count_if(seen.begin(), seen.end(), [](const auto& r) {
            return r.method == "GET" && r.target.rfind(kNotificationsPath, 0) == 0 &&
                   r.header("Authorization") == "Bearer";
        }));
    }

    std::shared_ptr<EventLog> events_ = std::make_shared<EventLog>();
};

TEST_F(ResilientRecoveryTest, TheModeComesFromTheEnvironment) {
    {
        const ScopedEnv env("TOLVA_RECOVERY", std::string("Resilient"));
        EXPECT_EQ(RestTest::makeApi()->recoveryMode(), RecoveryMode::Resilient);
    }
    {
        const ScopedEnv env("TOLVA_RECOVERY", std::string("strict"));
        EXPECT_EQ(RestTest::makeApi()->recoveryMode(), RecoveryMode::Strict);
    }
    {
        const LogRecords records;
        const ScopedEnv env("TOLVA_RECOVERY", std::string("sometimes"));
        EXPECT_EQ(RestTest::makeApi()->recoveryMode(), RecoveryMode::Strict);
        const auto messages = records.messages("TolvaCore.QxPlatformApi");
        EXPECT_NE(
            std::find(messages.begin(), messages.end(),
                      L"TOLVA_RECOVERY is neither \"strict\" nor \"resilient\"; using strict."),
            messages.end());
    }
    const ScopedEnv env("TOLVA_RECOVERY", std::nullopt);
    EXPECT_EQ(RestTest::makeApi()->recoveryMode(), RecoveryMode::Strict);
}

// Re-applying the key (or the URL) clears the token: by default the next polls go out without
// one, are refused and drop their mailboxes; resilient polls wait for the new token.
class KeyReapplied : public ResilientRecoveryTest, public ::testing::WithParamInterface<bool> {};

TEST_P(KeyReapplied, KeepsEveryMailboxPollingOnlyWhenResilient) {
    const bool resilient = GetParam();
    const auto api = makeApi(resilient ? RecoveryMode::Resilient : RecoveryMode::Strict);
    const auto mailboxes = pollingMailboxes(*api, 4);
    ASSERT_EQ(mailboxes.size(), 4u);
    api->setPlatformApiKey(api->getPlatformApiKey());
    api->setPlatformUrl(api->getPlatformUrl());
    if (!resilient) {
        // Their next polls, within the platform's one-second wait, carry no token.
        ASSERT_TRUE(waitUntil([&] { return api->hasDeletedMailboxes(); }));
        EXPECT_GE(pollsWithoutToken(), 1u);
        EXPECT_TRUE(waitUntil([&] { return events_->count(ApiEvent::Kind::MailboxStopped) == 4; }));
        return;
    }
    // Each mailbox is polled on, through the time without a token.
    for (const auto& mailbox : mailboxes) {
        ASSERT_EQ(waitForPolls(*mailbox, 3).size(), 3u);
    }
    const auto listener = std::make_shared<RecordingListener>();
    for (const auto& mailbox : mailboxes) {
        mailbox->addListener(listener);
    }
    for (int i = 0; i < 4; ++i) {
        api->postNotification(L"t" + std::to_wstring(i), L"after", 0);
    }
    EXPECT_EQ(listener->waitFor(4).size(), 4u);
    EXPECT_EQ(pollsWithoutToken(), 0u);
    EXPECT_FALSE(api->hasDeletedMailboxes());
    EXPECT_EQ(api->statistics().mailboxesDroppedByStatus, 0u);
}

INSTANTIATE_TEST_SUITE_P(Modes, KeyReapplied, ::testing::Values(false, true), modeName);

// A renewal answered 503 while the token still has some minutes: by default the token is
// cleared and the post goes out without one; resilient keeps it and the post succeeds.
class RenewalAnswered503 : public ResilientRecoveryTest,
                           public ::testing::WithParamInterface<bool> {};

TEST_P(RenewalAnswered503, KeepsTheStillValidTokenOnlyWhenResilient) {
    const bool resilient = GetParam();
    // Valid for 200 s, so due for renewal at every call (300 s before its end).
    emulator_.setTokenLifetime(200);
    const auto api = makeApi(resilient ? RecoveryMode::Resilient : RecoveryMode::Strict);
    const std::wstring token = api->getCurrentAccessToken();
    ASSERT_FALSE(token.empty());
    auto rule = statusRule("POST", kTokenPath, 503);
    rule.times = -1;
    emulator_.addFault(rule);
    if (resilient) {
        api->postNotification(L"resilient/token", L"kept", 0);
        EXPECT_EQ(api->getCurrentAccessToken(), token);
    } else {
        EXPECT_THROW(api->postNotification(L"resilient/token", L"refused", 0), std::exception);
        EXPECT_TRUE(api->getCurrentAccessToken().empty());
    }
    EXPECT_TRUE(events_->waitFor(ApiEvent::Kind::TokenRenewalFailed));
    EXPECT_EQ(events_->count(ApiEvent::Kind::TokenRenewalFailed), 1u);
}

INSTANTIATE_TEST_SUITE_P(Modes, RenewalAnswered503, ::testing::Values(false, true), modeName);

// Without any token (the renewal failed and nothing valid is left): by default a post goes out
// with an empty bearer and is refused; resilient does not send it.
TEST_P(RenewalAnswered503, WithNoTokenLeftARequestIsSentOnlyByDefault) {
    const bool resilient = GetParam();
    const auto api = makeApi(resilient ? RecoveryMode::Resilient : RecoveryMode::Strict);
    auto rule = statusRule("POST", kTokenPath, 503);
    rule.times = -1;
    emulator_.addFault(rule);
    api->clearToken();
    const std::string failure = thrownText<std::runtime_error>(
        [&] { api->postNotification(L"resilient/none", L"no token", 0); });
    const auto posts = requestsTo("POST", kNotificationsPath);
    if (resilient) {
        EXPECT_EQ(failure,
                  "No access token (the last token request failed); the request was not sent.");
        EXPECT_TRUE(posts.empty());
    } else {
        ASSERT_EQ(posts.size(), 1u);
        EXPECT_EQ(posts[0].header("Authorization"), "Bearer");
    }
}

// The platform goes away while the token is due for renewal and comes back with its state:
// by default the failed renewal clears the token; resilient keeps it, and the mailbox polls
// on with it once the platform is back.
TEST_P(RenewalAnswered503, AnOutageAcrossARenewalKeepsTheMailOnlyWhenResilient) {
    const bool resilient = GetParam();
    // Valid for 301 s: due for renewal from the start, valid all through the test.
    emulator_.setTokenLifetime(301);
    const auto api = makeApi(resilient ? RecoveryMode::Resilient : RecoveryMode::Strict);
    const auto [mailbox, listener] = listening(*api, L"resilient/outage");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    const std::wstring token = api->getCurrentAccessToken();

    emulator_.stop();
    // A validating call during the outage: its renewal and its own request fail.
    EXPECT_THROW(api->postNotification(L"resilient/outage", L"lost", 0), std::exception);
    EXPECT_TRUE(events_->waitFor(ApiEvent::Kind::TokenRenewalFailed));
    if (!resilient) {
        EXPECT_TRUE(api->getCurrentAccessToken().empty());
        emulator_.start();
        return;
    }
    EXPECT_EQ(api->getCurrentAccessToken(), token);
    const std::size_t pollsBefore = requestsTo("GET", pollTarget(*mailbox)).size();
    emulator_.start();
    ASSERT_EQ(waitForPolls(*mailbox, pollsBefore + 1).size(), pollsBefore + 1);
    api->postNotification(L"resilient/outage", L"after", 0);
    const auto mail = listener->waitFor(1);
    ASSERT_EQ(mail.size(), 1u);
    EXPECT_EQ(mail[0].second, L"after");
    EXPECT_FALSE(api->hasDeletedMailboxes());
    EXPECT_EQ(events_->count(ApiEvent::Kind::MailboxStopped), 0u);
    EXPECT_TRUE(events_->waitFor(ApiEvent::Kind::TokenRenewalRecovered));
}

// A poll answered with a status a proxy or a busy platform gives: by default the mailbox is
// dropped; resilient backs off, polls again, and the mail posted after it arrives.
class PollStatus : public ResilientRecoveryTest,
                   public ::testing::WithParamInterface<std::tuple<int, bool>> {};

TEST_P(PollStatus, IsRetriedOnlyWhenResilient) {
    const int status = std::get<0>(GetParam());
    const bool resilient = std::get<1>(GetParam());
    const DebugLogTail log;
    const auto api = makeApi(resilient ? RecoveryMode::Resilient : RecoveryMode::Strict);
    const auto [mailbox, listener] = listening(*api, L"resilient/status");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    const std::wstring id = widen(mailboxIdText(*mailbox));
    const std::size_t tokensBefore = tokenRequestCount();
    auto rule = statusRule("GET", pollPath(*mailbox), status);
    rule.times = 2;
    emulator_.addFault(rule);
    if (!resilient) {
        ASSERT_TRUE(events_->waitFor(ApiEvent::Kind::MailboxStopped, id));
        EXPECT_TRUE(log.hasLine("ERROR: Received status code " + std::to_string(status) +
                                " when attempting to get mail for mailbox : " + narrow(id) +
                                ". Will delete mailbox."));
        EXPECT_TRUE(api->hasDeletedMailboxes());
        return;
    }
    ASSERT_TRUE(events_->waitFor(ApiEvent::Kind::MailboxPollingAgain, id));
    api->postNotification(L"resilient/status", L"after", 0);
    EXPECT_EQ(listener->waitFor(1).size(), 1u);
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.statusRetries, 2u);
    EXPECT_EQ(stats.mailboxesDroppedByStatus, 0u);
    const auto all = events_->events();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[0].kind, ApiEvent::Kind::MailboxBackingOff);
    EXPECT_EQ(all[0].httpStatus, status);
    EXPECT_EQ(events_->count(ApiEvent::Kind::MailboxBackingOff), 1u);
    // The same mailbox all along: created once.
    EXPECT_EQ(requestsTo("POST", "/notifications/api/v1/mailbox").size(), 1u);
    if (status == 401) {
        // A refused token is renewed before the mailbox is polled again.
        EXPECT_GT(tokenRequestCount(), tokensBefore);
    }
}

std::string statusName(const ::testing::TestParamInfo<std::tuple<int, bool>>& test) {
    return std::to_string(std::get<0>(test.param)) +
           (std::get<1>(test.param) ? "Resilient" : "Strict");
}

INSTANTIATE_TEST_SUITE_P(Statuses, PollStatus,
                         ::testing::Combine(::testing::Values(401, 429, 502, 503, 504),
                                            ::testing::Values(false, true)),
                         statusName);

TEST_F(ResilientRecoveryTest, AMailboxThePlatformLostIsCreatedAgainWithItsSubscriptions) {
    const auto api = makeApi(RecoveryMode::Resilient);
    const auto [mailbox, listener] = listening(*api, L"resilient/first");
    api->subscribeTopic(mailbox, L"Resilient/Second");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    const std::wstring id = widen(mailboxIdText(*mailbox));

    const auto created = requestsTo("POST", "/notifications/api/v1/mailbox");
    ASSERT_EQ(created.size(), 1u);

    // A restart that keeps nothing (nor the platform's records): the next poll is answered 404.
    emulator_.reset();
    ASSERT_TRUE(events_->waitFor(ApiEvent::Kind::MailboxRecreated, id));
    const auto creations = requestsTo("POST", "/notifications/api/v1/mailbox");
    ASSERT_EQ(creations.size(), 1u);
    EXPECT_EQ(creations[0].body, created[0].body);
    EXPECT_EQ(requestsTo("POST", "/notifications/api/v1/mailbox/" + narrow(id) +
                                     "/subscribe/resilient%2Fsecond")
                  .size(),
              1u);

    api->postNotification(L"resilient/first", L"one", 0);
    api->postNotification(L"resilient/second", L"two", 0);
    const auto mail = listener->waitFor(2);
    ASSERT_EQ(mail.size(), 2u);
    EXPECT_EQ(api->statistics().mailboxesRecreated, 1u);
    EXPECT_EQ(api->statistics().mailboxesDroppedByStatus, 0u);
    EXPECT_EQ(platformMailboxes(), 1u);
    api->deleteMailbox(mailbox);
    EXPECT_EQ(platformMailboxes(), 0u);
}

TEST_F(ResilientRecoveryTest, AMailboxThePlatformLostIsDroppedByDefault) {
    const auto api = makeApi(RecoveryMode::Strict);
    const auto [mailbox, listener] = listening(*api, L"strict/first");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);
    const std::wstring id = widen(mailboxIdText(*mailbox));
    emulator_.reset();
    ASSERT_TRUE(events_->waitFor(ApiEvent::Kind::MailboxStopped, id));
    EXPECT_EQ(events_->events().back().httpStatus, 404);
    // Not created again (the reset forgot the records before it).
    EXPECT_EQ(requestsTo("POST", "/notifications/api/v1/mailbox").size(), 0u);
    EXPECT_TRUE(api->hasDeletedMailboxes());
}

class RequestPostFails : public ResilientRecoveryTest,
                         public ::testing::WithParamInterface<bool> {};

TEST_P(RequestPostFails, LeavesNoMailboxBehindOnlyWhenResilient) {
    const bool resilient = GetParam();
    const auto api = makeApi(resilient ? RecoveryMode::Resilient : RecoveryMode::Strict);
    emulator_.addFault(statusRule("POST", kNotificationsPath, 500));
    EXPECT_THROW(
        api->postNotificationAndWaitForReply(L"resilient/request", L"ping", L"resilient/reply",
                                             Clock::now() + std::chrono::seconds(5)),
        std::exception);
    EXPECT_EQ(platformMailboxes(), resilient ? 0u : 1u);
    EXPECT_EQ(api->hasDeletedMailboxes(), resilient);
}

INSTANTIATE_TEST_SUITE_P(Modes, RequestPostFails, ::testing::Values(false, true), modeName);

// A heartbeat answered 404 (the platform lost the registration): the host hears of it once in
// both modes; resilient registers the service again and beats for its new id.
class HeartbeatLost : public ResilientRecoveryTest, public ::testing::WithParamInterface<bool> {};

TEST_P(HeartbeatLost, RegistersTheServiceAgainOnlyWhenResilient) {
    const bool resilient = GetParam();
    const auto api = makeApi(resilient ? RecoveryMode::Resilient : RecoveryMode::Strict);
    const auto info = completeServiceInfo();
    api->registerService(info);
    const auto registered = requestsTo("POST", "/discovery/api/v1/service");
    ASSERT_EQ(registered.size(), 1u);
    const auto services = web::json::value::parse(emulator_.state()).at("services").as_array();
    ASSERT_EQ(services.size(), 1u);
    const std::wstring oldId = widen(services.at(0).at("serviceId").as_string());

    emulator_.reset();
    ASSERT_TRUE(
        events_->waitFor(ApiEvent::Kind::ServiceRegistrationLost, oldId, std::chrono::seconds(30)));
    if (!resilient) {
        // The next pass is answered 404 again; the host is not told twice.
        ASSERT_TRUE(waitUntil([&] { return api->statistics().heartbeatsFailed >= 2; },
                              std::chrono::seconds(30)));
        EXPECT_EQ(events_->count(ApiEvent::Kind::ServiceRegistrationLost), 1u);
        // Nothing registered again (the reset forgot the records before it).
        EXPECT_EQ(requestsTo("POST", "/discovery/api/v1/service").size(), 0u);
        return;
    }
    ASSERT_TRUE(
        events_->waitFor(ApiEvent::Kind::ServiceRegisteredAgain, oldId, std::chrono::seconds(30)));
    const auto all = events_->events();
    const auto again = std::find_if(all.begin(), all.end(), [](const auto& event) {
        return event.kind == ApiEvent::Kind::ServiceRegisteredAgain;
    });
    ASSERT_NE(again, all.end());
    ASSERT_FALSE(again->newId.empty());
    // Heartbeats go on, to the id the platform returned now.
    ASSERT_TRUE(waitUntil(
        [&] {
            for (const auto& service : api->statistics().services) {
                if (service.serviceId == again->newId && service.sent >= 1) {
                    return true;
                }
            }
            return false;
        },
        std::chrono::seconds(30)));
    EXPECT_EQ(api->statistics().servicesRegisteredAgain, 1u);
    api->unregisterAllServices();
}

INSTANTIATE_TEST_SUITE_P(Modes, HeartbeatLost, ::testing::Values(false, true), modeName);

}  // namespace
}  // namespace TolvaRestTest
