// JWTUtils: every step of verification with crafted tokens (its result, its log line and the
// claims handed back), key lookup, the certificate cache, tokens and key sets as the platform
// issues them, and concurrent use.
// GoogleTest (through RestTestSupport.h) comes before the HTTP library's headers.
#include "RestTestSupport.h"
// clang-format off
#include "JwtTestSigner.h"
// clang-format on

#include <TolvaCore/JWTUtils.h>

#include <ZuCore/StringConversion.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::JWTUtils;
using Varkel::Tolva::VerificationResult;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::json::value;

constexpr std::int64_t kNow = 1800000000;
const std::string kHeader = R"({"alg":"RS256","kid":"k1","typ":"JWT"})";

std::string payloadWithExp(std::int64_t exp) {
    return R"({"acc":"acc-1","sub":"svc","exp":)" + std::to_string(exp) + "}";
}

class JWTUtilsTest : public ::testing::Test {
  protected:
    JWTUtilsTest() : verifier_(Varkel::Zu::MakeShared::create<JWTUtils>()) {}

    VerificationResult verify(const std::string& token, value& claims, const value& keySet) const {
        return verifier_->verify(keySet, widen(token), claims, kNow);
    }
    VerificationResult verify(const std::string& token, value& claims) const {
        return verify(token, claims, JwtTestSigner::keySet({signer().key("k1")}));
    }

    // The error messages logged on "TolvaCore.JWTUtils".
    static std::vector<std::wstring> lines(const LogRecords& records) {
        std::vector<std::wstring> found;
        for (const auto& record : records.records()) {
            if (record.logger == "TolvaCore.JWTUtils") {
                EXPECT_EQ(record.level, "error");
                found.push_back(record.message);
            }
        }
        return found;
    }

    // One signer for the whole suite: making an RSA key takes a while.
    static const JwtTestSigner& signer() {
        static const JwtTestSigner shared;
        return shared;
    }

    std::shared_ptr<JWTUtils> verifier_;
};

TEST_F(JWTUtilsTest, ACorrectlySignedTokenVerifiesAndGivesItsClaims) {
    const LogRecords records;
    value claims;
    EXPECT_EQ(verify(signer().token(kHeader, payloadWithExp(kNow + 60)), claims),
              Varkel::Tolva::Verified);
    EXPECT_EQ(claims.at("acc").as_string(), "acc-1");
    EXPECT_TRUE(lines(records).empty());
}

TEST_F(JWTUtilsTest, TwoDotsOnlyFailAtTheHeaderWithACappedLine) {
    const LogRecords records;
    value claims;
    const auto first = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(verify("..", claims), Varkel::Tolva::VerificationFailed);
    }
    // One line a second at most: the two failures right after the first are not written.
    const auto written = lines(records);
    ASSERT_EQ(written.size(), 1u);
    // Failing on until the next line is written: it comes no sooner than a second after
    // the first and counts what was held back meanwhile.
    EXPECT_TRUE(waitUntil(
        [&] {
            verify("..", claims);
            return lines(records).size() >= 2;
        },
        std::chrono::seconds(10)));
    EXPECT_GE(std::chrono::steady_clock::now() - first, std::chrono::milliseconds(1000));
    const auto both = lines(records);
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[1].rfind(written[0] + L" (", 0), 0u) << narrow(both[1]);
    EXPECT_NE(both[1].find(L" similar messages suppressed)"), std::wstring::npos)
        << narrow(both[1]);
}

TEST_F(JWTUtilsTest, OneDotOrThreeDotsAreInvalidWithoutALine) {
    const LogRecords records;
    value claims;
    EXPECT_EQ(verify("a.b", claims), Varkel::Tolva::InvalidToken);
    EXPECT_EQ(verify("a.b.c.d", claims), Varkel::Tolva::InvalidToken);
    EXPECT_EQ(verify("", claims), Varkel::Tolva::InvalidToken);
    EXPECT_TRUE(lines(records).empty());
    EXPECT_TRUE(claims.is_null());
}

TEST_F(JWTUtilsTest, AHeaderWithoutKidOrTypIsInvalid) {
    const LogRecords records;
    value claims;
    EXPECT_EQ(
        verify(signer().token(R"({"alg":"RS256","typ":"JWT"})", payloadWithExp(kNow)), claims),
        Varkel::Tolva::InvalidToken);
    EXPECT_EQ(verify(signer().token(R"({"alg":"RS256","kid":"k1"})", payloadWithExp(kNow)), claims),
              Varkel::Tolva::InvalidToken);
    EXPECT_EQ(lines(records),
              (std::vector<std::wstring>(2, L"Missing kid or typ items in JWT header.")));
}

TEST_F(JWTUtilsTest, ALowerCaseJwtTypeIsInvalid) {
    const LogRecords records;
    value claims;
    EXPECT_EQ(
        verify(signer().token(R"({"alg":"RS256","kid":"k1","typ":"jwt"})", payloadWithExp(kNow)),
               claims),
        Varkel::Tolva::InvalidToken);
    EXPECT_EQ(lines(records), (std::vector<std::wstring>{L"Token type is not 'JWT'"}));
}

TEST_F(JWTUtilsTest, AnUnknownKidIsKeyNotFoundWithoutALine) {
    const LogRecords records;
    value claims;
    EXPECT_EQ(
        verify(signer().token(R"({"alg":"RS256","kid":"other","typ":"JWT"})", payloadWithExp(kNow)),
               claims),
        Varkel::Tolva::KeyNotFound);
    EXPECT_TRUE(lines(records).empty());
}

TEST_F(JWTUtilsTest, AKeyForAnotherUseIsNotFound) {
    value claims;
    EXPECT_EQ(verify(signer().token(kHeader, payloadWithExp(kNow)), claims,
                     JwtTestSigner::keySet({signer().key("k1", "enc")})),
              Varkel::Tolva::KeyNotFound);
}

TEST_F(JWTUtilsTest, OfTwoMatchingKeysTheLaterIsUsed) {
    value broken = signer().key("k1");
    broken["x5c"] = value::parse(R"(["bm90IGEgY2VydGlmaWNhdGU="])");
    const std::string token = signer().token(kHeader, payloadWithExp(kNow));
    value claims;
    EXPECT_EQ(verify(token, claims, JwtTestSigner::keySet({broken, signer().key("k1")})),
              Varkel::Tolva::Verified);
    EXPECT_EQ(verify(token, claims, JwtTestSigner::keySet({signer().key("k1"), broken})),
              Varkel::Tolva::VerificationFailed);
}

TEST_F(JWTUtilsTest, FindKeyReportsAndCopiesTheLastMatch) {
    value first = signer().key("k1");
    first["n"] = value::string("first");
    value second = signer().key("k1");
    second["n"] = value::string("second");
    value key = value::string("untouched");
    EXPECT_EQ(verifier_->findKey("k1", JwtTestSigner::keySet({first, second}), key),
              Varkel::Tolva::Verified);
    EXPECT_EQ(key.at("n").as_string(), "second");

    value untouched = value::string("untouched");
    EXPECT_EQ(verifier_->findKey("k1", value::parse(R"({"keys":{}})"), untouched),
              Varkel::Tolva::KeyNotFound);
    EXPECT_EQ(verifier_->findKey("k1", value::parse(R"({"other":[]})"), untouched),
              Varkel::Tolva::KeyNotFound);
    EXPECT_EQ(verifier_->findKey("k9", JwtTestSigner::keySet({first}), untouched),
              Varkel::Tolva::KeyNotFound);
    EXPECT_EQ(untouched.as_string(), "untouched");
}

TEST_F(JWTUtilsTest, AKeyWithoutX5cIsInvalid) {
    const LogRecords records;
    value key = signer().key("k1");
    key.as_object().erase("x5c");
    value claims;
    EXPECT_EQ(
        verify(signer().token(kHeader, payloadWithExp(kNow)), claims, JwtTestSigner::keySet({key})),
        Varkel::Tolva::InvalidToken);
    EXPECT_EQ(lines(records), (std::vector<std::wstring>{L"Missing 'x5c' section in JWKS key."}));
}

TEST_F(JWTUtilsTest, ClaimsWithoutExpAreInvalid) {
    const LogRecords records;
    value claims;
    EXPECT_EQ(verify(signer().token(kHeader, R"({"acc":"a"})"), claims),
              Varkel::Tolva::InvalidToken);
    EXPECT_EQ(lines(records), (std::vector<std::wstring>{L"Token expiration missing."}));
    EXPECT_EQ(claims.at("acc").as_string(), "a");
}

TEST_F(JWTUtilsTest, ATokenIsAcceptedInTheSecondOfItsExp) {
    value claims;
    EXPECT_EQ(verify(signer().token(kHeader, payloadWithExp(kNow)), claims),
              Varkel::Tolva::Verified);
}

TEST_F(JWTUtilsTest, ATokenOneSecondPastItsExpHasExpiredAndKeepsItsClaims) {
    const LogRecords records;
    value claims;
    EXPECT_EQ(verify(signer().token(kHeader, payloadWithExp(kNow - 1)), claims),
              Varkel::Tolva::TokenExpired);
    EXPECT_EQ(claims.at("exp").as_number().to_int64(), kNow - 1);
    EXPECT_EQ(lines(records), (std::vector<std::wstring>{L"Token expired."}));
}

TEST_F(JWTUtilsTest, AFloatingPointExpIsTruncated) {
    value claims;
    // now - 0.1: truncated it is a second in the past (expired); rounded it would be now.
    EXPECT_EQ(
        verify(signer().token(kHeader, R"({"exp":)" + std::to_string(kNow - 1) + ".9}"), claims),
        Varkel::Tolva::TokenExpired);
    // now + 0.9: truncated, now itself, still accepted.
    EXPECT_EQ(verify(signer().token(kHeader, R"({"exp":)" + std::to_string(kNow) + ".9}"), claims),
              Varkel::Tolva::Verified);
}

TEST_F(JWTUtilsTest, AnAlteredPayloadFailsTheSignature) {
    const LogRecords records;
    const std::string token = signer().token(kHeader, payloadWithExp(kNow + 60));
    const auto firstDot = token.find('.');
    const auto secondDot = token.find('.', firstDot + 1);
    const std::string altered =
        token.substr(0, firstDot + 1) +
        Varkel::Zu::Base64::encode_url(std::string(R"({"acc":"acc-2","sub":"svc","exp":)") +
                                       std::to_string(kNow + 60) + "}") +
        token.substr(secondDot);
    value claims;
    EXPECT_EQ(verify(altered, claims), Varkel::Tolva::VerificationFailed);
    EXPECT_EQ(
        lines(records),
        (std::vector<std::wstring>{L"EVP_VerifyFinal failed. Signature verification failed."}));
    EXPECT_EQ(claims.at("acc").as_string(), "acc-2");
}

TEST_F(JWTUtilsTest, AnX5cThatIsNotACertificateFailsEveryTime) {
    const LogRecords records;
    value key = signer().key("k1");
    key["x5c"] = value::parse(R"(["bm90IGEgY2VydGlmaWNhdGU="])");
    const auto keySet = JwtTestSigner::keySet({key});
    const std::string token = signer().token(kHeader, payloadWithExp(kNow));
    value claims;
    EXPECT_EQ(verify(token, claims, keySet), Varkel::Tolva::VerificationFailed);
    // Not cached: the second attempt parses again and says so again.
    EXPECT_EQ(verify(token, claims, keySet), Varkel::Tolva::VerificationFailed);
    EXPECT_EQ(lines(records),
              (std::vector<std::wstring>(
                  2, L"Failed to construct X509 certificate from the 'x5c' JWKS data.")));
}

TEST_F(JWTUtilsTest, AnEmptyX5cArrayFailsAsAnException) {
    value key = signer().key("k1");
    key["x5c"] = value::array();
    value claims;
    EXPECT_EQ(
        verify(signer().token(kHeader, payloadWithExp(kNow)), claims, JwtTestSigner::keySet({key})),
        Varkel::Tolva::VerificationFailed);
}

TEST_F(JWTUtilsTest, SegmentsOutsideTheUrlSafeAlphabetAreRefused) {
    const std::string token = signer().token(kHeader, payloadWithExp(kNow + 60));
    // The same header bytes in the standard alphabet with padding would be "...=" forms; a
    // "+" or "/" or a blank inside a segment is malformed for a verifier.
    value claims;
    EXPECT_EQ(verify("+" + token, claims), Varkel::Tolva::VerificationFailed);
    EXPECT_EQ(verify(token.substr(0, 5) + " " + token.substr(5), claims),
              Varkel::Tolva::VerificationFailed);
}

TEST_F(JWTUtilsTest, TheCurrentTimeOverloadUsesTheSystemClock) {
    const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
    value claims;
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    EXPECT_EQ(
        verifier_->verify(keySet, widen(signer().token(kHeader, payloadWithExp(now + 60))), claims),
        Varkel::Tolva::Verified);
    EXPECT_EQ(
        verifier_->verify(keySet, widen(signer().token(kHeader, payloadWithExp(now - 60))), claims),
        Varkel::Tolva::TokenExpired);
}

TEST_F(JWTUtilsTest, TheResultValuesAreFixed) {
    EXPECT_EQ(static_cast<int>(Varkel::Tolva::KeyNotFound), 0);
    EXPECT_EQ(static_cast<int>(Varkel::Tolva::TokenExpired), 2);
    EXPECT_EQ(static_cast<int>(Varkel::Tolva::InvalidToken), 3);
    EXPECT_EQ(static_cast<int>(Varkel::Tolva::VerificationFailed), 4);
    EXPECT_EQ(static_cast<int>(Varkel::Tolva::Verified), 5);
    EXPECT_EQ(sizeof(VerificationResult), 4u);
}

TEST_F(JWTUtilsTest, ACopySharesTheVerifier) {
    const JWTUtils copy(*verifier_);
    const auto other = Varkel::Zu::MakeShared::create<JWTUtils>();
    JWTUtils assigned(*other);
    assigned = copy;
    EXPECT_EQ(copy.digestContext(), verifier_->digestContext());
    EXPECT_EQ(assigned.digestContext(), verifier_->digestContext());
    EXPECT_NE(other->digestContext(), verifier_->digestContext());
    value claims;
    EXPECT_EQ(assigned.verify(JwtTestSigner::keySet({signer().key("k1")}),
                              widen(signer().token(kHeader, payloadWithExp(kNow))), claims, kNow),
              Varkel::Tolva::Verified);
}

TEST_F(JWTUtilsTest, TokensVerifyFromSeveralThreadsAtOnce) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    std::vector<std::string> tokens;
    for (int i = 0; i < 8; ++i) {
        tokens.push_back(signer().token(kHeader, payloadWithExp(kNow + i)));
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                value claims;
                if (verifier_->verify(keySet, widen(tokens[i % tokens.size()]), claims, kNow) !=
                    Varkel::Tolva::Verified) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
}

class PlatformTokenTest : public RestTest {};

TEST_F(PlatformTokenTest, ATokenThePlatformIssuedVerifiesAgainstTheKeySetTheApiFetched) {
    const auto api = makeApi();
    const auto token = api->getCurrentTokenCopy();
    ASSERT_FALSE(token.accessToken.empty());
    const auto verifier = Varkel::Zu::MakeShared::create<JWTUtils>();
    value claims;
    EXPECT_EQ(verifier->verify(token.keySet, token.accessToken, claims), Varkel::Tolva::Verified);
    EXPECT_EQ(claims.at("acc").as_string(), testAccount());

    // After a key rotation the old token still verifies against the new key set, which keeps
    // the old key, and a new token verifies too.
    emulator_.rotateKey();
    api->clearToken();
    api->postNotification(L"t", L"renews the token", 0);
    const auto renewed = api->getCurrentTokenCopy();
    EXPECT_NE(renewed.accessToken, token.accessToken);
    EXPECT_EQ(verifier->verify(renewed.keySet, token.accessToken, claims), Varkel::Tolva::Verified);
    EXPECT_EQ(verifier->verify(renewed.keySet, renewed.accessToken, claims),
              Varkel::Tolva::Verified);
}

TEST_F(PlatformTokenTest, TheTokenCopyIsConsistentWhileTheTokenIsRenewed) {
    // Tokens that live 200 s are always due, so every validateToken fetches a new token while
    // the old one stays in place until the new one is stored.
    emulator_.setTokenLifetime(200);
    const auto api = makeApi();
    std::atomic<bool> stop{false};
    std::atomic<int> renewals{0};
    std::thread renewer([&] {
        while (!stop) {
            api->validateToken();
            ++renewals;
        }
    });
    const auto verifier = Varkel::Zu::MakeShared::create<JWTUtils>();
    int verified = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while ((verified < 50 || renewals < 5) && std::chrono::steady_clock::now() < deadline) {
        // Text, account and key set always belong together in a copy.
        const auto copy = api->getCurrentTokenCopy();
        value claims;
        if (verifier->verify(copy.keySet, copy.accessToken, claims) != Varkel::Tolva::Verified) {
            ADD_FAILURE() << "a copy did not verify";
            break;
        }
        EXPECT_EQ(Varkel::Zu::widen(claims.at("acc").as_string()), copy.account);
        ++verified;
    }
    stop = true;
    renewer.join();
    EXPECT_GE(verified, 50);
    EXPECT_GE(renewals.load(), 5);
}

}  // namespace
}  // namespace TolvaRestTest
