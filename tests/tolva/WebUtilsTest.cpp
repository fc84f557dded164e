// HTTP client creation: proxy selection from "http_proxy" and the authorisation stage.
#include "RestTestSupport.h"

#include <thread>

#include <TolvaCore/WebUtils.h>

#include <ZuCore/InvalidArgumentException.h>

#include <chrono>

#include <cpprest/base_uri.h>
#include <cpprest/http_client.h>
#include <boost/algorithm/string/predicate.hpp>

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
    // A value without a scheme is a host name: the proxy http://AUTO.
    EXPECT_EQ(config.proxy().address().scheme(), "http");
    EXPECT_TRUE(boost::iequals(config.proxy().address().host(), "AUTO"));
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

// Remembers the thread its destructor ran on.
class EndRecordingApi : public TestApi {
  public:
    EndRecordingApi(Varkel::Zu::PrivateConstructorType tag, const std::wstring& url,
                    const std::wstring& key, std::shared_ptr<std::thread::id> endedOn)
        : TestApi(tag, url, key), endedOn_(std::move(endedOn)) {}
    ~EndRecordingApi() override { *endedOn_ = std::this_thread::get_id(); }

  private:
    std::shared_ptr<std::thread::id> endedOn_;
};

// A host sends through a client made for its API object, from a continuation, while its own
// thread lets go of the object: the object must end on that thread, never on a pool thread
// inside the client's bearer stage (where its end would wait for the pool). Run with pools of
// one and two threads.
class BearerStageLifetime : public WebUtilsClientTest, public ::testing::WithParamInterface<int> {};

TEST_P(BearerStageLifetime, TheStageNeverEndsTheApiObjectOnAPoolThread) {
    const ScopedEnv threads("TOLVA_HTTP_THREADS", std::to_string(GetParam()));
    for (int attempt = 0; attempt < 30; ++attempt) {
        const auto endedOn = std::make_shared<std::thread::id>();
        auto api = Varkel::Zu::MakeShared::create<EndRecordingApi>(
            widen(emulator_.baseUrl()), widen(emulator_.apiKey()), endedOn);
        const auto client = createHttpClient(widen(emulator_.baseUrl()), api);
        // Each answer sends the next request from its continuation, on a pool thread.
        pplx::task<void> chain =
            client->request(web::http::methods::GET, kKeySetPath)
                .then([client](const web::http::http_response&) {
                    return client->request(web::http::methods::GET, kKeySetPath);
                })
                .then([client](const web::http::http_response&) {
                    return client->request(web::http::methods::GET, kKeySetPath);
                })
                .then([](pplx::task<web::http::http_response> last) {
                    try {
                        last.get();
                    } catch (const std::exception&) {
                        // Only the object's end matters here.
                    }
                });
        api.reset();
        chain.wait();
        ASSERT_EQ(*endedOn, std::this_thread::get_id()) << "attempt " << attempt;
    }
}

INSTANTIATE_TEST_SUITE_P(PoolSizes, BearerStageLifetime, ::testing::Values(1, 2));

}  // namespace
}  // namespace TolvaRestTest
