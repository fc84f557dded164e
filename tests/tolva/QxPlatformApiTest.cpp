// The API object: construction from the configuration document or the environment, the URL
// and key setters, the heartbeat task and the teardown.
#include "RestTestSupport.h"

#include <ZuCore/Exception.h>
#include <ZuCore/InvalidArgumentException.h>

#include <chrono>
#include <regex>
#include <stdexcept>
#include <string>

#include <cpprest/json.h>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;

using QxPlatformApiTest = RestTest;

TEST_F(QxPlatformApiTest, CreateFromEnvVarReturnsNothingWhenTheVariableIsUnset) {
    const ScopedEnv config("QX_PLATFORM_CONFIG", std::nullopt);
    EXPECT_EQ(QxPlatformApi::createFromEnvVar(), nullptr);
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(QxPlatformApiTest, CreateFromEnvVarReturnsNothingWhenTheVariableIsEmpty) {
    const ScopedEnv config("QX_PLATFORM_CONFIG", std::string());
    EXPECT_EQ(QxPlatformApi::createFromEnvVar(), nullptr);
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(QxPlatformApiTest, CreateFromEnvVarReadsUrlAndTheCredentialInsideLogging) {
    const ScopedEnv config("QX_PLATFORM_CONFIG", emulator_.platformConfig());
    const auto api = QxPlatformApi::createFromEnvVar();
    ASSERT_TRUE(api);
    EXPECT_EQ(api->getPlatformUrl(), widen(emulator_.baseUrl()));
    EXPECT_EQ(api->getPlatformApiKey(), widen(emulator_.apiKey()));
    EXPECT_FALSE(api->getCurrentToken().accessToken.empty());
}

TEST_F(QxPlatformApiTest, CreateFromEnvVarLetsJsonErrorsThrough) {
    const ScopedEnv config("QX_PLATFORM_CONFIG", std::string("{\"url\": "));
    EXPECT_THROW(QxPlatformApi::createFromEnvVar(), web::json::json_exception);
}

TEST_F(QxPlatformApiTest, CreateFromEnvVarRejectsATopLevelCredential) {
    const ScopedEnv config(
        "QX_PLATFORM_CONFIG",
        "{\"url\":\"" + emulator_.baseUrl() + "\",\"credentials\":\"" + emulator_.apiKey() + "\"}");
    EXPECT_THROW(QxPlatformApi::createFromEnvVar(), web::json::json_exception);
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(QxPlatformApiTest, CreateFromConfigReadsUrlAndKey) {
    const auto api = QxPlatformApi::createFromQXPlatformConfig(widen(emulator_.platformConfig()));
    ASSERT_TRUE(api);
    EXPECT_EQ(api->getPlatformUrl(), widen(emulator_.baseUrl()));
    EXPECT_EQ(api->getPlatformApiKey(), widen(emulator_.apiKey()));
    EXPECT_EQ(api->getCurrentToken().account, widen(testAccount()));
}

// Runs createFromQXPlatformConfig on a bad document and checks the exception and the root
// logger's throw line.
void expectConfigRejected(const std::string& document) {
    const LogRecords records;
    try {
        QxPlatformApi::createFromQXPlatformConfig(widen(document));
        ADD_FAILURE() << "accepted: " << document;
        return;
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        const std::wstring message = Varkel::Zu::getExceptionMessage(e);
        EXPECT_FALSE(message.empty());
        EXPECT_EQ(e.getLocation().getLineNumber(), 192);

        const std::wstring expectedStart =
            L"THROWING EXCEPTION with message : " + message + L" in ";
        const std::wstring expectedEnd = L" (api/Tolva/Tolva/TolvaCore/QxPlatformApi(192))";
        bool found = false;
        for (const auto& record : records.records()) {
            if (record.logger == "root" && record.level == std::string("error") &&
                record.message.rfind(expectedStart, 0) == 0 &&
                record.message.size() > expectedEnd.size() &&
                record.message.compare(record.message.size() - expectedEnd.size(),
                                       expectedEnd.size(), expectedEnd) == 0) {
                found = true;
                EXPECT_NE(record.message.find(L"createFromQXPlatformConfig"), std::wstring::npos);
            }
        }
        EXPECT_TRUE(found) << "no throw line for " << narrow(message);
    }
}

TEST_F(QxPlatformApiTest, CreateFromConfigRejectsATopLevelCredential) {
    expectConfigRejected("{\"url\":\"" + emulator_.baseUrl() + "\",\"credentials\":\"" +
                         emulator_.apiKey() + "\"}");
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(QxPlatformApiTest, CreateFromConfigRejectsBadJson) {
    expectConfigRejected("{not json");
}

TEST_F(QxPlatformApiTest, CreateFromConfigRejectsAnUrlThatIsNotAString) {
    expectConfigRejected("{\"url\":42,\"logging\":{\"credentials\":\"k\"}}");
}

TEST_F(QxPlatformApiTest, CreateFromConfigRejectsADocumentThatIsNotAnObject) {
    expectConfigRejected("[1,2]");
}

TEST_F(QxPlatformApiTest, SetPlatformApiKeyAfterASuccessfulTokenClearsIt) {
    const auto api = makeApi();
    ASSERT_FALSE(api->getCurrentToken().accessToken.empty());
    api->setPlatformApiKey(L"another-key");
    EXPECT_EQ(api->getPlatformApiKey(), L"another-key");
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    EXPECT_EQ(api->getCurrentToken().expiresAt.time_since_epoch().count(), 0);
}

TEST_F(QxPlatformApiTest, NewKeyIsSentWithTheNextTokenRequest) {
    const auto api = makeApi();
    api->setPlatformApiKey(L"another-key");
    emulator_.clearRequests();
    api->validateToken();
    const auto tokenRequests = requestsTo("POST", kTokenPath);
    ASSERT_EQ(tokenRequests.size(), 1u);
    EXPECT_EQ(tokenRequests[0].header("Authorization"), "Basic another-key");
}

TEST_F(QxPlatformApiTest, SetPlatformUrlSwitchesPlatformsAndForgetsTheToken) {
    const auto api = makeApi();
    qxpemu::Emulator other(testEmulatorOptions());
    other.start();

    api->setPlatformUrl(widen(other.baseUrl()));
    EXPECT_EQ(api->getPlatformUrl(), widen(other.baseUrl()));
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    EXPECT_EQ(api->getCurrentToken().expiresAt.time_since_epoch().count(), 0);

    emulator_.clearRequests();
    api->postNotification(L"t", L"c", 0);
    EXPECT_TRUE(emulator_.requests().empty());
    const auto requests = other.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].target, kTokenPath);
    EXPECT_EQ(requests[2].target, kNotificationsPath);
}

TEST_F(QxPlatformApiTest, HeartbeatRenewsADueTokenWithinFiveSeconds) {
    // Tokens issued already expired are due at every heartbeat pass.
    emulator_.setTokenLifetime(0);
    const auto api = makeApi();
    const std::size_t afterConstruction = emulator_.requests().size();
    const auto requests =
        emulator_.waitForRequests(afterConstruction + 2, std::chrono::milliseconds(15000));
    ASSERT_GE(requests.size(), afterConstruction + 2);
    EXPECT_EQ(requests[afterConstruction].target, kTokenPath);
    EXPECT_EQ(requests[afterConstruction + 1].target, kKeySetPath);
}

TEST(QxPlatformApiLifetime, DestroyingAnUnreachableObjectEndsPromptlyAndReportsTheTime) {
    const ScopedEnv noProxy("http_proxy", std::nullopt);
    auto api = makeUnreachableApi();
    const DebugLogTail log;
    const auto start = std::chrono::steady_clock::now();
    api.reset();
    const auto took = std::chrono::steady_clock::now() - start;
    // The heartbeat sleeps 5 seconds between passes; the interruption must end that wait
    // instead of letting it run out.
    EXPECT_LT(took, std::chrono::milliseconds(4000));
    const auto lines = log.lines();
    ASSERT_FALSE(lines.empty()) << log.text();
    EXPECT_TRUE(std::regex_match(
        lines.back(),
        std::regex("TRACE: It took [0-9]+ ms to kill the mailbox reception tasks\\.")))
        << lines.back();
}

TEST_F(QxPlatformApiTest, DestroyingARunningObjectSendsNothing) {
    auto api = makeApi();
    emulator_.clearRequests();
    const DebugLogTail log;
    api.reset();
    EXPECT_TRUE(emulator_.requests().empty());
    EXPECT_EQ(log.countLinesStartingWith("TRACE: It took "), 1u) << log.text();
}

TEST_F(QxPlatformApiTest, DestroyingEndsTheHeartbeatWithoutAFurtherPass) {
    // Tokens issued already expired make every heartbeat pass send a token request.
    emulator_.setTokenLifetime(0);
    auto api = makeApi();
    const std::size_t afterConstruction = emulator_.requests().size();
    // The first pass (token and key set), then the object goes during the next wait.
    ASSERT_GE(
        emulator_.waitForRequests(afterConstruction + 2, std::chrono::milliseconds(15000)).size(),
        afterConstruction + 2);
    api.reset();
    const std::size_t afterDestruction = emulator_.requests().size();
    EXPECT_EQ(afterDestruction, afterConstruction + 2);
}

TEST_F(QxPlatformApiTest, SecretsNeverReachLogRecordsOrStdout) {
    // Every library logger on, so that debug records are built too.
    Varkel::Zu::Logger::configureLevels("TolvaCore=trace,root=trace");
    const LogRecords records;
    const DebugLogTail log;
    TolvaTest::StdoutCapture out;

    std::vector<std::string> tokens;
    {
        const auto api = makeApi();
        tokens.push_back(narrow(api->getCurrentToken().accessToken));
        api->postNotification(L"t", L"c", 0);
        api->clearToken();
        api->validateToken();
        tokens.push_back(narrow(api->getCurrentToken().accessToken));
        // Failures too: a failing token request after the token was sent before.
        emulator_.addFault(statusRule("POST", kTokenPath, 401, "unauthorized client"));
        api->clearToken();
        api->validateToken();
        emulator_.addFault(statusRule("POST", kNotificationsPath, 403, "forbidden"));
        EXPECT_EQ(thrownText<std::runtime_error>([&] { api->postNotification(L"t", L"c", 0); }),
                  "forbidden");
    }
    Varkel::Zu::Logger::reloadConfiguration();

    const std::string stdoutText = out.text();
    const std::string key = emulator_.apiKey();
    std::vector<std::string> secrets = tokens;
    secrets.push_back(key);
    for (const auto& secret : secrets) {
        ASSERT_FALSE(secret.empty());
        EXPECT_EQ(stdoutText.find(secret), std::string::npos);
        EXPECT_EQ(log.text().find(secret), std::string::npos);
        for (const auto& record : records.records()) {
            EXPECT_EQ(narrow(record.message).find(secret), std::string::npos)
                << record.logger << ": " << narrow(record.message);
        }
    }
    // The records were there to be looked at.
    EXPECT_FALSE(records.messages("TolvaCore.QxPlatformApi").empty());
}

}  // namespace
}  // namespace TolvaRestTest
