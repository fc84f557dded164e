#include <ZuCore/Base64.h>

#include <gtest/gtest.h>

#include <random>
#include <string>

#include <ZuCore/InvalidArgumentException.h>

#include "ZuTestSupport.h"

using Varkel::Zu::Base64;
using Varkel::Zu::InvalidArgumentException;
using Varkel::Zu::MemoryBuffer;

namespace {

std::string decoded(const std::string& text) {
    return Base64::decode(text)->toString();
}
std::string decodedUrl(const std::string& text) {
    return Base64::decode_url(text)->toString();
}

}  // namespace

TEST(Base64Test, DecodesTheStandardTestVectors) {
    EXPECT_EQ(decoded(""), "");
    EXPECT_EQ(decoded("Zg=="), "f");
    EXPECT_EQ(decoded("Zm8="), "fo");
    EXPECT_EQ(decoded("Zm9v"), "foo");
    EXPECT_EQ(decoded("Zm9vYg=="), "foob");
    EXPECT_EQ(decoded("Zm9vYmE="), "fooba");
    EXPECT_EQ(decoded("Zm9vYmFy"), "foobar");
    EXPECT_EQ(Base64::decode("Zm9vYmFy")->getSize(), 6u);
}

TEST(Base64Test, EncodesTheStandardTestVectors) {
    EXPECT_EQ(Base64::encode(std::string("")), "");
    EXPECT_EQ(Base64::encode(std::string("f")), "Zg==");
    EXPECT_EQ(Base64::encode(std::string("fo")), "Zm8=");
    EXPECT_EQ(Base64::encode(std::string("foo")), "Zm9v");
    EXPECT_EQ(Base64::encode(std::string("foobar")), "Zm9vYmFy");
    EXPECT_EQ(Base64::encode_url(std::string("f")), "Zg");
    EXPECT_EQ(Base64::encode_url(std::string("fo")), "Zm8");
}

TEST(Base64Test, DecodesJwtSegments) {
    // Header and payload of a JWT: URL-safe alphabet, no padding.
    EXPECT_EQ(decodedUrl("eyJhbGciOiJSUzI1NiIsInR5cCI6IkpXVCJ9"), R"({"alg":"RS256","typ":"JWT"})");
    EXPECT_EQ(decodedUrl("eyJhbGciOiJSUzI1NiIsImtpZCI6ImsxIn0"), R"({"alg":"RS256","kid":"k1"})");
    EXPECT_EQ(
        decodedUrl("eyJzdWIiOiIxMjM0NTY3ODkwIiwibmFtZSI6IkpvaG4gRG9lIiwiaWF0IjoxNTE2MjM5MDIyfQ"),
        R"({"sub":"1234567890","name":"John Doe","iat":1516239022})");
    // The same segments through decode, which accepts the same.
    EXPECT_EQ(decoded("eyJhbGciOiJSUzI1NiIsImtpZCI6ImsxIn0"), R"({"alg":"RS256","kid":"k1"})");
}

TEST(Base64Test, DecodeAcceptsBothAlphabets) {
    const std::string bytes("\xfb\xff\xbf\xfe", 4);
    EXPECT_EQ(Base64::encode(bytes), "+/+//g==");
    EXPECT_EQ(Base64::encode_url(bytes), "-_-__g");
    for (const std::string text : {"+/+//g==", "-_-__g", "-_-__g==", "+/+//g", "+_-//g"}) {
        EXPECT_EQ(decoded(text), bytes) << text;
    }
}

TEST(Base64Test, DecodeUrlAcceptsOnlyTheUrlSafeAlphabet) {
    ZuTest::LoggingConfigGuard guard;
    const std::string bytes("\xfb\xff\xbf\xfe", 4);
    EXPECT_EQ(decodedUrl("-_-__g"), bytes);
    EXPECT_EQ(decodedUrl("-_-__g=="), bytes);
    for (const std::string text :
         {"+/+//g==", "+/+//g", "+_-//g", "-_-__g\n", " -_-__g", "Zm9v Ym"}) {
        EXPECT_THROW(Base64::decode_url(text), InvalidArgumentException) << text;
    }
}

TEST(Base64Test, SkipsWhiteSpace) {
    EXPECT_EQ(decoded("Zm9v\r\nYmFy\n"), "foobar");
    EXPECT_EQ(decoded(" Zm8 = "), "fo");
}

TEST(Base64Test, RoundTripsRandomBytes) {
    std::mt19937 random(12345);
    for (std::size_t size = 0; size < 70; ++size) {
        std::string bytes;
        for (std::size_t i = 0; i < size; ++i) {
            bytes.push_back(static_cast<char>(random() & 0xFF));
        }
        EXPECT_EQ(decoded(Base64::encode(bytes)), bytes);
        EXPECT_EQ(decodedUrl(Base64::encode_url(bytes)), bytes);
        const MemoryBuffer buffer = MemoryBuffer::fromString(bytes);
        EXPECT_EQ(Base64::encode(buffer), Base64::encode(bytes));
        EXPECT_EQ(Base64::encode_url(buffer), Base64::encode_url(bytes));
    }
}

TEST(Base64Test, MalformedTextThrowsInvalidArgument) {
    ZuTest::LoggingConfigGuard guard;
    for (const std::string text :
         {"Zm9v!", "Z", "Zm9vY", "Zg=a", "Z===", "Zg===", "=Zg", "Zm9v=", "Zm8==", "Zg=", "é"}) {
        EXPECT_THROW(Base64::decode(text), InvalidArgumentException) << text;
        EXPECT_THROW(Base64::decode_url(text), InvalidArgumentException) << text;
    }
}

TEST(Base64Test, MalformedTextIsThrownThroughTheThrowHelper) {
    ZuTest::LoggingConfigGuard guard;
    ZuTest::RecordCollector collector;
    EXPECT_THROW(Base64::decode_url("a.b"), InvalidArgumentException);
    const auto records = collector.recordsOf("root");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message.rfind(L"THROWING EXCEPTION with message : Invalid Base64 text", 0),
              0u);
}
