// Replies labelled with any JSON media type are read as JSON: a key set served as
// "application/jwk-set+json" (its registered type), a token reply with a vendor "+json" type
// and a charset. A reply labelled as something else is still refused.
#include "RestTestSupport.h"

#include <TolvaCore/private/JsonReply.h>

#include <ZuCore/StringConversion.h>

#include <string>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::isJsonMediaType;
using Varkel::Zu::widen;

TEST(JsonMediaTypeTest, JsonAndEveryApplicationPlusJsonTypeCount) {
    for (const char* type :
         {"application/json", "application/json; charset=utf-8", "Application/JSON",
          "application/jwk-set+json", "application/problem+json", "application/vnd.qx.token+json",
          " application/jwk-set+json ;charset=UTF-8", "text/json", "application/x-json",
          "text/javascript"}) {
        EXPECT_TRUE(isJsonMediaType(type)) << type;
    }
    for (const char* type : {"", "text/plain", "text/html; charset=utf-8", "application/xml",
                             "application/+json", "text/jwk-set+json", "application/json-seq",
                             "application/jwk-set+json/x", "application/jwk-set+jsonx"}) {
        EXPECT_FALSE(isJsonMediaType(type)) << type;
    }
}

qxpemu::FaultRule keySetReply(const std::string& keySet, const std::string& contentType) {
    return statusRule("GET", kKeySetPath, 200, keySet, contentType);
}

TEST_F(RestTest, AKeySetServedAsJwkSetJsonIsKept) {
    emulator_.addFault(keySetReply(emulator_.keySet(), "application/jwk-set+json"));
    auto api = makeApi();
    EXPECT_FALSE(api->getCurrentAccessToken().empty());
    EXPECT_EQ(api->getCurrentTokenCopy().keySet.serialize(), emulator_.keySet());
    EXPECT_EQ(requestsTo("GET", kKeySetPath).size(), 1u);
}

TEST_F(RestTest, ATokenReplyWithAVendorJsonTypeAndACharsetIsRead) {
    auto rule = tokenReply(emulator_.issueToken(testEmulatorOptions().clients.front().clientId));
    rule.contentType = "application/vnd.qx.token+json; charset=utf-8";
    emulator_.addFault(rule);
    auto api = makeApi();
    EXPECT_EQ(api->getCurrentTokenCopy().account, widen(testAccount()));
}

TEST_F(RestTest, AKeySetLabelledAsHtmlIsStillRefused) {
    const LogRecords records;
    emulator_.addFault(keySetReply(emulator_.keySet(), "text/html"));
    auto api = makeApi();
    EXPECT_TRUE(api->getCurrentAccessToken().empty());
    bool refused = false;
    for (const auto& message : records.messages("TolvaCore.QxPlatformApi")) {
        refused = refused || message.rfind(L"Get token failed ", 0) == 0;
    }
    EXPECT_TRUE(refused);
}

}  // namespace
}  // namespace TolvaRestTest
