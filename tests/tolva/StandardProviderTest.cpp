// A standard OpenID provider as the platform's identity service, scripted in-process: at+jwt
// access tokens, key sets with and without "x5c", opaque tokens and tokens without "acc". Each
// case is obtained through the API object and verified with the key set it fetched, by the
// default rules (refused, with their texts) and under the RFC 9068 profile.
#include "RestTestSupport.h"
// clang-format off
#include "ScriptedProvider.h"
// clang-format on

#include <TolvaCore/JWTUtils.h>

#include <ZuCore/StringConversion.h>

#include <ctime>
#include <fstream>
#include <iterator>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::JwtProfile;
using Varkel::Tolva::JWTUtils;
using Varkel::Tolva::VerificationResult;
using Varkel::Zu::widen;
using web::json::value;

class StandardProviderTest : public RestTest {
  protected:
    StandardProviderTest()
        : noProfile_("TOLVA_JWT_PROFILE", std::nullopt),
          noIssuer_("TOLVA_JWT_ISSUER", std::nullopt),
          noAudience_("TOLVA_JWT_AUDIENCE", std::nullopt),
          provider_(emulator_, signer()),
          now_(static_cast<std::int64_t>(std::time(nullptr))) {}

    static const JwtTestSigner& signer() {
        static const JwtTestSigner shared;
        return shared;
    }

    struct Outcome {
        VerificationResult result;
        std::wstring reason;
        value claims;
    };

    // Verifies the API object's current token against the key set it fetched.
    static Outcome verify(JwtProfile profile, const Token& token) {
        return verify(profile, token.keySet, token.accessToken);
    }
    static Outcome verify(JwtProfile profile, const value& keySet, const std::wstring& token) {
        const auto verifier = Varkel::Zu::MakeShared::create<JWTUtils>();
        verifier->setProfile(profile);
        Outcome outcome;
        outcome.result =
            verifier->verify(keySet, token, outcome.claims,
                             static_cast<std::int64_t>(std::time(nullptr)), outcome.reason);
        return outcome;
    }

    static std::vector<std::wstring> verifierLines(const LogRecords& records) {
        return records.messages("TolvaCore.JWTUtils");
    }

    ScopedEnv noProfile_;
    ScopedEnv noIssuer_;
    ScopedEnv noAudience_;
    ScriptedProvider provider_;
    std::int64_t now_;
};

TEST_F(StandardProviderTest, AnAtJwtTokenIsRefusedByDefaultAndVerifiedUnderTheProfile) {
    provider_.script(provider_.accessToken(ScriptedProvider::claims(now_)),
                     provider_.keySetWithCertificate());
    const auto api = makeApi();
    const Token token = api->getCurrentTokenCopy();
    ASSERT_FALSE(token.accessToken.empty()) << Varkel::Zu::narrow(api->lastTokenFailure());
    EXPECT_EQ(token.account, widen(ScriptedProvider::kAccount));
    EXPECT_TRUE(api->lastTokenFailure().empty());
    // The key set came as application/jwk-set+json and is kept as it was served.
    EXPECT_EQ(token.keySet, provider_.keySetWithCertificate());

    const LogRecords records;
    const auto byDefault = verify(JwtProfile::Platform, token);
    EXPECT_EQ(byDefault.result, Varkel::Tolva::InvalidToken);
    EXPECT_EQ(byDefault.reason, L"Token type is not 'JWT'");
    EXPECT_EQ(verifierLines(records), (std::vector<std::wstring>{L"Token type is not 'JWT'"}));

    const auto underProfile = verify(JwtProfile::Rfc9068, token);
    EXPECT_EQ(underProfile.result, Varkel::Tolva::Verified)
        << Varkel::Zu::narrow(underProfile.reason);
    EXPECT_TRUE(underProfile.reason.empty());
    EXPECT_EQ(underProfile.claims.at("acc").as_string(), ScriptedProvider::kAccount);
    EXPECT_EQ(verifierLines(records).size(), 1u);
}

TEST_F(StandardProviderTest, AKeySetWithoutCertificatesIsRefusedByDefaultAndUsedUnderTheProfile) {
    // A "JWT" token, so that the default gets as far as the key.
    provider_.script(provider_.accessToken(ScriptedProvider::claims(now_), "JWT"),
                     provider_.keySetWithoutCertificate());
    const auto api = makeApi();
    const Token token = api->getCurrentTokenCopy();
    ASSERT_FALSE(token.accessToken.empty());

    const LogRecords records;
    const auto byDefault = verify(JwtProfile::Platform, token);
    EXPECT_EQ(byDefault.result, Varkel::Tolva::InvalidToken);
    EXPECT_EQ(byDefault.reason, L"Missing 'x5c' section in JWKS key.");
    EXPECT_EQ(verifierLines(records),
              (std::vector<std::wstring>{L"Missing 'x5c' section in JWKS key."}));
    EXPECT_EQ(verify(JwtProfile::Rfc9068, token).result, Varkel::Tolva::Verified);

    // The same with an at+jwt token.
    provider_.script(provider_.accessToken(ScriptedProvider::claims(now_)),
                     provider_.keySetWithoutCertificate());
    api->clearToken();
    api->validateToken();
    const Token atJwt = api->getCurrentTokenCopy();
    ASSERT_FALSE(atJwt.accessToken.empty());
    EXPECT_NE(atJwt.accessToken, token.accessToken);
    EXPECT_EQ(verify(JwtProfile::Platform, atJwt).result, Varkel::Tolva::InvalidToken);
    EXPECT_EQ(verify(JwtProfile::Rfc9068, atJwt).result, Varkel::Tolva::Verified);
}

TEST_F(StandardProviderTest, AnOpaqueTokenGivesNoTokenWithTheReasonAndIsNotAJwtInBothModes) {
    const std::string opaque = "2YotnFZFEjr1zCsicMWpAA";
    provider_.script(opaque, provider_.keySetWithCertificate());
    const auto api = makeApi();
    EXPECT_TRUE(api->getCurrentAccessToken().empty());
    EXPECT_EQ(api->lastTokenFailure(), L"Invalid JWT token. Expecting 3 parts");

    const LogRecords records;
    const auto keySet = provider_.keySetWithCertificate();
    const auto byDefault = verify(JwtProfile::Platform, keySet, widen(opaque));
    EXPECT_EQ(byDefault.result, Varkel::Tolva::InvalidToken);
    const auto underProfile = verify(JwtProfile::Rfc9068, keySet, widen(opaque));
    EXPECT_EQ(underProfile.result, Varkel::Tolva::InvalidToken);
    EXPECT_EQ(underProfile.reason,
              L"Not a JWT: the token does not have three parts separated by '.'.");
    EXPECT_EQ(byDefault.reason, underProfile.reason);
    // As before, no line for a token that is not three parts.
    EXPECT_TRUE(verifierLines(records).empty());
}

TEST_F(StandardProviderTest, ATokenWithoutAccGivesNoTokenWithTheReason) {
    const std::string withoutAccount = provider_.accessToken(ScriptedProvider::claims(now_, false));
    provider_.script(withoutAccount, provider_.keySetWithCertificate());
    const auto api = makeApi();
    EXPECT_TRUE(api->getCurrentAccessToken().empty());
    EXPECT_EQ(api->lastTokenFailure(), L"Invalid JWT token. Does not carry an 'acc' claim.");

    // Verification does not ask for the account: the profile verifies the token itself.
    const auto keySet = provider_.keySetWithCertificate();
    EXPECT_EQ(verify(JwtProfile::Platform, keySet, widen(withoutAccount)).result,
              Varkel::Tolva::InvalidToken);
    EXPECT_EQ(verify(JwtProfile::Rfc9068, keySet, widen(withoutAccount)).result,
              Varkel::Tolva::Verified);

    // A good token afterwards clears the reason.
    provider_.script(provider_.accessToken(ScriptedProvider::claims(now_)),
                     provider_.keySetWithCertificate());
    api->validateToken();
    EXPECT_FALSE(api->getCurrentAccessToken().empty());
    EXPECT_TRUE(api->lastTokenFailure().empty());
}

TEST_F(StandardProviderTest, TheProfileRefusesAnExpiredTokenAndAnUnknownKeyWithTheDefaultCodes) {
    auto expired = ScriptedProvider::claims(now_ - 7200);
    provider_.script(provider_.accessToken(expired), provider_.keySetWithoutCertificate());
    const auto api = makeApi();
    const Token token = api->getCurrentTokenCopy();
    ASSERT_FALSE(token.accessToken.empty());
    const auto underProfile = verify(JwtProfile::Rfc9068, token);
    EXPECT_EQ(underProfile.result, Varkel::Tolva::TokenExpired);
    EXPECT_EQ(underProfile.reason, L"Token expired.");

    const std::string otherKey = signer().token(R"({"alg":"RS256","kid":"k9","typ":"at+jwt"})",
                                                ScriptedProvider::claims(now_).serialize());
    const auto unknown =
        verify(JwtProfile::Rfc9068, provider_.keySetWithoutCertificate(), widen(otherKey));
    EXPECT_EQ(unknown.result, Varkel::Tolva::KeyNotFound);
    EXPECT_EQ(unknown.reason, L"No signing key with the token's key id 'k9' in the key set.");
}

TEST_F(StandardProviderTest, ThePlatformsOwnTokensStillVerifyUnderTheProfile) {
    const auto api = makeApi();
    const Token token = api->getCurrentTokenCopy();
    ASSERT_FALSE(token.accessToken.empty());
    EXPECT_EQ(verify(JwtProfile::Platform, token).result, Varkel::Tolva::Verified);
    EXPECT_EQ(verify(JwtProfile::Rfc9068, token).result, Varkel::Tolva::Verified);
}

// The README section "Using a standard OpenID provider": there, and saying what the library
// does (the texts it quotes are the ones the library gives, the names it gives exist).
TEST_F(StandardProviderTest, TheReadmeSectionSaysWhatTheLibraryDoes) {
    std::ifstream in(TOLVA_README_PATH);
    ASSERT_TRUE(in) << TOLVA_README_PATH;
    const std::string readme((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    const std::string heading = "## Using a standard OpenID provider\n";
    const auto begin = readme.find(heading);
    ASSERT_NE(begin, std::string::npos);
    const auto end = readme.find("\n## ", begin + heading.size());
    const std::string section = readme.substr(begin, end - begin);
    const auto says = [&section](const std::string& text) {
        return section.find(text) != std::string::npos;
    };

    // What the identity service must provide.
    EXPECT_TRUE(says("`POST /identity/connect/token`"));
    EXPECT_TRUE(says("`GET /identity/.well-known/openid-configuration/jwks`"));
    EXPECT_TRUE(says("`application/jwk-set+json`"));
    EXPECT_TRUE(says("client credentials grant"));
    EXPECT_TRUE(says("`Authorization: Basic`"));
    EXPECT_TRUE(says("`grant_type=client_credentials&scope=platform+cluster`"));
    EXPECT_TRUE(says("claim `acc`"));

    // The failures it quotes are the library's, word for word.
    provider_.script("opaque-token", provider_.keySetWithCertificate());
    const auto opaque = makeApi();
    EXPECT_TRUE(says("`" + Varkel::Zu::narrow(opaque->lastTokenFailure()) + "`"))
        << Varkel::Zu::narrow(opaque->lastTokenFailure());
    provider_.script(provider_.accessToken(ScriptedProvider::claims(now_, false)),
                     provider_.keySetWithCertificate());
    const auto withoutAccount = makeApi();
    EXPECT_TRUE(says("`" + Varkel::Zu::narrow(withoutAccount->lastTokenFailure()) + "`"));

    const auto typRefusal = verify(JwtProfile::Platform, provider_.keySetWithCertificate(),
                                   widen(provider_.accessToken(ScriptedProvider::claims(now_))));
    EXPECT_TRUE(says("`InvalidToken`, \"" + Varkel::Zu::narrow(typRefusal.reason) + "\""));
    const auto x5cRefusal =
        verify(JwtProfile::Platform, provider_.keySetWithoutCertificate(),
               widen(provider_.accessToken(ScriptedProvider::claims(now_), "JWT")));
    EXPECT_TRUE(says("`InvalidToken`, \"" + Varkel::Zu::narrow(x5cRefusal.reason) + "\""));

    // How to turn the profile on, by the names that exist.
    EXPECT_TRUE(says("setProfile(Varkel::Tolva::JwtProfile::Rfc9068)"));
    EXPECT_TRUE(says("`TOLVA_JWT_PROFILE=" +
                     Varkel::Zu::narrow(Varkel::Tolva::jwtProfileName(JwtProfile::Rfc9068)) + "`"));
    EXPECT_TRUE(says("--jwt-profile rfc9068"));
    EXPECT_TRUE(says("setExpectedIssuer") && says("setExpectedAudience"));
}

}  // namespace
}  // namespace TolvaRestTest
