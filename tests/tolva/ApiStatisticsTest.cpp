// Statistics of an API object: every counter moves as the platform's behaviour says it should
// (a 500 is a failed post, a dropped poll a transport failure and a retry, a 404 poll a dropped
// mailbox, a held heartbeat a failed beat once the client's time-out has passed), each checked
// against what the platform recorded; gauges; snapshots read while the object works; the JSON
// document's schema and that no secret is in it; the periodic report.
#include "MailTestSupport.h"
#include "ModelTestSupport.h"

#include <TolvaCore/ApiStatistics.h>

#include <ZuCore/InvalidArgumentException.h>

#include <atomic>
#include <condition_variable>
#include <thread>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::Rest::ApiStatistics;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using Clock = std::chrono::steady_clock;
using web::json::value;

constexpr const char* kServicePath = "/discovery/api/v1/service";

class ApiStatisticsTest : public MailTest {
  protected:
    std::pair<std::shared_ptr<Mailbox>, std::shared_ptr<RecordingListener>> openMailbox(
        QxPlatformApi& api, const std::wstring& topic) {
        auto listener = std::make_shared<RecordingListener>();
        auto mailbox = newMailbox();
        mailbox->addListener(listener);
        api.createMailbox(mailbox, topic);
        return {mailbox, listener};
    }

    std::size_t postsRecorded() const { return requestsTo("POST", kNotificationsPath).size(); }

    std::size_t pollsRecorded(const Mailbox& mailbox) const {
        return requestsTo("GET", pollTarget(mailbox)).size();
    }

    static bool isHeartbeatOf(const qxpemu::RecordedRequest& request,
                              const ModelServiceInfo& info) {
        return request.method == "PUT" &&
               request.target.rfind(
                   std::string(kServicePath) + "/" + info.serviceId->toString() + "/", 0) == 0;
    }
};

// Throws on every mail.
class ThrowingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        throw std::runtime_error("listener failure");
    }
};

TEST_F(ApiStatisticsTest, AFreshObjectCountsItsFirstTokenAndNothingElse) {
    auto api = makeApi();
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.tokenRenewals, 1u);
    EXPECT_EQ(stats.tokenFailures, 0u);
    EXPECT_EQ(stats.postsSent, 0u);
    EXPECT_EQ(stats.pollsSent, 0u);
    EXPECT_EQ(stats.mailboxesLive, 0u);
    EXPECT_EQ(stats.servicesRegistered, 0u);
    EXPECT_EQ(stats.postRoundTrip.samples, 0u);
    EXPECT_EQ(tokenRequestCount(), 1u);
}

TEST_F(ApiStatisticsTest, AnAcceptedPostAndA500AreCountedAsThePlatformSawThem) {
    auto api = makeApi();
    api->postNotification(L"stats/topic", L"one", 0);
    emulator_.addFault(statusRule("POST", kNotificationsPath, 500, "broken"));
    EXPECT_EQ(
        thrownText<std::runtime_error>([&] { api->postNotification(L"stats/topic", L"two", 0); }),
        "broken");

    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(postsRecorded(), 2u);
    EXPECT_EQ(stats.postsSent, 2u);
    EXPECT_EQ(stats.postsFailed, 1u);
    // Only the accepted post has a round trip.
    EXPECT_EQ(stats.postRoundTrip.samples, 1u);
    EXPECT_GT(stats.postRoundTrip.p50.count(), 0);
    EXPECT_EQ(stats.postRoundTrip.p50, stats.postRoundTrip.max);
}

TEST_F(ApiStatisticsTest, MailDeliveredAndListenerExceptionsAreCounted) {
    auto api = makeApi();
    auto [mailbox, listener] = openMailbox(*api, L"stats/mail");
    mailbox->addListener(std::make_shared<ThrowingListener>());
    for (int i = 0; i < 3; ++i) {
        api->postNotification(L"stats/mail", L"n" + std::to_wstring(i), 0);
    }
    ASSERT_EQ(listener->waitFor(3).size(), 3u);
    // Counted once the listeners of the mailbox have returned.
    ASSERT_TRUE(waitUntil([&] { return api->statistics().mailDelivered == 3; }));
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.listenerExceptions, 3u);
    EXPECT_GE(stats.pollsWithMail, 1u);
    EXPECT_LE(stats.pollsWithMail, 3u);
    EXPECT_EQ(stats.pollAnswerToListener.samples, stats.pollsWithMail);
    EXPECT_EQ(stats.mailboxesCreated, 1u);
    EXPECT_EQ(stats.mailboxesLive, 1u);
    EXPECT_EQ(stats.postsSent, 3u);

    api->deleteMailbox(mailbox);
    const ApiStatistics after = api->statistics();
    EXPECT_EQ(after.mailboxesDeleted, 1u);
    EXPECT_EQ(after.mailboxesLive, 0u);
}

TEST_F(ApiStatisticsTest, ADroppedPollIsATransportFailureAndARetry) {
    auto api = makeApi();
    auto [mailbox, listener] = openMailbox(*api, L"stats/drop");
    ASSERT_GE(waitForPolls(*mailbox, 1).size(), 1u);
    // Polls are dropped, every attempt (the HTTP library sends a request once more when a
    // kept-alive connection turns out closed), until the library has retried one; then
    // polling goes on.
    emulator_.addFault(dropRule("GET", pollPath(*mailbox)));
    ASSERT_TRUE(waitUntil([&] { return api->statistics().transportRetries >= 1; }));
    emulator_.clearFaults();
    api->postNotification(L"stats/drop", L"after the drop", 0);
    ASSERT_EQ(listener->waitFor(1).size(), 1u);

    const ApiStatistics stats = api->statistics();
    EXPECT_GE(stats.pollsTransportFailures, 1u);
    // Each transport failure of a live mailbox is retried.
    EXPECT_EQ(stats.transportRetries, stats.pollsTransportFailures);
    EXPECT_EQ(stats.pollsStatusFailures, 0u);
    EXPECT_EQ(stats.mailboxesLive, 1u);
    EXPECT_EQ(stats.mailboxesDroppedByStatus, 0u);
    // Every poll counted reached the platform, the dropped ones included.
    EXPECT_LE(stats.pollsSent, pollsRecorded(*mailbox) + 1);
    EXPECT_GE(pollsRecorded(*mailbox), stats.pollsTransportFailures + 1);
}

TEST_F(ApiStatisticsTest, APollAnswered404DropsTheMailbox) {
    auto api = makeApi();
    auto [mailbox, listener] = openMailbox(*api, L"stats/gone");
    emulator_.addFault(statusRule("GET", pollPath(*mailbox), 404, "no such mailbox"));
    ASSERT_TRUE(waitUntil([&] { return api->statistics().mailboxesDroppedByStatus == 1; }));
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.pollsStatusFailures, 1u);
    EXPECT_EQ(stats.mailboxesLive, 0u);
    EXPECT_EQ(stats.mailboxesDeleted, 0u);
    EXPECT_TRUE(api->hasDeletedMailboxes());
}

TEST_F(ApiStatisticsTest, AnUnreadablePollAnswerDropsTheMailboxAndSaysWhy) {
    auto api = makeApi();
    auto [mailbox, listener] = openMailbox(*api, L"stats/unreadable");
    emulator_.addFault(
        statusRule("GET", pollPath(*mailbox), 200, "{\"not\":\"an array\"}", "application/json"));
    ASSERT_TRUE(waitUntil([&] { return api->statistics().mailboxesDroppedUnreadable == 1; }));
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.pollsUnreadable, 1u);
    EXPECT_EQ(stats.mailboxesDroppedByStatus, 0u);
    EXPECT_EQ(stats.mailDelivered, 0u);
}

TEST_F(ApiStatisticsTest, AHeldHeartbeatIsAFailedBeatOnceTheClientTimeOutHasPassed) {
    auto api = makeApi();
    auto info = completeServiceInfo();
    api->registerService(info);
    const std::wstring serviceId = info->serviceId->toWString();
    ASSERT_TRUE(waitUntil([&] { return api->statistics().heartbeatsSent >= 1; }));
    ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.heartbeatsFailed, 0u);
    EXPECT_EQ(stats.servicesRegistered, 1u);
    ASSERT_EQ(stats.services.size(), 1u);
    EXPECT_EQ(stats.services[0].serviceId, serviceId);
    EXPECT_TRUE(stats.services[0].registered);

    // The platform holds every beat beyond the client's 30-second time-out. Every one: the
    // HTTP library sometimes sends a request cut off by its time-out once more, and a second
    // attempt answered at once would hide the failure.
    qxpemu::FaultRule hold;
    hold.method = "PUT";
    hold.pathPattern = std::string(kServicePath) + "/.*/health";
    hold.delayMs = 40000;
    hold.times = -1;
    emulator_.addFault(hold);
    const std::size_t beatsBefore = stats.heartbeatsSent;
    ASSERT_TRUE(waitUntil([&] { return api->statistics().heartbeatsFailed == 1; },
                          std::chrono::seconds(80)));
    // Beats are answered at once again before the next pass, 5 s away, begins.
    emulator_.clearFaults();
    const auto failedAt = Clock::now();
    stats = api->statistics();
    ASSERT_EQ(stats.services.size(), 1u);
    EXPECT_EQ(stats.services[0].failed, 1u);
    EXPECT_EQ(stats.heartbeatsSent, beatsBefore + 1);
    // Failed by the time-out, not at once: the held beat reached the platform 30 s before.
    const auto beats =
        waitForMatching([&](const qxpemu::RecordedRequest& r) { return isHeartbeatOf(r, *info); },
                        0, std::chrono::milliseconds(0));
    ASSERT_GE(beats.size(), beatsBefore + 1);
    EXPECT_GE(failedAt - beats[beatsBefore].received, std::chrono::seconds(29));

    api->unregisterService(serviceId);
    stats = api->statistics();
    EXPECT_EQ(stats.servicesRegistered, 0u);
    ASSERT_EQ(stats.services.size(), 1u);
    EXPECT_FALSE(stats.services[0].registered);
}

TEST_F(ApiStatisticsTest, TokenRenewalsAndFailuresMatchTheTokenRequests) {
    auto api = makeApi();
    emulator_.addFault(statusRule("POST", kTokenPath, 500, "identity down"));
    api->clearToken();
    api->validateToken();
    // A heartbeat pass may renew the cleared token too; the counts follow the requests.
    ASSERT_TRUE(waitUntil([&] {
        const ApiStatistics stats = api->statistics();
        return stats.tokenFailures >= 1 &&
               stats.tokenRenewals + stats.tokenFailures == tokenRequestCount();
    }));
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.tokenFailures, 1u);
    EXPECT_GE(stats.tokenRenewals, 1u);
}

TEST_F(ApiStatisticsTest, AKeySetThatFailsIsAFailedRenewal) {
    auto api = makeApi();
    emulator_.addFault(statusRule("GET", kKeySetPath, 503, "keys unavailable"));
    api->clearToken();
    api->validateToken();
    const ApiStatistics stats = api->statistics();
    EXPECT_GE(stats.tokenFailures, 1u);
    EXPECT_EQ(stats.tokenRenewals + stats.tokenFailures, tokenRequestCount());
}

TEST_F(ApiStatisticsTest, GaugesShowParkedPollsAndMailWaitingForADeliveryThread) {
    const ScopedEnv oneThread("TOLVA_DELIVERY_THREADS", std::string("1"));
    auto api = makeApi();
    auto gate = std::make_shared<GateListener>();
    auto blocked = newMailbox();
    blocked->addListener(gate);
    api->createMailbox(blocked, L"stats/blocked");
    auto [waiting, listener] = openMailbox(*api, L"stats/waiting");
    ASSERT_TRUE(waitUntil([&] { return api->statistics().pollsInFlight == 2; }));

    api->postNotification(L"stats/blocked", L"hold the only delivery thread", 0);
    ASSERT_TRUE(gate->waitEntered(std::chrono::seconds(20)));
    api->postNotification(L"stats/waiting", L"waits for it", 0);
    ASSERT_TRUE(waitUntil([&] { return api->statistics().deliveryBacklog == 1; }));
    EXPECT_EQ(listener->count(), 0u);

    gate->open();
    ASSERT_EQ(listener->waitFor(1).size(), 1u);
    ASSERT_TRUE(waitUntil([&] { return api->statistics().mailDelivered == 2; }));
    EXPECT_EQ(api->statistics().deliveryBacklog, 0u);
    EXPECT_EQ(api->statistics().mailboxesLive, 2u);
}

TEST_F(ApiStatisticsTest, SnapshotsReadWhileTheObjectWorksAreConsistent) {
    auto api = makeApi();
    auto [mailbox, listener] = openMailbox(*api, L"stats/busy");
    // Some posts fail, some polls are dropped while the readers read.
    qxpemu::FaultRule failPosts = statusRule("POST", kNotificationsPath, 500, "burst");
    failPosts.times = 20;
    emulator_.addFault(failPosts);
    qxpemu::FaultRule dropPolls = dropRule("GET", pollPath(*mailbox));
    dropPolls.times = 4;
    emulator_.addFault(dropPolls);

    std::atomic<bool> done{false};
    std::atomic<int> snapshots{0};
    std::vector<std::string> problems;
    std::mutex problemsMutex;
    const auto report = [&](const std::string& problem) {
        std::lock_guard<std::mutex> lock(problemsMutex);
        if (problems.size() < 10) {
            problems.push_back(problem);
        }
    };
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            ApiStatistics last;
            while (!done) {
                const ApiStatistics now = api->statistics();
                ++snapshots;
                if (now.postsFailed > now.postsSent) {
                    report("more failed posts than posts");
                }
                const std::uint64_t outcomes =
                    now.pollsWithMail + now.pollsEmpty + now.pollsTransportFailures +
                    now.pollsStatusFailures + now.pollsUnreadable + now.pollsCancelled;
                if (outcomes > now.pollsSent) {
                    report("more poll outcomes than polls");
                }
                if (now.postsSent < last.postsSent || now.pollsSent < last.pollsSent ||
                    now.mailDelivered < last.mailDelivered ||
                    now.transportRetries < last.transportRetries) {
                    report("a counter went back");
                }
                last = now;
            }
        });
    }
    std::size_t accepted = 0;
    for (int i = 0; i < 60; ++i) {
        try {
            api->postNotification(L"stats/busy", L"n" + std::to_wstring(i), 0);
            ++accepted;
        } catch (const std::exception&) {
            // The burst's failures are what is counted.
        }
    }
    ASSERT_EQ(listener->waitFor(accepted).size(), accepted);
    ASSERT_TRUE(waitUntil([&] { return api->statistics().mailDelivered == accepted; }));
    done = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_TRUE(problems.empty()) << problems.front();
    EXPECT_GT(snapshots.load(), 10);
    const ApiStatistics stats = api->statistics();
    EXPECT_EQ(stats.postsSent, 60u);
    EXPECT_EQ(stats.postsFailed, 60u - accepted);
    EXPECT_EQ(stats.postsFailed, 20u);
    EXPECT_EQ(stats.postRoundTrip.samples, accepted);
}

// The keys of a JSON object, sorted (a parsed object does not keep the written order).
std::vector<std::string> keysOf(const value& object) {
    std::vector<std::string> keys;
    for (const auto& member : object.as_object()) {
        keys.push_back(member.first);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

std::vector<std::string> sorted(std::vector<std::string> keys) {
    std::sort(keys.begin(), keys.end());
    return keys;
}

void expectLatency(const value& latency, const ApiStatistics::Latency& expected) {
    ASSERT_EQ(keysOf(latency), sorted({"samples", "p50", "p90", "p99", "max"}));
    EXPECT_EQ(latency.at("samples").as_number().to_uint64(), expected.samples);
    EXPECT_EQ(latency.at("p50").as_number().to_int64(), expected.p50.count());
    EXPECT_EQ(latency.at("p90").as_number().to_int64(), expected.p90.count());
    EXPECT_EQ(latency.at("p99").as_number().to_int64(), expected.p99.count());
    EXPECT_EQ(latency.at("max").as_number().to_int64(), expected.max.count());
}

TEST_F(ApiStatisticsTest, TheJsonDocumentFollowsItsSchemaAndHoldsNoSecret) {
    auto api = makeApi();
    auto [mailbox, listener] = openMailbox(*api, L"stats/json");
    auto info = completeServiceInfo();
    api->registerService(info);
    api->postNotification(L"stats/json", L"hello", 0);
    ASSERT_EQ(listener->waitFor(1).size(), 1u);
    ASSERT_TRUE(waitUntil([&] { return api->statistics().heartbeatsSent >= 1; }));
    ASSERT_TRUE(waitUntil([&] { return api->statistics().mailDelivered == 1; }));

    const ApiStatistics stats = api->statistics();
    const std::string text = narrow(stats.toJson());
    const value json = value::parse(text);
    // Written in the documented order.
    EXPECT_EQ(text.rfind("{\"schema\":\"tolva.statistics/1\",\"takenAt\":\"", 0), 0u) << text;
    EXPECT_LT(text.find("\"posts\":"), text.find("\"polls\":"));
    EXPECT_LT(text.find("\"tokens\":"), text.find("\"mailboxes\":"));
    ASSERT_EQ(keysOf(json),
              sorted({"schema", "takenAt", "uptimeMs", "posts", "polls", "transportRetries", "mail",
                      "heartbeats", "services", "requests", "tokens", "mailboxes"}));
    EXPECT_EQ(json.at("schema").as_string(), "tolva.statistics/1");
    // ISO 8601 in UTC with milliseconds.
    EXPECT_EQ(json.at("takenAt").as_string().size(), 24u);
    EXPECT_EQ(json.at("takenAt").as_string().back(), 'Z');
    EXPECT_EQ(json.at("uptimeMs").as_number().to_int64(), stats.uptime.count());

    const value& posts = json.at("posts");
    ASSERT_EQ(keysOf(posts), sorted({"sent", "failed", "roundTripUs"}));
    EXPECT_EQ(posts.at("sent").as_number().to_uint64(), stats.postsSent);
    EXPECT_EQ(posts.at("failed").as_number().to_uint64(), stats.postsFailed);
    expectLatency(posts.at("roundTripUs"), stats.postRoundTrip);

    const value& polls = json.at("polls");
    ASSERT_EQ(keysOf(polls), sorted({"sent", "withMail", "empty", "transportFailures",
                                     "statusFailures", "unreadable", "cancelled", "endedByDeletion",
                                     "waitingForToken", "statusRetries", "inFlight"}));
    EXPECT_EQ(polls.at("sent").as_number().to_uint64(), stats.pollsSent);
    EXPECT_EQ(polls.at("withMail").as_number().to_uint64(), stats.pollsWithMail);
    EXPECT_EQ(polls.at("empty").as_number().to_uint64(), stats.pollsEmpty);
    EXPECT_EQ(polls.at("inFlight").as_number().to_uint64(), stats.pollsInFlight);
    EXPECT_EQ(json.at("transportRetries").as_number().to_uint64(), stats.transportRetries);
    EXPECT_EQ(keysOf(json.at("requests")), sorted({"sentAgain"}));
    EXPECT_EQ(json.at("requests").at("sentAgain").as_number().to_uint64(), stats.requestsSentAgain);

    const value& mail = json.at("mail");
    ASSERT_EQ(keysOf(mail),
              sorted({"delivered", "listenerExceptions", "backlog", "answerToListenerUs"}));
    EXPECT_EQ(mail.at("delivered").as_number().to_uint64(), 1u);
    expectLatency(mail.at("answerToListenerUs"), stats.pollAnswerToListener);

    const value& heartbeats = json.at("heartbeats");
    ASSERT_EQ(keysOf(heartbeats), sorted({"sent", "failed", "services"}));
    EXPECT_EQ(heartbeats.at("sent").as_number().to_uint64(), stats.heartbeatsSent);
    const value& services = heartbeats.at("services");
    ASSERT_EQ(services.size(), 1u);
    ASSERT_EQ(keysOf(services.at(0)), sorted({"serviceId", "sent", "failed", "registered"}));
    EXPECT_EQ(services.at(0).at("serviceId").as_string(), info->serviceId->toString());
    EXPECT_TRUE(services.at(0).at("registered").as_bool());
    EXPECT_EQ(json.at("services").at("registered").as_number().to_uint64(), 1u);
    EXPECT_EQ(json.at("services").at("registeredAgain").as_number().to_uint64(), 0u);

    ASSERT_EQ(keysOf(json.at("tokens")), sorted({"renewals", "failures"}));
    EXPECT_EQ(json.at("tokens").at("renewals").as_number().to_uint64(), stats.tokenRenewals);

    const value& mailboxes = json.at("mailboxes");
    ASSERT_EQ(keysOf(mailboxes),
              sorted({"live", "created", "deleted", "recreated", "dropped", "each"}));
    ASSERT_EQ(keysOf(mailboxes.at("dropped")), sorted({"status", "unreadable", "notStarted"}));
    EXPECT_EQ(mailboxes.at("live").as_number().to_uint64(), 1u);
    // One view per mailbox: its id, where it stands, and its last failure.
    const value& each = mailboxes.at("each");
    ASSERT_EQ(each.size(), 1u);
    ASSERT_EQ(keysOf(each.at(0)),
              sorted({"mailboxId", "state", "consecutiveFailures", "lastHttpStatus", "lastError"}));
    EXPECT_EQ(each.at(0).at("mailboxId").as_string(), narrow(stats.mailboxes.at(0).mailboxId));
    EXPECT_EQ(each.at(0).at("consecutiveFailures").as_number().to_uint64(), 0u);

    // The mailbox id may be there; no secret is, nor any part of the token.
    for (const std::string& secret : {narrow(mailbox->getSecret()), narrow(info->serviceSecret),
                                      emulator_.apiKey(), narrow(api->getCurrentAccessToken())}) {
        ASSERT_FALSE(secret.empty());
        EXPECT_EQ(text.find(secret), std::string::npos);
    }
    const std::string token = narrow(api->getCurrentAccessToken());
    for (std::size_t start = 0, dot; start < token.size(); start = dot + 1) {
        dot = token.find('.', start);
        dot = dot == std::string::npos ? token.size() : dot;
        EXPECT_EQ(text.find(token.substr(start, dot - start)), std::string::npos);
    }
}

TEST_F(ApiStatisticsTest, ThePeriodicReportCallsBackUntilItIsEnded) {
    auto api = makeApi();
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::wstring> reports;
    std::vector<std::thread::id> threads;
    api->reportStatistics(std::chrono::milliseconds(50), [&](const std::wstring& json) {
        std::lock_guard<std::mutex> lock(mutex);
        reports.push_back(json);
        threads.push_back(std::this_thread::get_id());
        changed.notify_all();
    });
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(
            changed.wait_for(lock, std::chrono::seconds(20), [&] { return reports.size() >= 3; }));
        EXPECT_NE(threads[0], std::this_thread::get_id());
        EXPECT_EQ(value::parse(narrow(reports[0])).at("schema").as_string(), "tolva.statistics/1");
    }
    // Ended: no report comes after the call returns.
    api->reportStatistics(std::chrono::milliseconds(0));
    std::size_t ended = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ended = reports.size();
    }
    api->postNotification(L"stats/after", L"x", 0);
    // Long enough for several more reports, had the report not ended.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(reports.size(), ended);
}

TEST_F(ApiStatisticsTest, WithoutACallbackTheReportIsAnInfoLineOfItsOwnLogger) {
    const auto logger = Varkel::Zu::Logger::getLogger("TolvaCore.Statistics");
    logger->setLevel(Varkel::Zu::Logger::getInfoLevel());
    const LogRecords records;
    auto api = makeApi();
    api->reportStatistics(std::chrono::milliseconds(50));
    ASSERT_TRUE(waitUntil([&] { return records.messages("TolvaCore.Statistics").size() >= 2; }));
    api.reset();
    logger->clearLevel();
    for (const auto& record : records.records()) {
        if (record.logger == "TolvaCore.Statistics") {
            EXPECT_EQ(record.level, "info");
            EXPECT_EQ(value::parse(narrow(record.message)).at("tokens").at("renewals").as_integer(),
                      1);
        }
    }
}

TEST_F(ApiStatisticsTest, ACallbackMayEndTheReportAndLetGoOfTheObject) {
    const DebugLogTail log;
    auto api = makeApi();
    std::weak_ptr<QxPlatformApi> weak = api;
    std::atomic<int> calls{0};
    // The first call ends the report from inside the callback; the second object's callback
    // holds the last reference and lets go of it there.
    api->reportStatistics(std::chrono::milliseconds(20), [&calls, weak](const std::wstring&) {
        ++calls;
        if (auto held = weak.lock()) {
            held->reportStatistics(std::chrono::milliseconds(0));
        }
    });
    ASSERT_TRUE(waitUntil([&] { return calls.load() >= 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(calls.load(), 1);

    auto holder = std::make_shared<std::shared_ptr<QxPlatformApi>>(std::move(api));
    std::atomic<bool> released{false};
    (*holder)->reportStatistics(std::chrono::milliseconds(20),
                                [holder, &released](const std::wstring&) {
                                    if (*holder) {
                                        released = true;
                                        holder->reset();
                                    }
                                });
    ASSERT_TRUE(waitUntil([&] { return weak.expired(); }));
    EXPECT_TRUE(released.load());
    EXPECT_TRUE(waitUntil([&] { return log.countLinesStartingWith("TRACE: It took ") == 1; }));
}

TEST_F(ApiStatisticsTest, ANegativeIntervalIsRefused) {
    auto api = makeApi();
    EXPECT_EQ(thrownText<Varkel::Zu::InvalidArgumentException>(
                  [&] { api->reportStatistics(std::chrono::milliseconds(-1)); }),
              "The statistics report interval must not be negative.");
}

}  // namespace
}  // namespace TolvaRestTest
