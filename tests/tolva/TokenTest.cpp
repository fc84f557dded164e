// The access token: the token and key-set requests, the account claim, the renewal rule and
// every failure path with what it writes to the debug log and standard output.
#include "RestTestSupport.h"

#include <ZuCore/Base64.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include <cpprest/http_msg.h>
#include <cpprest/json.h>

namespace TolvaRestTest {
namespace {

using std::chrono::seconds;
using Varkel::Zu::widen;

// An access token whose payload is the given JSON, in the platform's base64url form without
// padding. Header and signature are placeholders: the library does not verify here.
std::string tokenWithPayload(const std::string& payloadJson) {
    return "eyJhbGciOiJSUzI1NiJ9." + Varkel::Zu::Base64::encode_url(payloadJson) + ".c2lnbmF0dXJl";
}

// Whether the API logger wrote exactly this message at this level.
bool hasRecord(const LogRecords& records, const std::string& level, const std::wstring& message) {
    for (const auto& record : records.records()) {
        if (record.logger == "TolvaCore.QxPlatformApi" && record.level == level &&
            record.message == message) {
            return true;
        }
    }
    return false;
}

Token tokenExpiringAt(Token::TimePoint expiry, std::wstring text = L"a.b.c") {
    Token token;
    token.accessToken = std::move(text);
    token.expiresAt = expiry;
    return token;
}

// --- The record and the renewal rule, at exact instants ---------------------------------------

TEST(TokenRecord, StartsEmptyWithTheEarliestExpiry) {
    const Token token;
    EXPECT_TRUE(token.accessToken.empty());
    EXPECT_TRUE(token.account.empty());
    EXPECT_TRUE(token.keySet.is_null());
    EXPECT_EQ(token.expiresAt.time_since_epoch().count(), std::numeric_limits<std::int64_t>::min());
}

TEST(TokenRecord, ExpiryCountsHundredNanosecondTicks) {
    EXPECT_EQ(Token::Ticks(seconds(300)).count(), 3000000000LL);
    EXPECT_EQ(Token::Ticks(seconds(3600)).count(), 36000000000LL);
}

TEST(TokenRenewalRule, TokenExpiringIn299SecondsIsRenewed) {
    const auto now = Token::now();
    EXPECT_TRUE(TestApi::isTokenDue(tokenExpiringAt(now + seconds(299)), now));
}

TEST(TokenRenewalRule, TokenExpiringInExactly300SecondsIsKept) {
    const auto now = Token::now();
    EXPECT_FALSE(TestApi::isTokenDue(tokenExpiringAt(now + seconds(300)), now));
}

TEST(TokenRenewalRule, OneTickShortOf300SecondsIsRenewed) {
    const auto now = Token::now();
    EXPECT_TRUE(TestApi::isTokenDue(tokenExpiringAt(now + seconds(300) - Token::Ticks(1)), now));
}

TEST(TokenRenewalRule, NonEmptyTokenThatExpiredIsRenewed) {
    const auto now = Token::now();
    EXPECT_TRUE(TestApi::isTokenDue(tokenExpiringAt(now - seconds(1)), now));
    EXPECT_TRUE(TestApi::isTokenDue(tokenExpiringAt(now - seconds(86400 * 365)), now));
}

TEST(TokenRenewalRule, InitialEarliestExpiryIsRenewedWithoutOverflow) {
    const auto now = Token::now();
    EXPECT_TRUE(TestApi::isTokenDue(tokenExpiringAt(Token::TimePoint::min()), now));
}

TEST(TokenRenewalRule, EmptyTokenIsRenewedEvenWithFarFutureExpiry) {
    const auto now = Token::now();
    EXPECT_TRUE(TestApi::isTokenDue(tokenExpiringAt(now + seconds(86400 * 365), L""), now));
    EXPECT_TRUE(TestApi::isTokenDue(tokenExpiringAt(Token::TimePoint::max(), L""), now));
}

TEST(TokenRenewalRule, HourLongTokenIsRenewedFrom3300SecondsOn) {
    const auto issued = Token::now();
    const Token token = tokenExpiringAt(issued + seconds(3600));
    EXPECT_FALSE(TestApi::isTokenDue(token, issued));
    EXPECT_FALSE(TestApi::isTokenDue(token, issued + seconds(3299)));
    // At 3300 seconds exactly 300 remain, which is still enough; any later instant is due.
    EXPECT_FALSE(TestApi::isTokenDue(token, issued + seconds(3300)));
    EXPECT_TRUE(TestApi::isTokenDue(token, issued + seconds(3300) + Token::Ticks(1)));
    EXPECT_TRUE(TestApi::isTokenDue(token, issued + seconds(3301)));
}

// --- Against the emulator --------------------------------------------------------------------

using TokenTest = RestTest;

TEST_F(TokenTest, ConstructorSendsTheTokenRequestThenTheKeySetRequest) {
    const auto api = makeApi();
    const auto requests = emulator_.requests();
    ASSERT_GE(requests.size(), 2u);

    const auto& tokenRequest = requests[0];
    EXPECT_EQ(tokenRequest.method, "POST");
    EXPECT_EQ(tokenRequest.target, kTokenPath);
    EXPECT_EQ(tokenRequest.header("Accept"), "application/json");
    EXPECT_EQ(tokenRequest.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(tokenRequest.header("User-Agent"), "Tolva");
    EXPECT_EQ(tokenRequest.header("Authorization"), "Basic " + emulator_.apiKey());
    EXPECT_EQ(tokenRequest.body, "grant_type=client_credentials&scope=platform+cluster");
    EXPECT_EQ(tokenRequest.body.size(), 52u);
    EXPECT_EQ(tokenRequest.header("Content-Length"), "52");

    const auto& keySetRequest = requests[1];
    EXPECT_EQ(keySetRequest.method, "GET");
    EXPECT_EQ(keySetRequest.target, kKeySetPath);
    EXPECT_EQ(keySetRequest.header("Accept"), "application/json");
    EXPECT_EQ(keySetRequest.header("User-Agent"), "Tolva");
    EXPECT_EQ(keySetRequest.header("Authorization"), "");
    EXPECT_TRUE(keySetRequest.body.empty());
}

TEST_F(TokenTest, ConstructorKeepsTokenAccountKeySetAndExpiry) {
    const auto before = Token::now();
    const auto api = makeApi();
    const auto after = Token::now();

    const Token& token = api->getCurrentToken();
    EXPECT_EQ(std::count(token.accessToken.begin(), token.accessToken.end(), L'.'), 2);
    EXPECT_EQ(token.account, widen(testAccount()));
    EXPECT_EQ(token.keySet, web::json::value::parse(emulator_.keySet()));
    EXPECT_GE(token.expiresAt, before + seconds(3600));
    EXPECT_LE(token.expiresAt, after + seconds(3600));
}

TEST_F(TokenTest, SuccessfulTokenWritesItsStdoutAndTraceLines) {
    const DebugLogTail log;
    TolvaTest::StdoutCapture out;
    const auto api = makeApi();
    EXPECT_EQ(out.text(),
              "#####Access token being created.\n"
              "#########Access token updated successfully.\n");
    EXPECT_TRUE(log.hasLine("TRACE: Access token updated successfully.")) << log.text();
    EXPECT_EQ(log.countLinesStartingWith("ERROR: "), 0u) << log.text();
}

TEST_F(TokenTest, GetTokenReturnsTheNewTokenAndLeavesTheCurrentOne) {
    const auto api = makeApi();
    const std::wstring before = api->getCurrentToken().accessToken;
    const std::string fresh = tokenWithPayload("{\"acc\":\"acc-other\"}");
    emulator_.addFault(tokenReply(fresh));

    const auto start = Token::now();
    const Token token = api->getToken();
    const auto end = Token::now();

    EXPECT_EQ(token.accessToken, widen(fresh));
    EXPECT_EQ(token.account, L"acc-other");
    EXPECT_EQ(token.keySet, web::json::value::parse(emulator_.keySet()));
    // "expires_in" 3600 is now plus 36,000,000,000 ticks.
    EXPECT_GE(token.expiresAt.time_since_epoch().count(),
              start.time_since_epoch().count() + 36000000000LL);
    EXPECT_LE(token.expiresAt.time_since_epoch().count(),
              end.time_since_epoch().count() + 36000000000LL);
    EXPECT_EQ(api->getCurrentToken().accessToken, before);
}

TEST_F(TokenTest, PayloadInUrlSafeBase64WithoutPaddingIsRead) {
    const auto api = makeApi();
    // "?>?" encodes to characters that differ between the two alphabets.
    emulator_.addFault(tokenReply(tokenWithPayload("{\"acc\":\"gr\xC3\xBC\xC3\x9F-?>?\"}")));
    EXPECT_EQ(api->getToken().account, L"gr\u00FC\u00DF-?>?");
}

TEST_F(TokenTest, TokenReplyWithStatus201IsAFailure) {
    const auto api = makeApi();
    const Token previous = api->getCurrentToken();
    emulator_.clearRequests();
    const std::string body =
        "{\"access_token\":\"" + tokenWithPayload("{\"acc\":\"x\"}") + "\",\"expires_in\":3600}";
    emulator_.addFault(statusRule("POST", kTokenPath, 201, body, "application/json"));

    const DebugLogTail log;
    TolvaTest::StdoutCapture out;
    try {
        api->getToken();
        FAIL() << "getToken accepted a 201 reply";
    } catch (const web::http::http_exception&) {
        FAIL() << "the HTTP library's exception leaked out";
    } catch (const std::exception& e) {
        EXPECT_EQ(std::string(e.what()), body);
    }
    EXPECT_EQ(out.text(),
              "#####Access token being created.\n"
              "####### Get token failed \n"
              "####### Get token failed: " +
                  body + "\n");
    EXPECT_TRUE(log.hasLine("ERROR: Get token failed 201 Created")) << log.text();

    // Cleared, but account and key set stay; the key set is not requested after a failure.
    const Token& token = api->getCurrentToken();
    EXPECT_TRUE(token.accessToken.empty());
    EXPECT_EQ(token.expiresAt.time_since_epoch().count(), 0);
    EXPECT_EQ(token.account, previous.account);
    EXPECT_EQ(token.keySet, previous.keySet);
    EXPECT_TRUE(requestsTo("GET", kKeySetPath).empty());
}

TEST_F(TokenTest, TokenReplyWith404PlainTextCarriesTheBody) {
    const auto api = makeApi();
    emulator_.addFault(statusRule("POST", kTokenPath, 404, "no such client"));

    const DebugLogTail log;
    TolvaTest::StdoutCapture out;
    try {
        api->getToken();
        FAIL() << "getToken accepted a 404 reply";
    } catch (const std::exception& e) {
        EXPECT_EQ(std::string(e.what()), "no such client");
    }
    EXPECT_EQ(out.text(),
              "#####Access token being created.\n"
              "####### Get token failed \n"
              "####### Get token failed: no such client\n");
    EXPECT_TRUE(log.hasLine("ERROR: Get token failed 404 Not Found")) << log.text();
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
}

// Error records go through capped logging (one record per call site per minute). Every test
// case runs in a process of its own (one CTest entry each), so the call site has not logged
// yet when these tests look for its record.
TEST_F(TokenTest, TokenFailureIsLoggedOnTheApiLoggerAtErrorLevel) {
    const auto api = makeApi();
    emulator_.addFault(statusRule("POST", kTokenPath, 500, "identity down"));
    const LogRecords records;
    EXPECT_EQ(thrownText<std::runtime_error>([&] { api->getToken(); }), "identity down");
    EXPECT_TRUE(hasRecord(records, "error", L"Get token failed identity down"));
}

TEST_F(TokenTest, AccountIsLoggedAtDebugLevel) {
    Varkel::Zu::Logger::configureLevels("TolvaCore.QxPlatformApi=debug");
    const LogRecords records;
    const auto api = makeApi();
    Varkel::Zu::Logger::reloadConfiguration();
    EXPECT_TRUE(hasRecord(records, "debug", L"QX Platform account : " + widen(testAccount())));
}

TEST_F(TokenTest, DroppedTokenConnectionFailsAndClearsTheToken) {
    const auto api = makeApi();
    emulator_.addFault(dropRule("POST", kTokenPath));

    const DebugLogTail log;
    TolvaTest::StdoutCapture out;
    std::string what;
    try {
        api->getToken();
        FAIL() << "getToken survived a dropped connection";
    } catch (const web::http::http_exception&) {
        FAIL() << "the HTTP library's exception leaked out";
    } catch (const std::exception& e) {
        what = e.what();
    }
    EXPECT_FALSE(what.empty());
    EXPECT_EQ(out.text(),
              "#####Access token being created.\n"
              "####### Get token failed \n"
              "####### Get token failed: " +
                  what + "\n");
    // A transport failure has no status line.
    EXPECT_EQ(log.countLinesStartingWith("ERROR: Get token failed"), 0u) << log.text();
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    EXPECT_EQ(api->getCurrentToken().expiresAt.time_since_epoch().count(), 0);
}

TEST_F(TokenTest, KeySetFailureAfterAGoodTokenFailsTheWholeRequest) {
    const auto api = makeApi();
    const std::string fresh = tokenWithPayload("{\"acc\":\"acc-other\"}");
    emulator_.addFault(tokenReply(fresh));
    emulator_.addFault(statusRule("GET", kKeySetPath, 500, "jwks down"));
    emulator_.clearRequests();

    const DebugLogTail log;
    TolvaTest::StdoutCapture out;
    try {
        api->getToken();
        FAIL() << "getToken ignored the failed key-set request";
    } catch (const std::exception& e) {
        EXPECT_EQ(std::string(e.what()), "jwks down");
    }
    EXPECT_EQ(out.text(),
              "#####Access token being created.\n"
              "#########Access token updated successfully.\n"
              "#########GET JWKS failed.\n"
              "####### Get token failed \n"
              "####### Get token failed: jwks down\n");
    EXPECT_TRUE(log.hasLine("TRACE: Access token updated successfully.")) << log.text();
    EXPECT_TRUE(log.hasLine("ERROR: GET JWKS failed 500 Internal Server Error")) << log.text();

    // The two requests went out one after the other, and the new token was not kept.
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].target, kTokenPath);
    EXPECT_EQ(requests[1].target, kKeySetPath);
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    EXPECT_EQ(api->getCurrentToken().expiresAt.time_since_epoch().count(), 0);
}

TEST_F(TokenTest, KeySetStatus201IsAFailure) {
    const auto api = makeApi();
    emulator_.addFault(statusRule("GET", kKeySetPath, 201, "{}", "application/json"));
    const DebugLogTail log;
    EXPECT_EQ(thrownText<std::runtime_error>([&] { api->getToken(); }), "{}");
    EXPECT_TRUE(log.hasLine("ERROR: GET JWKS failed 201 Created")) << log.text();
}

void expectInvalidToken(TestApi& api, const std::string& expectedMessage) {
    const std::wstring before = api.getCurrentToken().accessToken;
    TolvaTest::StdoutCapture out;
    try {
        api.getToken();
        ADD_FAILURE() << "the token was accepted";
    } catch (const std::exception& e) {
        EXPECT_EQ(std::string(e.what()), expectedMessage);
    }
    // Not a request failure: no failure lines on stdout and the current token stays.
    EXPECT_EQ(out.text(),
              "#####Access token being created.\n"
              "#########Access token updated successfully.\n");
    EXPECT_EQ(api.getCurrentToken().accessToken, before);
}

TEST_F(TokenTest, AccessTokenWithoutDotsIsRejected) {
    const auto api = makeApi();
    emulator_.addFault(tokenReply("nodotsatall"));
    expectInvalidToken(*api, "Invalid JWT token. Expecting 3 parts");
}

TEST_F(TokenTest, AccessTokenWithFivePartsIsRejected) {
    const auto api = makeApi();
    emulator_.addFault(tokenReply("a.b.c.d.e"));
    expectInvalidToken(*api, "Invalid JWT token. Expecting 3 parts");
}

TEST_F(TokenTest, NumericAccClaimIsRejected) {
    const auto api = makeApi();
    emulator_.addFault(tokenReply(tokenWithPayload("{\"acc\":5,\"sub\":\"x\"}")));
    expectInvalidToken(*api, "Invalid JWT token. Does not carry an 'acc' claim.");
}

TEST_F(TokenTest, MissingAccClaimIsRejected) {
    const auto api = makeApi();
    emulator_.addFault(tokenReply(tokenWithPayload("{\"sub\":\"x\"}")));
    expectInvalidToken(*api, "Invalid JWT token. Does not carry an 'acc' claim.");
}

TEST_F(TokenTest, ValidateTokenRenewsATokenWith299SecondsLeft) {
    emulator_.setTokenLifetime(299);
    const auto api = makeApi();
    const std::size_t before = tokenRequestCount();
    const DebugLogTail log;
    api->validateToken();
    EXPECT_EQ(tokenRequestCount(), before + 1);
    EXPECT_TRUE(log.hasLine("TRACE: Obtaining a new access token")) << log.text();
}

TEST_F(TokenTest, ValidateTokenKeepsATokenWithMoreThan300SecondsLeft) {
    // A few seconds above the margin absorb the time between the reply and the check.
    emulator_.setTokenLifetime(305);
    const auto api = makeApi();
    const std::size_t before = tokenRequestCount();
    const DebugLogTail log;
    api->validateToken();
    EXPECT_EQ(tokenRequestCount(), before);
    EXPECT_FALSE(log.hasLine("TRACE: Obtaining a new access token")) << log.text();
}

TEST_F(TokenTest, ValidateTokenRenewsAnExpiredToken) {
    emulator_.setTokenLifetime(0);
    const auto api = makeApi();
    ASSERT_FALSE(api->getCurrentToken().accessToken.empty());
    emulator_.setTokenLifetime(3600);
    const std::size_t before = tokenRequestCount();
    api->validateToken();
    EXPECT_EQ(tokenRequestCount(), before + 1);
    EXPECT_GT(api->getCurrentToken().expiresAt, Token::now() + seconds(3000));
}

TEST_F(TokenTest, ValidateTokenRenewsAClearedToken) {
    const auto api = makeApi();
    api->clearToken();
    const std::size_t before = tokenRequestCount();
    api->validateToken();
    EXPECT_EQ(tokenRequestCount(), before + 1);
    EXPECT_FALSE(api->getCurrentToken().accessToken.empty());
    EXPECT_EQ(api->getCurrentToken().account, widen(testAccount()));
}

TEST_F(TokenTest, FailedRenewalIsLoggedNotThrownAndLeavesTheTokenCleared) {
    const auto api = makeApi();
    api->clearToken();
    emulator_.addFault(statusRule("POST", kTokenPath, 503, "try later"));

    const DebugLogTail log;
    const LogRecords records;
    EXPECT_NO_THROW(api->validateToken());
    EXPECT_TRUE(log.hasLine("TRACE: Obtaining a new access token")) << log.text();
    EXPECT_TRUE(log.hasLine("ERROR: Get token failed 503 Service Unavailable")) << log.text();
    EXPECT_TRUE(log.hasLine("ERROR: Token validation failed. try later")) << log.text();
    EXPECT_TRUE(hasRecord(records, "error", L"Token validation failed. try later"));
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    EXPECT_EQ(api->getCurrentToken().expiresAt.time_since_epoch().count(), 0);

    // The next validation tries again.
    const std::size_t before = tokenRequestCount();
    api->validateToken();
    EXPECT_EQ(tokenRequestCount(), before + 1);
    EXPECT_FALSE(api->getCurrentToken().accessToken.empty());
}

TEST_F(TokenTest, ClearTokenLeavesAccountAndKeySet) {
    const auto api = makeApi();
    const Token before = api->getCurrentToken();
    ASSERT_FALSE(before.account.empty());
    ASSERT_FALSE(before.keySet.is_null());
    api->clearToken();
    const Token& after = api->getCurrentToken();
    EXPECT_TRUE(after.accessToken.empty());
    EXPECT_EQ(after.expiresAt.time_since_epoch().count(), 0);
    EXPECT_EQ(after.account, before.account);
    EXPECT_EQ(after.keySet, before.keySet);
}

TEST(TokenWithoutPlatform, ConstructorCarriesOnWithAnEmptyTokenWhenThePlatformIsDown) {
    const ScopedEnv noProxy("http_proxy", std::nullopt);
    const DebugLogTail log;
    std::shared_ptr<TestApi> api;
    ASSERT_NO_THROW(api = makeUnreachableApi());
    ASSERT_TRUE(api);
    EXPECT_TRUE(api->getCurrentToken().accessToken.empty());
    EXPECT_EQ(log.countLinesStartingWith("ERROR: Token validation failed. "), 1u) << log.text();
}

}  // namespace
}  // namespace TolvaRestTest
