// The heartbeat task against the emulator: what each beat sends, the pass order, token
// renewal in the pass, failures that never stop the others, the object lock held across a
// pass, the platform's health view, and the loop ending at once on destruction. Each test
// waits for one or two real 5-second periods.
#include "ModelTestSupport.h"

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <cpprest/json.h>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::narrow;
using Clock = std::chrono::steady_clock;

constexpr const char* kServicePath = "/discovery/api/v1/service";
// Long enough for a 5-second period and a slow pass on a loaded machine.
constexpr std::chrono::seconds kBeatTimeout(20);

bool isHeartbeat(const qxpemu::RecordedRequest& request) {
    return request.method == "PUT";
}

bool isTokenRequest(const qxpemu::RecordedRequest& request) {
    return request.method == "POST" && request.target == kTokenPath;
}

class HeartbeatTest : public RestTest {
  protected:
    HeartbeatTest() : RestTest(options()) {}

    // Services turn critical after three missed 2-second periods: never while 5-second
    // beats arrive, soon after they stop.
    static qxpemu::EmulatorOptions options() {
        qxpemu::EmulatorOptions emulatorOptions = testEmulatorOptions();
        emulatorOptions.heartbeatIntervalMs = 2000;
        return emulatorOptions;
    }

    std::vector<qxpemu::RecordedRequest> waitFor(
        const std::function<bool(const qxpemu::RecordedRequest&)>& matches, std::size_t count,
        std::chrono::milliseconds timeout = kBeatTimeout) const {
        return waitForMatching(matches, count, timeout);
    }

    // The platform's view of one service ("passing" or "critical"), "" when it has none.
    std::string platformStatus(const std::string& serviceId) const {
        const auto state = web::json::value::parse(emulator_.state());
        for (const auto& service : state.at("services").as_array()) {
            if (service.at("serviceId").as_string() == serviceId) {
                return service.at("status").as_string();
            }
        }
        return "";
    }

    // The beats the platform accepted from one service since its registration, -1 when it
    // does not know the service. A registration alone counts as "passing" for a while; this
    // counts only beats.
    int platformBeats(const std::string& serviceId) const {
        const auto state = web::json::value::parse(emulator_.state());
        for (const auto& service : state.at("services").as_array()) {
            if (service.at("serviceId").as_string() == serviceId) {
                return service.at("heartbeats").as_integer();
            }
        }
        return -1;
    }

    // Polls the platform's view until it shows `status` (health changes with time only).
    bool waitForStatus(const std::string& serviceId, const std::string& status) const {
        const auto deadline = Clock::now() + kBeatTimeout;
        while (Clock::now() < deadline) {
            if (platformStatus(serviceId) == status) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    static std::string healthPath(const ModelServiceInfo& info) {
        return std::string(kServicePath) + "/" + info.serviceId->toString() + "/" +
               narrow(info.serviceSecret) + "/health";
    }
};

TEST_F(HeartbeatTest, EveryServiceGetsItsBeatInIdOrderWithTheExactRequest) {
    const DebugLogTail log;
    auto api = makeApi();
    auto first = completeServiceInfo();
    auto second = completeServiceInfo();
    api->registerService(first);
    api->registerService(second);
    if (second->serviceId->toString() < first->serviceId->toString()) {
        std::swap(first, second);
    }
    emulator_.clearRequests();

    const auto beats = waitFor(isHeartbeat, 2);
    ASSERT_GE(beats.size(), 2u);
    EXPECT_EQ(beats[0].target, healthPath(*first));
    EXPECT_EQ(beats[1].target, healthPath(*second));
    for (const auto& beat : beats) {
        EXPECT_EQ(beat.body, "null");
        EXPECT_EQ(beat.header("Content-Type"), "application/json");
        EXPECT_EQ(beat.header("User-Agent"), "Tolva");
        EXPECT_EQ(beat.header("Authorization"),
                  "Bearer " + narrow(api->getCurrentTokenCopy().accessToken));
        EXPECT_EQ(beat.header("Accept"), "");
    }
    // Destruction waits for the pass under way: then every reply has been handled, and the
    // next pass, 5 s away, never came.
    api.reset();
    EXPECT_EQ(platformBeats(first->serviceId->toString()), 1);
    EXPECT_EQ(platformBeats(second->serviceId->toString()), 1);
    EXPECT_EQ(waitFor(isHeartbeat, 3, std::chrono::milliseconds(0)).size(), 2u);
    EXPECT_TRUE(log.hasLine("TRACE: Heartbeat sent for service " + first->serviceId->toString()));
    EXPECT_TRUE(log.hasLine("TRACE: Heartbeat sent for service " + second->serviceId->toString()));
}

TEST_F(HeartbeatTest, APassRenewsADueTokenAndAnUnregisteredServiceGetsNoBeat) {
    // Tokens live 200 s, so every pass finds the token due and renews it.
    emulator_.setTokenLifetime(200);
    auto api = makeApi();
    const auto info = completeServiceInfo();
    api->registerService(info);
    ASSERT_EQ(waitFor(isHeartbeat, 1).size(), 1u);
    api->unregisterService(info->serviceId->toWString());
    const DebugLogTail log;
    emulator_.clearRequests();

    // The next pass: a token request and no heartbeat at all.
    ASSERT_EQ(waitFor(isTokenRequest, 1).size(), 1u);
    EXPECT_TRUE(log.hasLine("TRACE: Obtaining a new access token"));
    // Destruction lets the pass under way finish: it sent no heartbeat.
    api.reset();
    EXPECT_TRUE(waitFor(isHeartbeat, 1, std::chrono::milliseconds(0)).empty());
}

TEST_F(HeartbeatTest, DestroyingTheObjectMidWaitEndsTheLoopAtOnce) {
    auto api = makeApi();
    const auto info = completeServiceInfo();
    api->registerService(info);
    const DebugLogTail log;
    ASSERT_EQ(waitFor(isHeartbeat, 1).size(), 1u);

    const auto started = Clock::now();
    api.reset();
    const auto took = Clock::now() - started;
    // Well inside the 5-second wait the loop was in.
    EXPECT_LT(took, std::chrono::seconds(3));
    EXPECT_EQ(log.countLinesStartingWith("TRACE: It took "), 1u);
    EXPECT_EQ(waitFor(isHeartbeat, 2, std::chrono::milliseconds(0)).size(), 1u);
}

TEST_F(HeartbeatTest, AFailingServiceNeverStopsTheOthers) {
    const LogRecords records;
    const DebugLogTail log;
    auto api = makeApi();
    std::vector<std::shared_ptr<ModelServiceInfo>> services;
    for (int i = 0; i < 3; ++i) {
        services.push_back(completeServiceInfo());
        api->registerService(services.back());
    }
    std::sort(services.begin(), services.end(), [](const auto& a, const auto& b) {
        return a->serviceId->toString() < b->serviceId->toString();
    });
    // The first is answered 200, the second's connection is dropped, the third is fine.
    qxpemu::FaultRule answered200 = statusRule("PUT", healthPath(*services[0]), 200);
    answered200.times = -1;
    emulator_.addFault(answered200);
    emulator_.addFault(dropRule("PUT", healthPath(*services[1])));
    emulator_.clearRequests();

    const auto beats = waitFor(
        [&](const qxpemu::RecordedRequest& r) { return r.target == healthPath(*services[2]); }, 1);
    ASSERT_EQ(beats.size(), 1u);
    // Destruction waits for the pass under way, so every reply has been handled after it.
    api.reset();
    EXPECT_TRUE(
        log.hasLine("TRACE: Heartbeat sent for service " + services[2]->serviceId->toString()));
    EXPECT_EQ(log.countLinesStartingWith("TRACE: Heartbeat sent for service " +
                                         services[0]->serviceId->toString()),
              0u);

    const auto errors = records.messages("TolvaCore.QxPlatformApi");
    EXPECT_NE(std::find(errors.begin(), errors.end(), L"Heartbeat failed: 200 OK"), errors.end());
    const bool transportLogged = std::any_of(errors.begin(), errors.end(), [](const auto& m) {
        return m.rfind(L"Heartbeat failed", 0) == 0 && m != L"Heartbeat failed: 200 OK";
    });
    EXPECT_TRUE(transportLogged);
    for (const auto& message : errors) {
        EXPECT_EQ(message.find(services[0]->serviceSecret), std::wstring::npos);
    }
}

TEST_F(HeartbeatTest, ASlowPlatformLengthensThePeriodAndHoldsTheObjectLock) {
    const auto api = makeApi();
    const auto info = completeServiceInfo();
    api->registerService(info);
    qxpemu::FaultRule slow;
    slow.method = "PUT";
    slow.pathPattern = healthPath(*info);
    slow.delayMs = 1500;
    slow.times = -1;
    emulator_.addFault(slow);
    emulator_.clearRequests();

    const auto first = waitFor(isHeartbeat, 1);
    ASSERT_EQ(first.size(), 1u);
    // A caller that needs the object lock waits for the pass under way to end, that is for
    // the answer the platform sends 1.5 s after the beat arrived.
    EXPECT_THROW(api->unregisterService(L"not-registered"), Varkel::Zu::InvalidArgumentException);
    EXPECT_GE(Clock::now() - first[0].received, std::chrono::milliseconds(1500));

    const auto beats = waitFor(isHeartbeat, 2);
    ASSERT_EQ(beats.size(), 2u);
    // The 5-second wait starts only once the slow beat has been answered: the platform's own
    // arrival times are 1.5 + 5 s apart at least.
    EXPECT_GE(beats[1].received - beats[0].received, std::chrono::milliseconds(6500));
}

TEST_F(HeartbeatTest, TheHealthViewTurnsCriticalWhenBeatsStopAndPassingWhenTheyResume) {
    const auto api = makeApi();
    const auto info = completeServiceInfo();
    api->registerService(info);
    const std::string id = info->serviceId->toString();
    ASSERT_EQ(waitFor(isHeartbeat, 1).size(), 1u);
    // The request is on record once it has arrived; the platform counts it a moment later.
    EXPECT_TRUE(waitUntil([&] { return platformBeats(id) == 1; }));

    qxpemu::FaultRule refused = statusRule("PUT", healthPath(*info), 500);
    refused.times = -1;
    emulator_.addFault(refused);
    EXPECT_TRUE(waitForStatus(id, "critical"));
    const int beatsWhileRefused = platformBeats(id);

    // Only a beat the platform accepts makes it passing again.
    emulator_.clearFaults();
    EXPECT_TRUE(waitForStatus(id, "passing"));
    EXPECT_GT(platformBeats(id), beatsWhileRefused);
}

}  // namespace
}  // namespace TolvaRestTest
