// Notification posting: the exact request, the body members, and what the caller, the debug
// log and the token see for every kind of failure.
#include "RestTestSupport.h"

#include <regex>
#include <stdexcept>
#include <string>

#include <cpprest/http_msg.h>
#include <cpprest/json.h>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;

class PostNotificationTest : public RestTest {
  protected:
    void SetUp() override {
        RestTest::SetUp();
        api_ = makeApi();
        emulator_.clearRequests();
    }

    // The single notification request recorded since SetUp.
    qxpemu::RecordedRequest onlyPost() const {
        const auto posts = requestsTo("POST", kNotificationsPath);
        EXPECT_EQ(posts.size(), 1u);
        return posts.empty() ? qxpemu::RecordedRequest{} : posts.front();
    }

    static web::json::value bodyOf(const qxpemu::RecordedRequest& request) {
        return web::json::value::parse(request.body);
    }

    // Posts and returns the caller's exception text; fails the test when nothing is thrown
    // or when the HTTP library's own exception type reaches the caller.
    std::string postExpectingFailure(const std::wstring& topic = L"t",
                                     const std::wstring& content = L"c") {
        try {
            api_->postNotification(topic, content, 0);
        } catch (const web::http::http_exception&) {
            ADD_FAILURE() << "the HTTP library's exception leaked out";
            return {};
        } catch (const std::exception& e) {
            return e.what();
        }
        ADD_FAILURE() << "postNotification succeeded";
        return {};
    }

    std::shared_ptr<TestApi> api_;
};

TEST_F(PostNotificationTest, SendsTheExactRequest) {
    const DebugLogTail log;
    api_->postNotification(L"plant/line1", L"started", 0);

    const auto post = onlyPost();
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.target, kNotificationsPath);
    EXPECT_EQ(post.header("Accept"), "application/json");
    EXPECT_EQ(post.header("Content-Type"), "application/json");
    EXPECT_EQ(post.header("User-Agent"), "Tolva");
    EXPECT_EQ(post.header("Authorization"),
              "Bearer " + narrow(api_->getCurrentToken().accessToken));

    const auto body = bodyOf(post);
    ASSERT_TRUE(body.is_object());
    EXPECT_EQ(body.at("topic").as_string(), "plant/line1");
    EXPECT_EQ(body.at("content").as_string(), "started");
    EXPECT_EQ(body.at("source").as_string(), "Tolva");
    EXPECT_TRUE(
        std::regex_match(body.at("id").as_string(),
                         std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-"
                                    "[0-9a-f]{12}")))
        << body.at("id").as_string();
    EXPECT_TRUE(std::regex_match(
        body.at("time").as_string(),
        std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}(\\.[0-9]+)?Z")))
        << body.at("time").as_string();

    EXPECT_TRUE(log.hasLine("TRACE: Sending QXP notification: " + post.body)) << log.text();
}

TEST_F(PostNotificationTest, TtlZeroLeavesTtlOut) {
    api_->postNotification(L"t", L"c", 0);
    const auto body = bodyOf(onlyPost());
    EXPECT_EQ(body.as_object().size(), 5u);
    for (const char* key : {"id", "time", "topic", "content", "source"}) {
        EXPECT_TRUE(body.has_field(key)) << key;
    }
    EXPECT_FALSE(body.has_field("ttl"));
}

TEST_F(PostNotificationTest, TtlOneIsSentAsANumber) {
    api_->postNotification(L"t", L"c", 1);
    const auto body = bodyOf(onlyPost());
    EXPECT_EQ(body.as_object().size(), 6u);
    ASSERT_TRUE(body.at("ttl").is_number());
    EXPECT_EQ(body.at("ttl").as_integer(), 1);
}

TEST_F(PostNotificationTest, LargestTtlIsSentUnsigned) {
    api_->postNotification(L"t", L"c", 4294967295u);
    EXPECT_EQ(bodyOf(onlyPost()).at("ttl").as_number().to_uint64(), 4294967295u);
}

TEST_F(PostNotificationTest, TopicIsLowerCased) {
    api_->postNotification(L"Studio/Alerts", L"c", 0);
    EXPECT_EQ(bodyOf(onlyPost()).at("topic").as_string(), "studio/alerts");
}

TEST_F(PostNotificationTest, JsonContentIsSentAsAnEscapedString) {
    api_->postNotification(L"t", L"{\"a\":1}", 0);
    const auto post = onlyPost();
    EXPECT_NE(post.body.find("\"content\":\"{\\\"a\\\":1}\""), std::string::npos) << post.body;
    EXPECT_EQ(bodyOf(post).at("content").as_string(), "{\"a\":1}");
}

TEST_F(PostNotificationTest, NonAsciiContentArrivesAsUtf8) {
    api_->postNotification(L"t", L"Gr\u00FC\u00DFe \u2713 \U0001F600", 0);
    EXPECT_EQ(bodyOf(onlyPost()).at("content").as_string(),
              "Gr\xC3\xBC\xC3\x9F"
              "e \xE2\x9C\x93 \xF0\x9F\x98\x80");
}

TEST_F(PostNotificationTest, TwoCallsSendTwoDifferentIds) {
    api_->postNotification(L"t", L"c", 0);
    api_->postNotification(L"t", L"c", 0);
    const auto posts = requestsTo("POST", kNotificationsPath);
    ASSERT_EQ(posts.size(), 2u);
    EXPECT_NE(bodyOf(posts[0]).at("id").as_string(), bodyOf(posts[1]).at("id").as_string());
}

TEST_F(PostNotificationTest, Reply204IsSuccess) {
    emulator_.addFault(statusRule("POST", kNotificationsPath, 204));
    const DebugLogTail log;
    EXPECT_NO_THROW(api_->postNotification(L"t", L"c", 0));
    EXPECT_EQ(log.countLinesStartingWith("ERROR: "), 0u) << log.text();
}

// A post returns once the HTTP library is done with its answer, the connection back in its
// pool, so the next post finds it there. (Under load a second one may still be opened and is
// then kept too: a bound of two.)
TEST_F(PostNotificationTest, PostsOneAfterAnotherGoOutOnTheConnectionAlreadyOpen) {
    api_->postNotification(L"Reuse/Topic", L"first", 0);
    const std::size_t opened = emulator_.connectionCounts().accepted;
    for (int i = 0; i < 50; ++i) {
        api_->postNotification(L"Reuse/Topic", L"next", 0);
    }
    EXPECT_EQ(requestsTo("POST", kNotificationsPath).size(), 51u);
    EXPECT_LE(emulator_.connectionCounts().accepted, opened + 2);
}

// No operation accepts a redirect: it fails like any other status it does not accept, and
// the place it points to is never asked for.
TEST_F(PostNotificationTest, ARedirectIsAFailureAndIsNotFollowed) {
    auto rule = statusRule("POST", kNotificationsPath, 303, "");
    rule.headers = {{"Location", emulator_.baseUrl() + "/elsewhere"}};
    emulator_.addFault(rule);
    const DebugLogTail log;
    EXPECT_EQ(postExpectingFailure(), "");
    EXPECT_TRUE(log.hasLine("ERROR: Post notification failed. 303 See Other")) << log.text();
    EXPECT_TRUE(requestsTo("GET", "/elsewhere").empty());
    EXPECT_EQ(requestsTo("POST", kNotificationsPath).size(), 1u);
}

TEST_F(PostNotificationTest, Reply200WithEmptyBodyIsAFailure) {
    emulator_.addFault(statusRule("POST", kNotificationsPath, 200, ""));
    const DebugLogTail log;
    EXPECT_EQ(postExpectingFailure(), "");
    EXPECT_TRUE(log.hasLine("ERROR: Post notification failed. 200 OK")) << log.text();
}

TEST_F(PostNotificationTest, Reply201IsAFailure) {
    emulator_.addFault(statusRule("POST", kNotificationsPath, 201, "{}", "application/json"));
    const DebugLogTail log;
    EXPECT_EQ(postExpectingFailure(), "{}");
    EXPECT_TRUE(log.hasLine("ERROR: Post notification failed. 201 Created")) << log.text();
}

TEST_F(PostNotificationTest, Reply404WithPlainTextBodyReachesTheCallerAsWhat) {
    const std::wstring tokenBefore = api_->getCurrentToken().accessToken;
    emulator_.addFault(statusRule("POST", kNotificationsPath, 404, "topic not known here"));
    const DebugLogTail log;
    EXPECT_EQ(postExpectingFailure(), "topic not known here");
    EXPECT_TRUE(log.hasLine("ERROR: Post notification failed. 404 Not Found")) << log.text();
    // A failed post leaves the token alone and is sent once.
    EXPECT_EQ(api_->getCurrentToken().accessToken, tokenBefore);
    EXPECT_EQ(requestsTo("POST", kNotificationsPath).size(), 1u);
}

TEST_F(PostNotificationTest, ReasonPhraseOfTheReplyIsLogged) {
    auto rule = statusRule("POST", kNotificationsPath, 500, "x");
    rule.reason = "Broker Unwell";
    emulator_.addFault(rule);
    const DebugLogTail log;
    EXPECT_EQ(postExpectingFailure(), "x");
    EXPECT_TRUE(log.hasLine("ERROR: Post notification failed. 500 Broker Unwell")) << log.text();
}

TEST_F(PostNotificationTest, DroppedConnectionFailsWithoutAStatusLine) {
    emulator_.addFault(dropRule("POST", kNotificationsPath));
    const DebugLogTail log;
    EXPECT_FALSE(postExpectingFailure().empty());
    EXPECT_EQ(log.countLinesStartingWith("ERROR: Post notification failed."), 0u) << log.text();
    EXPECT_FALSE(api_->getCurrentToken().accessToken.empty());
}

TEST_F(PostNotificationTest, RenewsADueTokenFirst) {
    api_->clearToken();
    api_->postNotification(L"t", L"c", 0);
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].target, kTokenPath);
    EXPECT_EQ(requests[1].target, kKeySetPath);
    EXPECT_EQ(requests[2].target, kNotificationsPath);
    EXPECT_EQ(requests[2].header("Authorization"),
              "Bearer " + narrow(api_->getCurrentToken().accessToken));
}

TEST_F(PostNotificationTest, AfterAFailedRenewalThePostGoesOutWithAnEmptyBearer) {
    api_->clearToken();
    emulator_.addFault(statusRule("POST", kTokenPath, 500, "identity down"));
    const DebugLogTail log;
    // The emulator refuses the empty token, and the caller hears about that.
    EXPECT_FALSE(postExpectingFailure().empty());
    const auto post = onlyPost();
    // "Bearer " followed by nothing; the server side trims the trailing blank of a field value.
    EXPECT_EQ(post.header("Authorization").substr(0, 6), "Bearer");
    EXPECT_EQ(post.header("Authorization").find_first_not_of(" ", 6), std::string::npos);
    EXPECT_TRUE(log.hasLine("ERROR: Token validation failed. identity down")) << log.text();
}

}  // namespace
}  // namespace TolvaRestTest
