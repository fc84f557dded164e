// tolva token and tolva verify against a standard OpenID provider as the identity service
// (scripted in-process): the reason of every refusal, and the flag for the RFC 9068 profile.
#include "ToolTestSupport.h"
// clang-format off
#include "ScriptedProvider.h"
// clang-format on

#include <ctime>
#include <fstream>

namespace TolvaTest {
namespace {

using TolvaRestTest::JwtTestSigner;
using TolvaRestTest::ScriptedProvider;

class ToolStandardProvider : public ToolTest {
  protected:
    ToolStandardProvider()
        : provider_(emulator_, signer()), now_(static_cast<std::int64_t>(std::time(nullptr))) {}

    static const JwtTestSigner& signer() {
        static const JwtTestSigner shared;
        return shared;
    }

    std::string atJwt() const { return provider_.accessToken(ScriptedProvider::claims(now_)); }

    ScriptedProvider provider_;
    std::int64_t now_;
};

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(ToolStandardProvider, TokenSaysWhyAnOpaqueTokenIsNoToken) {
    provider_.script("2YotnFZFEjr1zCsicMWpAA", provider_.keySetWithCertificate());
    const auto run = runTool(against({"token"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(holds(run.err, "tolva token: no access token from " + emulator_.baseUrl() +
                                   ": Invalid JWT token. Expecting 3 parts"))
        << run.err;
    EXPECT_FALSE(holds(run.err, "2YotnFZFEjr1zCsicMWpAA"));
}

TEST_F(ToolStandardProvider, TokenSaysWhyATokenWithoutAccIsNoToken) {
    provider_.script(provider_.accessToken(ScriptedProvider::claims(now_, false)),
                     provider_.keySetWithCertificate());
    const auto run = runTool(against({"token"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(holds(run.err, ": Invalid JWT token. Does not carry an 'acc' claim.")) << run.err;
}

TEST_F(ToolStandardProvider, TokenRefusesAnAtJwtByDefaultWithTheReasonAndAHint) {
    provider_.script(atJwt(), provider_.keySetWithoutCertificate());
    const auto run = runTool(against({"token"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(holds(run.out, "verification  InvalidToken\n")) << run.out;
    EXPECT_TRUE(holds(run.err,
                      "the token does not verify against the platform's key set: "
                      "InvalidToken (Token type is not 'JWT'); --jwt-profile rfc9068"))
        << run.err;

    const auto json = runTool(against({"token", "--json"}));
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(web::json::value::parse(json.out).at("reason").as_string(),
              "Token type is not 'JWT'");
}

TEST_F(ToolStandardProvider, TokenVerifiesAnAtJwtUnderTheProfileByFlagOrEnvironment) {
    provider_.script(atJwt(), provider_.keySetWithoutCertificate());
    auto run = runTool(against({"token", "--jwt-profile", "rfc9068"}));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(holds(run.out, std::string("account       ") + ScriptedProvider::kAccount));
    EXPECT_TRUE(holds(run.out, "verification  Verified\n")) << run.out;

    run = runTool(against({"token"}), {{"TOLVA_JWT_PROFILE", "rfc9068"}});
    EXPECT_EQ(run.status, 0) << run.err;
    // The flag wins over the environment.
    run = runTool(against({"token", "--jwt-profile", "platform"}),
                  {{"TOLVA_JWT_PROFILE", "rfc9068"}});
    EXPECT_EQ(run.status, 1);
    // The expected audience is checked when given.
    run = runTool(against({"token", "--jwt-profile", "rfc9068", "--audience", "elsewhere"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(holds(run.err,
                      "InvalidToken (Token audience does not include the expected "
                      "audience.)"))
        << run.err;
}

TEST_F(ToolStandardProvider, TokenSaysWhenTheKeyHasNoCertificate) {
    provider_.script(provider_.accessToken(ScriptedProvider::claims(now_), "JWT"),
                     provider_.keySetWithoutCertificate());
    const auto run = runTool(against({"token"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(holds(run.err, "InvalidToken (Missing 'x5c' section in JWKS key.)")) << run.err;
    EXPECT_EQ(runTool(against({"token", "--jwt-profile", "rfc9068"})).status, 0);
}

TEST_F(ToolStandardProvider, VerifyPrintsTheReasonOfEachRefusal) {
    std::ofstream("jwks.json") << provider_.keySetWithoutCertificate().serialize();
    const auto reasonOf = [](const std::vector<std::string>& arguments) {
        const auto run = runTool(arguments);
        EXPECT_EQ(run.status, 1) << run.err;
        return run.err;
    };
    EXPECT_TRUE(holds(reasonOf({"verify", "opaque", "--jwks", "jwks.json"}),
                      "InvalidToken (Not a JWT: the token does not have three parts"));
    EXPECT_TRUE(holds(reasonOf({"verify", atJwt(), "--jwks", "jwks.json"}),
                      "InvalidToken (Token type is not 'JWT')"));
    const std::string otherKey = signer().token(R"({"alg":"RS256","kid":"k9","typ":"at+jwt"})",
                                                ScriptedProvider::claims(now_).serialize());
    EXPECT_TRUE(
        holds(reasonOf({"verify", otherKey, "--jwks", "jwks.json", "--jwt-profile", "rfc9068"}),
              "KeyNotFound (No signing key with the token's key id 'k9' in the key set.)"));
    const std::string expired = provider_.accessToken(ScriptedProvider::claims(now_ - 7200));
    EXPECT_TRUE(
        holds(reasonOf({"verify", expired, "--jwks", "jwks.json", "--jwt-profile", "rfc9068"}),
              "TokenExpired (Token expired.)"));

    const auto json = runTool({"verify", atJwt(), "--jwks", "jwks.json", "--json"});
    EXPECT_EQ(web::json::value::parse(json.out).at("reason").as_string(),
              "Token type is not 'JWT'");
}

TEST_F(ToolStandardProvider, VerifyAcceptsAnAtJwtUnderTheProfileAndNotesAMissingAcc) {
    std::ofstream("jwks.json") << provider_.keySetWithoutCertificate().serialize();
    auto run = runTool({"verify", atJwt(), "--jwks", "jwks.json", "--jwt-profile", "rfc9068",
                        "--issuer", ScriptedProvider::kIssuer});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(holds(run.out, "result  Verified"));
    EXPECT_FALSE(holds(run.err, "\"acc\""));

    const std::string withoutAccount = provider_.accessToken(ScriptedProvider::claims(now_, false));
    run = runTool({"verify", withoutAccount, "--jwks", "jwks.json", "--jwt-profile", "rfc9068"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(holds(run.err, "the token verifies but carries no \"acc\" claim")) << run.err;

    run = runTool({"verify", atJwt(), "--jwks", "jwks.json", "--jwt-profile", "oidc"});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(holds(run.err, "--jwt-profile needs platform or rfc9068, got \"oidc\"")) << run.err;
}

}  // namespace
}  // namespace TolvaTest
