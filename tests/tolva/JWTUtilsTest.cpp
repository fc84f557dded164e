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
#include <map>
#include <thread>
#include <utility>
#include <vector>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::JwtProfile;
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

// --- The RFC 9068 profile ----------------------------------------------------------------

const std::string kAccessHeader = R"({"alg":"RS256","kid":"k1","typ":"at+jwt"})";

// The claims RFC 9068 requires, valid at kNow, with `change` applied (a null value removes).
std::string accessClaims(const std::map<std::string, value>& change = {}) {
    value claims = value::parse(R"({"iss":"https://id.example.test","sub":"svc","aud":"qx",
        "client_id":"svc","jti":"j-1","acc":"acc-1"})");
    claims["iat"] = value::number(kNow - 10);
    claims["exp"] = value::number(kNow + 60);
    for (const auto& entry : change) {
        if (entry.second.is_null()) {
            claims.as_object().erase(entry.first);
        } else {
            claims[entry.first] = entry.second;
        }
    }
    return claims.serialize();
}

class JWTUtilsProfileTest : public JWTUtilsTest {
  protected:
    JWTUtilsProfileTest() { verifier_->setProfile(Varkel::Tolva::JwtProfile::Rfc9068); }

    // Result and reason of one verification with the profile's verifier.
    std::pair<VerificationResult, std::wstring> check(const std::string& token,
                                                      const value& keySet) const {
        value claims;
        std::wstring reason;
        const auto result = verifier_->verify(keySet, widen(token), claims, kNow, reason);
        return {result, reason};
    }
    std::pair<VerificationResult, std::wstring> check(const std::string& token) const {
        return check(token, JwtTestSigner::keySet({signer().rsaKey("k1")}));
    }
};

TEST_F(JWTUtilsProfileTest, TheDefaultIsThePlatformProfile) {
    const ScopedEnv unset("TOLVA_JWT_PROFILE", std::nullopt);
    EXPECT_EQ(Varkel::Zu::MakeShared::create<JWTUtils>()->profile(),
              Varkel::Tolva::JwtProfile::Platform);
    EXPECT_EQ(verifier_->profile(), Varkel::Tolva::JwtProfile::Rfc9068);
}

TEST_F(JWTUtilsProfileTest, AccessTokenTypesAreAcceptedInAnyCase) {
    for (const std::string typ : {"at+jwt", "application/at+jwt", "AT+JWT", "JWT"}) {
        const std::string header = R"({"alg":"RS256","kid":"k1","typ":")" + typ + R"("})";
        EXPECT_EQ(check(signer().token(header, accessClaims())).first, Varkel::Tolva::Verified)
            << typ;
    }
    const auto other =
        check(signer().token(R"({"alg":"RS256","kid":"k1","typ":"dpop+jwt"})", accessClaims()));
    EXPECT_EQ(other.first, Varkel::Tolva::InvalidToken);
    EXPECT_EQ(other.second, L"Token type is not 'JWT' or 'at+jwt'.");
}

TEST_F(JWTUtilsProfileTest, ByDefaultTheSameTokensAreRefusedWithTheDefaultTexts) {
    verifier_->setProfile(Varkel::Tolva::JwtProfile::Platform);
    const LogRecords records;
    EXPECT_EQ(check(signer().token(kAccessHeader, accessClaims())).first,
              Varkel::Tolva::InvalidToken);
    EXPECT_EQ(check(signer().token(kHeader, accessClaims())).first, Varkel::Tolva::InvalidToken);
    EXPECT_EQ(lines(records), (std::vector<std::wstring>{L"Token type is not 'JWT'",
                                                         L"Missing 'x5c' section in JWKS key."}));
}

TEST_F(JWTUtilsProfileTest, KeysWithCertificateOrParametersOrWithoutUseAreFound) {
    const std::string token = signer().token(kAccessHeader, accessClaims());
    EXPECT_EQ(check(token, JwtTestSigner::keySet({signer().key("k1")})).first,
              Varkel::Tolva::Verified);
    value withoutUse = signer().rsaKey("k1");
    withoutUse.as_object().erase("use");
    EXPECT_EQ(check(token, JwtTestSigner::keySet({withoutUse})).first, Varkel::Tolva::Verified);
    EXPECT_EQ(check(token, JwtTestSigner::keySet({signer().key("k1", "enc")})).first,
              Varkel::Tolva::KeyNotFound);
    value nothing = signer().rsaKey("k1");
    nothing.as_object().erase("n");
    const auto unusable = check(token, JwtTestSigner::keySet({nothing}));
    EXPECT_EQ(unusable.first, Varkel::Tolva::InvalidToken);
    value notAKey = signer().rsaKey("k1");
    notAKey["n"] = value::string("AA");
    EXPECT_EQ(check(token, JwtTestSigner::keySet({notAKey})).first,
              Varkel::Tolva::VerificationFailed);

    // By default a key without "use" is not a signing key.
    verifier_->setProfile(Varkel::Tolva::JwtProfile::Platform);
    value key;
    EXPECT_EQ(verifier_->findKey("k1", JwtTestSigner::keySet({withoutUse}), key),
              Varkel::Tolva::KeyNotFound);
}

TEST_F(JWTUtilsProfileTest, Ps256AndEs256VerifyAndTheKeyMustFitTheAlgorithm) {
    const auto ps =
        signer().tokenPs256(R"({"alg":"PS256","kid":"k1","typ":"at+jwt"})", accessClaims());
    value psKey = signer().rsaKey("k1");
    psKey["alg"] = value::string("PS256");
    EXPECT_EQ(check(ps, JwtTestSigner::keySet({psKey})).first, Varkel::Tolva::Verified);
    // The key says RS256: not for a PS256 token.
    const auto wrongAlg = check(ps);
    EXPECT_EQ(wrongAlg.first, Varkel::Tolva::VerificationFailed);
    EXPECT_EQ(wrongAlg.second, L"The JWKS key is not a key for the token's algorithm.");

    const auto es =
        signer().tokenEs256(R"({"alg":"ES256","kid":"e1","typ":"at+jwt"})", accessClaims());
    EXPECT_EQ(check(es, JwtTestSigner::keySet({signer().ecKey("e1")})).first,
              Varkel::Tolva::Verified);
    value rsaAsE1 = signer().rsaKey("e1");
    rsaAsE1.as_object().erase("alg");
    EXPECT_EQ(check(es, JwtTestSigner::keySet({rsaAsE1})).first, Varkel::Tolva::VerificationFailed);

    // By default "alg" is not consulted: a PS256 signature fails the RS256 check.
    verifier_->setProfile(Varkel::Tolva::JwtProfile::Platform);
    const auto psByDefault =
        signer().tokenPs256(R"({"alg":"PS256","kid":"k1","typ":"JWT"})", accessClaims());
    EXPECT_EQ(check(psByDefault, JwtTestSigner::keySet({signer().key("k1")})).first,
              Varkel::Tolva::VerificationFailed);
}

TEST_F(JWTUtilsProfileTest, AnAlgorithmOutsideTheListIsInvalid) {
    for (const std::string header :
         {R"({"alg":"none","kid":"k1","typ":"at+jwt"})",
          R"({"alg":"HS256","kid":"k1","typ":"at+jwt"})", R"({"kid":"k1","typ":"at+jwt"})"}) {
        const auto outcome = check(signer().token(header, accessClaims()));
        EXPECT_EQ(outcome.first, Varkel::Tolva::InvalidToken) << header;
        EXPECT_EQ(outcome.second, L"Token algorithm is not one of RS256, PS256 and ES256.");
    }
}

TEST_F(JWTUtilsProfileTest, EveryRequiredClaimIsChecked) {
    for (const char* name : {"iss", "sub", "aud", "client_id", "iat", "jti"}) {
        const auto outcome = check(signer().token(kAccessHeader, accessClaims({{name, value()}})));
        EXPECT_EQ(outcome.first, Varkel::Tolva::InvalidToken) << name;
        EXPECT_NE(outcome.second.find(L"'" + widen(name) + L"' missing"), std::wstring::npos)
            << name;
    }
    EXPECT_EQ(
        check(signer().token(kAccessHeader, accessClaims({{"iat", value::string("x")}}))).first,
        Varkel::Tolva::InvalidToken);
    EXPECT_EQ(check(signer().token(kAccessHeader, accessClaims({{"exp", value()}}))).second,
              L"Token expiration missing.");
    const auto expired =
        check(signer().token(kAccessHeader, accessClaims({{"exp", value::number(kNow - 1)}})));
    EXPECT_EQ(expired.first, Varkel::Tolva::TokenExpired);
    EXPECT_EQ(check(signer().token(kAccessHeader, accessClaims({{"nbf", value::number(kNow + 5)}})))
                  .first,
              Varkel::Tolva::InvalidToken);
    EXPECT_EQ(
        check(signer().token(kAccessHeader, accessClaims({{"nbf", value::number(kNow)}}))).first,
        Varkel::Tolva::Verified);
    // A "JWT" is held to the default claims only.
    EXPECT_EQ(
        check(signer().token(kHeader, accessClaims({{"aud", value()}, {"jti", value()}}))).first,
        Varkel::Tolva::Verified);
}

TEST_F(JWTUtilsProfileTest, IssuerAndAudienceAreCheckedWhenSet) {
    const std::string token =
        signer().token(kAccessHeader, accessClaims({{"aud", value::parse(R"(["other","qx"])")}}));
    EXPECT_EQ(check(token).first, Varkel::Tolva::Verified);
    verifier_->setExpectedAudience(L"qx");
    verifier_->setExpectedIssuer(L"https://id.example.test");
    EXPECT_EQ(check(token).first, Varkel::Tolva::Verified);
    verifier_->setExpectedAudience(L"elsewhere");
    EXPECT_EQ(check(token).second, L"Token audience does not include the expected audience.");
    verifier_->setExpectedAudience(L"");
    verifier_->setExpectedIssuer(L"https://id.example.test/");
    const auto wrongIssuer = check(token);
    EXPECT_EQ(wrongIssuer.first, Varkel::Tolva::InvalidToken);
    EXPECT_EQ(wrongIssuer.second, L"Token issuer is not the expected issuer.");
}

TEST_F(JWTUtilsProfileTest, AnAlteredTokenFailsTheSignatureInBothModes) {
    const std::string token = signer().token(kAccessHeader, accessClaims());
    std::string altered = token;
    char& last = altered[altered.size() - 2];
    last = last == 'A' ? 'B' : 'A';
    const auto underProfile = check(altered);
    EXPECT_EQ(underProfile.first, Varkel::Tolva::VerificationFailed);
    EXPECT_EQ(underProfile.second, L"Signature verification failed.");
    verifier_->setProfile(Varkel::Tolva::JwtProfile::Platform);
    const std::string platformToken = signer().token(kHeader, accessClaims());
    std::string alteredPlatform = platformToken;
    char& lastPlatform = alteredPlatform[alteredPlatform.size() - 2];
    lastPlatform = lastPlatform == 'A' ? 'B' : 'A';
    EXPECT_EQ(check(alteredPlatform, JwtTestSigner::keySet({signer().key("k1")})).second,
              L"EVP_VerifyFinal failed. Signature verification failed.");
}

TEST_F(JWTUtilsProfileTest, TheEnvironmentChoosesProfileIssuerAndAudience) {
    {
        const ScopedEnv profile("TOLVA_JWT_PROFILE", std::string("RFC9068"));
        const ScopedEnv issuer("TOLVA_JWT_ISSUER", std::string("https://id.example.test"));
        const ScopedEnv audience("TOLVA_JWT_AUDIENCE", std::string("qx"));
        const auto made = Varkel::Zu::MakeShared::create<JWTUtils>();
        EXPECT_EQ(made->profile(), Varkel::Tolva::JwtProfile::Rfc9068);
        EXPECT_EQ(made->expectedIssuer(), L"https://id.example.test");
        EXPECT_EQ(made->expectedAudience(), L"qx");
        EXPECT_EQ(Varkel::Tolva::jwtProfileFromEnvironment(), Varkel::Tolva::JwtProfile::Rfc9068);
    }
    const LogRecords records;
    const ScopedEnv bogus("TOLVA_JWT_PROFILE", std::string("oidc"));
    EXPECT_EQ(Varkel::Zu::MakeShared::create<JWTUtils>()->profile(),
              Varkel::Tolva::JwtProfile::Platform);
    EXPECT_EQ(records.messages("TolvaCore.JWTUtils"),
              (std::vector<std::wstring>{
                  L"TOLVA_JWT_PROFILE is neither \"platform\" nor \"rfc9068\"; using platform."}));
    EXPECT_STREQ(Varkel::Tolva::jwtProfileName(Varkel::Tolva::JwtProfile::Rfc9068), L"rfc9068");
    EXPECT_STREQ(Varkel::Tolva::jwtProfileName(Varkel::Tolva::JwtProfile::Platform), L"platform");
}

TEST_F(JWTUtilsProfileTest, ReasonsAreGivenForEveryRefusalByDefault) {
    verifier_->setProfile(Varkel::Tolva::JwtProfile::Platform);
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    EXPECT_EQ(check("a.b", keySet).second,
              L"Not a JWT: the token does not have three parts separated by '.'.");
    EXPECT_EQ(
        check(signer().token(R"({"alg":"RS256","kid":"k2","typ":"JWT"})", accessClaims()), keySet)
            .second,
        L"No signing key with the token's key id 'k2' in the key set.");
    EXPECT_EQ(check(signer().token(kHeader, payloadWithExp(kNow - 1)), keySet).second,
              L"Token expired.");
    EXPECT_EQ(check("..", keySet).second.rfind(L"The token or the key set cannot be read: ", 0),
              0u);
    value claims;
    std::wstring reason = L"left over";
    EXPECT_EQ(verifier_->verify(keySet, widen(signer().token(kHeader, payloadWithExp(kNow))),
                                claims, kNow, reason),
              Varkel::Tolva::Verified);
    EXPECT_TRUE(reason.empty());
}

// --- Tokens kept once verified ------------------------------------------------------------

// One verification as a caller sees it: result, claims, reason and the lines logged (with the
// source line that wrote each).
struct Outcome {
    VerificationResult result;
    value claims;
    std::wstring reason;
    std::vector<std::pair<std::wstring, int>> lines;
};

Outcome outcomeOf(JWTUtils& verifier, const value& keySet, const std::string& token,
                  std::int64_t now) {
    const LogRecords records;
    Outcome outcome{};
    outcome.result = verifier.verify(keySet, widen(token), outcome.claims, now, outcome.reason);
    for (const auto& record : records.records()) {
        if (record.logger == "TolvaCore.JWTUtils") {
            outcome.lines.emplace_back(record.message, record.line);
        }
    }
    return outcome;
}

void expectSameOutcome(const Outcome& kept, const Outcome& full) {
    EXPECT_EQ(kept.result, full.result);
    EXPECT_EQ(kept.claims, full.claims);
    EXPECT_EQ(kept.reason, full.reason);
    // A token that cannot be read is logged at most once a second, whichever verifier reads
    // it: two such verifications in a row write one line between them.
    if (kept.reason.rfind(L"The token or the key set cannot be read", 0) != 0) {
        EXPECT_EQ(kept.lines, full.lines);
    }
}

class JWTUtilsCacheTest : public JWTUtilsTest {
  protected:
    // What a verifier that has never seen the token makes of it.
    static Outcome fullVerification(const value& keySet, const std::string& token, std::int64_t now,
                                    JwtProfile profile = JwtProfile::Platform) {
        const auto fresh = Varkel::Zu::MakeShared::create<JWTUtils>();
        fresh->setProfile(profile);
        return outcomeOf(*fresh, keySet, token, now);
    }

    // A second key pair: a key set that no longer carries the first signer's certificate.
    static const JwtTestSigner& otherSigner() {
        static const JwtTestSigner shared;
        return shared;
    }
};

TEST_F(JWTUtilsCacheTest, ATokenVerifiedAgainGivesTheSameResultClaimsAndLines) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    const std::string token = signer().token(kHeader, payloadWithExp(kNow + 60));
    const Outcome first = outcomeOf(*verifier_, keySet, token, kNow);
    EXPECT_EQ(first.result, Varkel::Tolva::Verified);
    EXPECT_EQ(verifier_->cachedTokenCount(), 1u);
    const Outcome again = outcomeOf(*verifier_, keySet, token, kNow);
    expectSameOutcome(again, first);
    EXPECT_EQ(again.claims.at("acc").as_string(), "acc-1");
    EXPECT_TRUE(again.lines.empty());
    // Found, not added again.
    EXPECT_EQ(verifier_->cachedTokenCount(), 1u);
    // A key set equal in content (another object) finds it too.
    const auto sameKeySet = JwtTestSigner::keySet({signer().key("k1")});
    expectSameOutcome(outcomeOf(*verifier_, sameKeySet, token, kNow), first);
    EXPECT_EQ(verifier_->cachedTokenCount(), 1u);
}

TEST_F(JWTUtilsCacheTest, OnlyVerifiedTokensAreKept) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    value claims;
    EXPECT_EQ(verify(signer().token(kHeader, payloadWithExp(kNow - 1)), claims),
              Varkel::Tolva::TokenExpired);
    EXPECT_EQ(
        verify(signer().token(R"({"alg":"RS256","kid":"k2","typ":"JWT"})", payloadWithExp(kNow)),
               claims),
        Varkel::Tolva::KeyNotFound);
    EXPECT_EQ(verify("a.b", claims), Varkel::Tolva::InvalidToken);
    EXPECT_EQ(verifier_->cachedTokenCount(), 0u);
}

TEST_F(JWTUtilsCacheTest, ATokenThatExpiresWhileKeptIsRefusedAsExpired) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    const std::string token = signer().token(kHeader, payloadWithExp(kNow + 60));
    ASSERT_EQ(outcomeOf(*verifier_, keySet, token, kNow).result, Varkel::Tolva::Verified);
    // Still valid in the second of its "exp".
    EXPECT_EQ(outcomeOf(*verifier_, keySet, token, kNow + 60).result, Varkel::Tolva::Verified);
    const Outcome expired = outcomeOf(*verifier_, keySet, token, kNow + 61);
    EXPECT_EQ(expired.result, Varkel::Tolva::TokenExpired);
    EXPECT_EQ(expired.reason, L"Token expired.");
    EXPECT_EQ(expired.claims.at("acc").as_string(), "acc-1");
    expectSameOutcome(expired, fullVerification(keySet, token, kNow + 61));

    // The clock overload checks a kept token against the system clock.
    const std::int64_t clockNow = std::chrono::duration_cast<std::chrono::seconds>(
                                      std::chrono::system_clock::now().time_since_epoch())
                                      .count();
    const std::string past = signer().token(kHeader, payloadWithExp(clockNow - 10));
    ASSERT_EQ(outcomeOf(*verifier_, keySet, past, clockNow - 20).result, Varkel::Tolva::Verified);
    value claims;
    EXPECT_EQ(verifier_->verify(keySet, widen(past), claims), Varkel::Tolva::TokenExpired);
}

TEST_F(JWTUtilsCacheTest, TheTimeBoundClaimsOfTheProfileAreCheckedOnEveryHit) {
    verifier_->setProfile(JwtProfile::Rfc9068);
    const auto keySet = JwtTestSigner::keySet({signer().rsaKey("k1")});
    const std::string token =
        signer().token(kAccessHeader, accessClaims({{"nbf", value::number(kNow)}}));
    ASSERT_EQ(outcomeOf(*verifier_, keySet, token, kNow).result, Varkel::Tolva::Verified);
    ASSERT_EQ(verifier_->cachedTokenCount(), 1u);
    const Outcome early = outcomeOf(*verifier_, keySet, token, kNow - 1);
    EXPECT_EQ(early.result, Varkel::Tolva::InvalidToken);
    expectSameOutcome(early, fullVerification(keySet, token, kNow - 1, JwtProfile::Rfc9068));
    const Outcome late = outcomeOf(*verifier_, keySet, token, kNow + 61);
    EXPECT_EQ(late.result, Varkel::Tolva::TokenExpired);
    expectSameOutcome(late, fullVerification(keySet, token, kNow + 61, JwtProfile::Rfc9068));
}

TEST_F(JWTUtilsCacheTest, AKeySetChangeDropsTheKeptTokens) {
    const auto before = JwtTestSigner::keySet({signer().key("k1")});
    const std::string token = signer().token(kHeader, payloadWithExp(kNow + 60));
    ASSERT_EQ(outcomeOf(*verifier_, before, token, kNow).result, Varkel::Tolva::Verified);
    ASSERT_EQ(verifier_->cachedTokenCount(), 1u);

    // The signing key removed: the token's kid is unknown now.
    const auto removed = JwtTestSigner::keySet({otherSigner().key("k2")});
    const Outcome afterRemoval = outcomeOf(*verifier_, removed, token, kNow);
    EXPECT_EQ(afterRemoval.result, Varkel::Tolva::KeyNotFound);
    expectSameOutcome(afterRemoval, fullVerification(removed, token, kNow));
    EXPECT_EQ(verifier_->cachedTokenCount(), 0u);

    // Verified again, then the kid rotated to another certificate: the signature no longer
    // verifies.
    ASSERT_EQ(outcomeOf(*verifier_, before, token, kNow).result, Varkel::Tolva::Verified);
    const auto rotated = JwtTestSigner::keySet({otherSigner().key("k1")});
    const Outcome afterRotation = outcomeOf(*verifier_, rotated, token, kNow);
    EXPECT_EQ(afterRotation.result, Varkel::Tolva::VerificationFailed);
    expectSameOutcome(afterRotation, fullVerification(rotated, token, kNow));
    EXPECT_EQ(verifier_->cachedTokenCount(), 0u);

    // Any difference counts, even in a key the token does not use.
    ASSERT_EQ(outcomeOf(*verifier_, before, token, kNow).result, Varkel::Tolva::Verified);
    const auto grown = JwtTestSigner::keySet({signer().key("k1"), otherSigner().key("k2")});
    EXPECT_EQ(outcomeOf(*verifier_, grown, token, kNow).result, Varkel::Tolva::Verified);
    EXPECT_EQ(verifier_->cachedTokenCount(), 1u);
    const Outcome backAgain = outcomeOf(*verifier_, removed, token, kNow);
    EXPECT_EQ(backAgain.result, Varkel::Tolva::KeyNotFound);
}

TEST_F(JWTUtilsCacheTest, AChangedSettingDropsTheKeptTokens) {
    verifier_->setProfile(JwtProfile::Rfc9068);
    const auto keySet = JwtTestSigner::keySet({signer().rsaKey("k1")});
    const std::string token = signer().token(kAccessHeader, accessClaims());
    ASSERT_EQ(outcomeOf(*verifier_, keySet, token, kNow).result, Varkel::Tolva::Verified);
    verifier_->setExpectedAudience(L"elsewhere");
    EXPECT_EQ(outcomeOf(*verifier_, keySet, token, kNow).reason,
              L"Token audience does not include the expected audience.");
    verifier_->setExpectedAudience(L"");
    ASSERT_EQ(outcomeOf(*verifier_, keySet, token, kNow).result, Varkel::Tolva::Verified);
    // The default profile wants a certificate in the key.
    verifier_->setProfile(JwtProfile::Platform);
    const Outcome platform = outcomeOf(*verifier_, keySet, token, kNow);
    EXPECT_EQ(platform.result, Varkel::Tolva::InvalidToken);
    expectSameOutcome(platform, fullVerification(keySet, token, kNow));
}

TEST_F(JWTUtilsCacheTest, ATokenChangedInAnyByteIsNeverTakenForTheKeptOne) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    const std::string token = signer().token(kHeader, payloadWithExp(kNow + 60));
    ASSERT_EQ(outcomeOf(*verifier_, keySet, token, kNow).result, Varkel::Tolva::Verified);
    const std::size_t signatureStart = token.rfind('.') + 1;
    for (std::size_t i = 0; i < token.size(); ++i) {
        std::string tampered = token;
        tampered[i] = tampered[i] == 'A' ? 'B' : 'A';
        const Outcome kept = outcomeOf(*verifier_, keySet, tampered, kNow);
        expectSameOutcome(kept, fullVerification(keySet, tampered, kNow));
        // Within the signed text or the signature's leading characters a change always
        // breaks the signature; the last character of the signature carries bits Base64
        // decoding may drop.
        if (i + 1 < token.size() || i < signatureStart) {
            EXPECT_NE(kept.result, Varkel::Tolva::Verified) << "byte " << i;
        }
    }
}

TEST_F(JWTUtilsCacheTest, TheKeptTokensStayWithinTheBound) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    constexpr std::size_t kBound = 1024;
    std::vector<std::string> tokens;
    for (std::size_t i = 0; i <= kBound; ++i) {
        tokens.push_back(signer().token(kHeader, R"({"acc":"acc-1","jti":")" + std::to_string(i) +
                                                     R"(","exp":)" + std::to_string(kNow + 60) +
                                                     "}"));
    }
    value claims;
    for (std::size_t i = 0; i < kBound; ++i) {
        ASSERT_EQ(verifier_->verify(keySet, widen(tokens[i]), claims, kNow),
                  Varkel::Tolva::Verified);
    }
    EXPECT_EQ(verifier_->cachedTokenCount(), kBound);
    ASSERT_EQ(verifier_->verify(keySet, widen(tokens[kBound]), claims, kNow),
              Varkel::Tolva::Verified);
    EXPECT_EQ(verifier_->cachedTokenCount(), kBound);
    // Every token still verifies, kept or not.
    for (const auto& token : tokens) {
        EXPECT_EQ(verifier_->verify(keySet, widen(token), claims, kNow), Varkel::Tolva::Verified);
    }
    EXPECT_EQ(verifier_->cachedTokenCount(), kBound);
}

TEST_F(JWTUtilsCacheTest, ACopySharesTheKeptTokens) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    value claims;
    ASSERT_EQ(verify(signer().token(kHeader, payloadWithExp(kNow)), claims),
              Varkel::Tolva::Verified);
    const JWTUtils copy(*verifier_);
    EXPECT_EQ(copy.cachedTokenCount(), 1u);
}

TEST_F(JWTUtilsCacheTest, ThreadsVerifyTheSameTokensWhileTheKeySetChanges) {
    const auto keySet = JwtTestSigner::keySet({signer().key("k1")});
    const auto withoutTheKey = JwtTestSigner::keySet({otherSigner().key("k1")});
    std::vector<std::string> tokens;
    for (int i = 0; i < 4; ++i) {
        tokens.push_back(signer().token(kHeader, payloadWithExp(kNow + i)));
    }
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                value claims;
                const std::string& token = tokens[static_cast<std::size_t>(i) % tokens.size()];
                // One thread keeps presenting a key set in which the token's kid has another
                // certificate: it must never see a token verified for the other threads.
                const bool rotated = t == 3 && i % 2 == 0;
                const auto result = verifier_->verify(rotated ? withoutTheKey : keySet,
                                                      widen(token), claims, kNow + 2);
                const bool expired = static_cast<std::size_t>(i) % tokens.size() < 2;
                const VerificationResult expected =
                    rotated ? (expired ? Varkel::Tolva::TokenExpired
                                       : Varkel::Tolva::VerificationFailed)
                            : (expired ? Varkel::Tolva::TokenExpired : Varkel::Tolva::Verified);
                if (result != expected || (!expired && claims.at("exp").as_integer() == 0)) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_LE(verifier_->cachedTokenCount(), tokens.size());
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
