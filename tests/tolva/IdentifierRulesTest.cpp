// The facade's text rules: the identifier rule, the hexadecimal digit count, the URL and key
// acceptance rules, and the narrowing of the string getters.
#include "FacadeTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <TolvaCore/QxPlatformApi.h>

#include <TestSupport.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

using FacadeTest::FacadeFixture;
using FacadeTest::FacadeProbe;
using FacadeTest::longEnoughKey;

namespace {

class IdentifierRulesTest : public FacadeFixture {
  protected:
    CTolvaPlatformIF* facade() {
        if (CTolvaPlatform::getInstance() == nullptr) {
            initialize("");
        }
        return CTolvaPlatform::getInstance();
    }
};

TEST_F(IdentifierRulesTest, UpperCaseIdentifierIsValid) {
    EXPECT_TRUE(facade()->isIdentifierValid("0F8FAD5B-D9CB-469F-A165-70867728950E"));
}

TEST_F(IdentifierRulesTest, LowerAndMixedCaseIdentifiersAreValid) {
    EXPECT_TRUE(facade()->isIdentifierValid("0f8fad5b-d9cb-469f-a165-70867728950e"));
    EXPECT_TRUE(facade()->isIdentifierValid("0f8FAD5b-D9cb-469F-a165-70867728950E"));
}

TEST_F(IdentifierRulesTest, IdentifierInBracesIsInvalid) {
    EXPECT_FALSE(facade()->isIdentifierValid("{0F8FAD5B-D9CB-469F-A165-70867728950E}"));
}

TEST_F(IdentifierRulesTest, IdentifierWithDashMovedIsInvalid) {
    // Dash at 9 instead of 8: still 36 characters and 32 digits.
    EXPECT_FALSE(facade()->isIdentifierValid("0F8FAD5BD-9CB-469F-A165-70867728950E"));
}

TEST_F(IdentifierRulesTest, IdentifierWithNonHexLetterIsInvalid) {
    EXPECT_FALSE(facade()->isIdentifierValid("0F8FAD5B-D9CB-469F-A165-7086772895GE"));
    EXPECT_FALSE(facade()->isIdentifierValid("0f8fad5b-d9cb-469f-a165-70867728950g"));
}

TEST_F(IdentifierRulesTest, IdentifierOfWrongLengthOrWithExtraDashesIsInvalid) {
    EXPECT_FALSE(facade()->isIdentifierValid(""));
    EXPECT_FALSE(facade()->isIdentifierValid("0F8FAD5B-D9CB-469F-A165-70867728950"));
    EXPECT_FALSE(facade()->isIdentifierValid("0F8FAD5B-D9CB-469F-A165-70867728950EE"));
    EXPECT_FALSE(facade()->isIdentifierValid("0F8FAD5B-D9CB-469F-A165-7086772895-E"));
    EXPECT_FALSE(
        facade()->isIdentifierValid("0F8FAD5B-D9CB-469F-A165-7086772895\xE9"
                                    "E"));
}

TEST_F(IdentifierRulesTest, CountHexDigitsOfEmptyStringIsZero) {
    FacadeProbe probe(*static_cast<CTolvaPlatform*>(facade()));
    EXPECT_EQ(probe.countHexDigits(""), 0);
}

TEST_F(IdentifierRulesTest, CountHexDigitsSkipsNonHexCharacters) {
    FacadeProbe probe(*static_cast<CTolvaPlatform*>(facade()));
    EXPECT_EQ(probe.countHexDigits("0x1F"), 3);
    EXPECT_EQ(probe.countHexDigits("0123456789abcdefABCDEF"), 22);
    EXPECT_EQ(probe.countHexDigits("ghij-\xC3\xA9\xFF"), 0);
    EXPECT_EQ(probe.countHexDigits("0F8FAD5B-D9CB-469F-A165-70867728950E"), 32);
}

TEST_F(IdentifierRulesTest, SevenCharacterPlatformUrlNeverMakesApiObject) {
    CTolvaPlatformIF* platform = initialize(longEnoughKey());
    TolvaTest::StdoutCapture capture;
    platform->setPlatformUrl("http://");
    // No host: the HTTP library refuses the clients too.
    EXPECT_EQ(capture.text(),
              "Failed to create KOVA platform client: URI must contain a hostname.\n");
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
}

TEST_F(IdentifierRulesTest, SingleSlashHttpsUrlGetsDirectClientAttemptButNoApiObject) {
    CTolvaPlatformIF* platform = initialize(longEnoughKey());
    const std::string url = "https:/127.0.0.1:8500";
    {
        TolvaTest::StdoutCapture capture;
        platform->setDirectUrl(url);
        EXPECT_THAT(capture.text(),
                    ::testing::StartsWith("Failed to create KOVA local discovery client: "));
    }
    {
        TolvaTest::StdoutCapture capture;
        platform->setPlatformUrl(url);
        capture.text();
    }
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
}

TEST_F(IdentifierRulesTest, NarrowGetterKeepsLowByteOfLatinCharacter) {
    CTolvaPlatformIF* platform = facade();
    platform->setTolvaFabricId("caf\xC3\xA9");  // U+00E9 in UTF-8
    EXPECT_EQ(platform->getFabricId(), L"caf\u00E9");
    EXPECT_EQ(platform->getStringFabricId(), "caf\xE9");

    platform->setDirectUrl("http://h\xC3\xA9te.example");
    EXPECT_EQ(platform->getStringDirectUrl(), "http://h\xE9te.example");
}

TEST_F(IdentifierRulesTest, NarrowGetterDropsHighByteAboveLatin1) {
    CTolvaPlatformIF* platform = facade();
    platform->setTolvaFabricId("\xC5\x81-\xE2\x82\xAC-\xF0\x9F\x98\x80");  // U+0141 U+20AC U+1F600
    EXPECT_EQ(platform->getFabricId(), L"\u0141-\u20AC-\U0001F600");
    const std::string narrowed = platform->getStringFabricId();
    EXPECT_EQ(narrowed, std::string("\x41-\xAC-\x00", 5));
    EXPECT_EQ(narrowed.size(), platform->getFabricId().size());
}

TEST_F(IdentifierRulesTest, SetFabricIdStoresOnlyDifferentValues) {
    CTolvaPlatformIF* platform = facade();
    platform->setTolvaFabricId("abc");
    platform->setTolvaFabricId("abc");
    EXPECT_EQ(platform->getFabricId(), L"abc");
    platform->setTolvaFabricId("abcd");
    EXPECT_EQ(platform->getFabricId(), L"abcd");
    platform->setTolvaFabricId("");
    EXPECT_EQ(platform->getFabricId(), L"");
}

// An eight-character URL ("http://" and a one-character host) is enough for an API object.
// Host "0" is 0.0.0.0, where nothing answers on port 80, so the first token request fails
// and the API object holds an empty token.
//
// The case runs in a child process that then ends through exit() with the API object still
// alive, as in a host that never releases the facade: exit must not wait for the API
// object's heartbeat forever.
TEST_F(IdentifierRulesTest, EightCharacterPlatformUrlMakesApiObjectWithEmptyToken) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto scenario = []() {
        auto fail = [](const char* what) {
            std::fprintf(stderr, "check failed: %s\n", what);
            std::fflush(stderr);
            std::_Exit(1);
        };
        CTolvaPlatformIF* platform = InitializeQXPlatform("", "", longEnoughKey(), "", "", "", "");
        const auto started = std::chrono::steady_clock::now();
        platform->setPlatformUrl("http://0");
        const auto elapsed = std::chrono::steady_clock::now() - started;
        if (elapsed < std::chrono::milliseconds(7000))
            fail("paused at least 7000 ms");
        if (!CTolvaPlatform::getInstance()->getQxAPI())
            fail("API object made");
        if (platform->getPlatformUrl() != L"http://0")
            fail("API URL is http://0");
        if (platform->getCurrentToken() != L"Bearer ")
            fail("token is \"Bearer \"");
        std::fprintf(stderr, "scenario complete\n");
        std::fflush(stderr);
        std::exit(0);
    };
    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(0), "scenario complete");
}

}  // namespace
