// HTTP client creation: proxy selection from "http_proxy" and the authorisation stage.
#include "RestTestSupport.h"

#include <TolvaCore/WebUtils.h>

#include <ZuCore/InvalidArgumentException.h>

#include <chrono>

#include <cpprest/base_uri.h>
#include <cpprest/http_client.h>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::WebUtils::createHttpClient;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;

const std::wstring kUrl = L"http://127.0.0.1:8080/base";

TEST(WebUtils, ClientUsesTheUrlAndTheDefaultTimeout) {
    const ScopedEnv proxy("http_proxy", std::nullopt);
    const auto client = createHttpClient(kUrl, nullptr);
    ASSERT_TRUE(client);
    EXPECT_EQ(client->base_uri().to_string(), narrow(kUrl));
    EXPECT_EQ(client->client_config().timeout<std::chrono::seconds>(), std::chrono::seconds(30));
}

TEST(WebUtils, UnsetProxyVariableKeepsTheSystemDefault) {
    const ScopedEnv proxy("http_proxy", std::nullopt);
    EXPECT_TRUE(createHttpClient(kUrl, nullptr)->client_config().proxy().is_default());
}

TEST(WebUtils, EmptyProxyVariableKeepsTheSystemDefault) {
    const ScopedEnv proxy("http_proxy", std::string());
    EXPECT_TRUE(createHttpClient(kUrl, nullptr)->client_config().proxy().is_default());
}

TEST(WebUtils, ProxyVariableAutoSelectsAutomaticDiscovery) {
    const ScopedEnv proxy("http_proxy", std::string("auto"));
    EXPECT_TRUE(createHttpClient(kUrl, nullptr)->client_config().proxy().is_auto_discovery());
}

TEST(WebUtils, ProxyVariableAutoInCapitalsIsAProxyUri) {
    const ScopedEnv proxy("http_proxy", std::string("AUTO"));
    const auto client = createHttpClient(kUrl, nullptr);
    const auto& config = client->client_config();
    EXPECT_FALSE(config.proxy().is_auto_discovery());
    EXPECT_TRUE(config.proxy().is_specified());
    EXPECT_EQ(config.proxy().address().to_string(), "AUTO");
}

TEST(WebUtils, ProxyVariableAutoWithTrailingBlankIsAProxyUri) {
    // Not exactly the four letters: parsed as a URI, which a blank makes invalid.
    const ScopedEnv proxy("http_proxy", std::string("auto "));
    EXPECT_THROW(createHttpClient(kUrl, nullptr), web::uri_exception);
}

TEST(WebUtils, ProxyVariableUriIsUsedAsTheProxy) {
    const ScopedEnv proxy("http_proxy", std::string("http://127.0.0.1:3128"));
    const auto client = createHttpClient(kUrl, nullptr);
    const auto& config = client->client_config();
    EXPECT_TRUE(config.proxy().is_specified());
    EXPECT_EQ(config.proxy().address().host(), "127.0.0.1");
    EXPECT_EQ(config.proxy().address().port(), 3128);
}

TEST(WebUtils, MalformedProxyVariableThrows) {
    const ScopedEnv proxy("http_proxy", std::string("http://proxy host:3128"));
    EXPECT_THROW(createHttpClient(kUrl, nullptr), web::uri_exception);
}

TEST(WebUtils, MalformedProxyVariableThrowsOutOfTheConstructor) {
    const ScopedEnv proxy("http_proxy", std::string("http://proxy host:3128"));
    EXPECT_THROW(Varkel::Zu::MakeShared::create<TestApi>(unreachableUrl(), L"k"),
                 web::uri_exception);
}

TEST(WebUtils, MalformedProxyVariableKeepsItsCredentialsOutOfTextsAndLogs) {
    const std::string password = "pr0xy-s3cret";
    const ScopedEnv proxy("http_proxy", "http://user:" + password + "@proxy host:3128");
    try {
        createHttpClient(kUrl, nullptr);
        ADD_FAILURE() << "a malformed proxy value was accepted";
    } catch (const web::uri_exception& e) {
        EXPECT_EQ(std::string(e.what()).find(password), std::string::npos) << e.what();
    }

    // The configuration factory logs the text of what it rejects.
    const LogRecords records;
    EXPECT_THROW(QxPlatformApi::createFromQXPlatformConfig(
                     L"{\"url\":\"http://127.0.0.1:9\",\"logging\":{\"credentials\":\"k\"}}"),
                 Varkel::Zu::InvalidArgumentException);
    ASSERT_FALSE(records.records().empty());
    for (const auto& record : records.records()) {
        EXPECT_EQ(narrow(record.message).find(password), std::string::npos)
            << narrow(record.message);
    }
}

using WebUtilsClientTest = RestTest;

TEST_F(WebUtilsClientTest, ClientWithoutApiSendsNoAuthorization) {
    const auto client = createHttpClient(widen(emulator_.baseUrl()), nullptr);
    client->request(web::http::methods::GET, kKeySetPath)
        .then([](const web::http::http_response& response) { return response.status_code(); })
        .get();
    const auto requests = requestsTo("GET", kKeySetPath);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].header("Authorization"), "");
}

TEST_F(WebUtilsClientTest, ClientWithApiAddsTheBearerTokenHeldAtSendTime) {
    const auto api = makeApi();
    const auto client = createHttpClient(widen(emulator_.baseUrl()), api);
    emulator_.clearRequests();

    const auto send = [&client] {
        client->request(web::http::methods::GET, kKeySetPath)
            .then([](const web::http::http_response& response) { return response.status_code(); })
            .get();
    };
    const std::string token = narrow(api->getCurrentToken().accessToken);
    ASSERT_FALSE(token.empty());
    send();
    api->clearToken();
    send();

    const auto requests = requestsTo("GET", kKeySetPath);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].header("Authorization"), "Bearer " + token);
    // After clearToken the stage reads the empty text.
    EXPECT_EQ(requests[1].header("Authorization").substr(0, 6), "Bearer");
    EXPECT_EQ(requests[1].header("Authorization").find_first_not_of(" ", 6), std::string::npos);
}

}  // namespace
}  // namespace TolvaRestTest
