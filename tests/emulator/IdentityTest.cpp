// Identity: the token grant, the key set, signature and expiry of issued tokens, rotation.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

#include "EmulatorFixture.h"

namespace EmulatorTest {
namespace {

constexpr char kGrant[] = "grant_type=client_credentials&scope=platform+cluster";

std::string base64Decode(std::string text, bool urlSafe) {
    if (urlSafe) {
        for (char& c : text) {
            c = c == '-' ? '+' : c == '_' ? '/' : c;
        }
        while (text.size() % 4 != 0) {
            text += '=';
        }
    }
    std::string out(text.size(), '\0');
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), int(text.size()));
    if (length < 0) {
        return "";
    }
    std::size_t padding = 0;
    while (padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    out.resize(std::size_t(length) - padding);
    return out;
}

struct JwtParts {
    std::string header, payload, signature, signingInput;
};

JwtParts split(const std::string& jwt) {
    const auto first = jwt.find('.');
    const auto second = jwt.find('.', first + 1);
    return {jwt.substr(0, first), jwt.substr(first + 1, second - first - 1), jwt.substr(second + 1),
            jwt.substr(0, second)};
}

// Verifies the RS256 signature with the public key of the key set's certificate for `kid`.
bool verifiedByServedCertificate(const nlohmann::json& keySet, const std::string& jwt) {
    const JwtParts parts = split(jwt);
    const auto header = nlohmann::json::parse(base64Decode(parts.header, true));
    for (const auto& key : keySet["keys"]) {
        if (key["kid"] != header["kid"]) {
            continue;
        }
        const std::string der = base64Decode(key["x5c"][0].get<std::string>(), false);
        const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
        std::unique_ptr<X509, decltype(&X509_free)> certificate(
            d2i_X509(nullptr, &cursor, long(der.size())), &X509_free);
        if (!certificate) {
            return false;
        }
        std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> publicKey(
            X509_get_pubkey(certificate.get()), &EVP_PKEY_free);
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        &EVP_MD_CTX_free);
        const std::string signature = base64Decode(parts.signature, true);
        return publicKey &&
               EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr,
                                    publicKey.get()) == 1 &&
               EVP_DigestVerify(context.get(),
                                reinterpret_cast<const unsigned char*>(signature.data()),
                                signature.size(),
                                reinterpret_cast<const unsigned char*>(parts.signingInput.data()),
                                parts.signingInput.size()) == 1;
    }
    return false;
}

class IdentityTest : public EmulatorFixture {
  protected:
    HttpResponse requestToken(const std::string& basic, const std::string& body = kGrant) {
        HeaderList headers = {{"Accept", "application/json"},
                              {"Content-Type", "application/x-www-form-urlencoded"},
                              {"User-Agent", "Tolva"}};
        if (!basic.empty()) {
            headers.emplace_back("Authorization", "Basic " + basic);
        }
        return client->request("POST", "/identity/connect/token", body, headers);
    }
    nlohmann::json keySet() {
        const auto response =
            client->request("GET", "/identity/.well-known/openid-configuration/jwks");
        EXPECT_EQ(200, response.status);
        return nlohmann::json::parse(response.body);
    }
};

TEST_F(IdentityTest, TokenGrantAnswersASignedJwtWithTheClaims) {
    const auto response = requestToken(emulator->apiKey());
    ASSERT_EQ(200, response.status) << response.body;
    const auto answer = nlohmann::json::parse(response.body);
    EXPECT_EQ("Bearer", answer["token_type"]);
    EXPECT_EQ(3600, answer["expires_in"]);
    const std::string jwt = answer["access_token"];
    const JwtParts parts = split(jwt);
    EXPECT_EQ(std::string::npos, jwt.find('='));
    const auto header = nlohmann::json::parse(base64Decode(parts.header, true));
    EXPECT_EQ("RS256", header["alg"]);
    EXPECT_EQ("JWT", header["typ"]);
    EXPECT_TRUE(header["kid"].is_string());
    const auto payload = nlohmann::json::parse(base64Decode(parts.payload, true));
    EXPECT_EQ("emulator-account", payload["acc"]);
    EXPECT_EQ("qxp-emulator-default-client", payload["sub"]);
    EXPECT_EQ(emulator->baseUrl() + "/identity", payload["iss"]);
    EXPECT_EQ(nlohmann::json::array({"platform", "cluster"}), payload["scope"]);
    EXPECT_EQ(payload["iat"].get<long long>() + 3600, payload["exp"].get<long long>());
    EXPECT_EQ(payload["iat"], payload["nbf"]);
    EXPECT_TRUE(payload["jti"].is_string());
    EXPECT_TRUE(verifiedByServedCertificate(keySet(), jwt));
}

TEST_F(IdentityTest, KeySetServesRsaKeysWithCertificates) {
    const auto keys = keySet();
    ASSERT_EQ(1u, keys["keys"].size());
    const auto& key = keys["keys"][0];
    EXPECT_EQ("RSA", key["kty"]);
    EXPECT_EQ("sig", key["use"]);
    EXPECT_EQ("RS256", key["alg"]);
    EXPECT_EQ("AQAB", key["e"]);
    EXPECT_GE(key["n"].get<std::string>().size(), 340u);
    ASSERT_EQ(1u, key["x5c"].size());
    const std::string der = base64Decode(key["x5c"][0].get<std::string>(), false);
    const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
    std::unique_ptr<X509, decltype(&X509_free)> certificate(
        d2i_X509(nullptr, &cursor, long(der.size())), &X509_free);
    ASSERT_TRUE(certificate);
    // Self-signed: the certificate verifies with its own key.
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> publicKey(
        X509_get_pubkey(certificate.get()), &EVP_PKEY_free);
    EXPECT_EQ(1, X509_verify(certificate.get(), publicKey.get()));
}

TEST_F(IdentityTest, WrongOrMissingCredentialsAre401) {
    EXPECT_EQ(401, requestToken("").status);
    EXPECT_EQ(401, requestToken("bm90Omtub3du").status);  // "not:known"
    EXPECT_EQ(401, requestToken("!!!not base64!!!").status);
    const auto response = requestToken(emulator->apiKey().substr(4));
    EXPECT_EQ(401, response.status);
    EXPECT_EQ("invalid_client", nlohmann::json::parse(response.body)["error"]);
}

TEST_F(IdentityTest, WrongOrMissingGrantTypeIs400) {
    const auto wrong = requestToken(emulator->apiKey(), "grant_type=password&scope=x");
    EXPECT_EQ(400, wrong.status);
    EXPECT_EQ("unsupported_grant_type", nlohmann::json::parse(wrong.body)["error"]);
    EXPECT_EQ(400, requestToken(emulator->apiKey(), "scope=platform").status);
}

TEST_F(IdentityTest, TokenEndpointWantsPost) {
    EXPECT_EQ(405, client->request("GET", "/identity/connect/token").status);
    EXPECT_EQ(
        405,
        client->request("POST", "/identity/.well-known/openid-configuration/jwks", "x").status);
}

TEST_F(IdentityTest, ConfiguredClientsGetTheirAccount) {
    auto options = defaultOptions();
    options.clients = {{"alpha", "alpha-secret", "acct-alpha"}, {"beta", "beta-secret", "acct-b"}};
    restart(options);
    // base64("beta:beta-secret")
    const auto response = requestToken("YmV0YTpiZXRhLXNlY3JldA==");
    ASSERT_EQ(200, response.status);
    const std::string jwt = nlohmann::json::parse(response.body)["access_token"];
    const auto payload = nlohmann::json::parse(base64Decode(split(jwt).payload, true));
    EXPECT_EQ("acct-b", payload["acc"]);
    EXPECT_EQ("YWxwaGE6YWxwaGEtc2VjcmV0", emulator->apiKey());
    EXPECT_THROW(emulator->issueToken("gamma"), std::invalid_argument);
}

TEST_F(IdentityTest, DefaultApiKeyAndConfigurationSuitTheFacade) {
    EXPECT_GT(emulator->apiKey().size(), 100u);
    const auto config = nlohmann::json::parse(emulator->platformConfig());
    EXPECT_EQ(emulator->baseUrl(), config["url"]);
    EXPECT_EQ(emulator->apiKey(), config["logging"]["credentials"]);
    EXPECT_EQ("http://127.0.0.1:" + std::to_string(emulator->port()), emulator->baseUrl());
}

TEST_F(IdentityTest, TokensAreRequiredElsewhere) {
    const auto missing = call("GET", "/discovery/api/v1/service", "", false);
    EXPECT_EQ(401, missing.status);
    EXPECT_NE(std::string::npos, missing.body.find("missing bearer token"));
    EXPECT_EQ(401, call("GET", "/discovery/api/v1/service", "", false,
                        {{"Authorization", "Bearer not.a.token"}})
                       .status);
    EXPECT_EQ(401, call("GET", "/discovery/api/v1/service", "", false,
                        {{"Authorization", "Basic " + emulator->apiKey()}})
                       .status);
    EXPECT_EQ(200, call("GET", "/discovery/api/v1/service").status);
}

TEST_F(IdentityTest, TamperedTokenIsRejected) {
    JwtParts parts = split(token);
    auto payload = nlohmann::json::parse(base64Decode(parts.payload, true));
    payload["acc"] = "someone-else";
    const std::string text = payload.dump();
    std::string encoded(4 * ((text.size() + 2) / 3) + 1, '\0');
    encoded.resize(std::size_t(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                                               reinterpret_cast<const unsigned char*>(text.data()),
                                               int(text.size()))));
    const std::string forged = parts.header + "." + encoded + "." + parts.signature;
    const auto response = call("GET", "/discovery/api/v1/service", "", false,
                               {{"Authorization", "Bearer " + forged}});
    EXPECT_EQ(401, response.status);
    EXPECT_NE(std::string::npos, response.body.find("signature"));
}

TEST_F(IdentityTest, TokenOfAnotherEmulatorIsRejected) {
    qxpemu::Emulator other;
    const std::string foreign = other.issueToken("qxp-emulator-default-client");
    const auto response = call("GET", "/discovery/api/v1/service", "", false,
                               {{"Authorization", "Bearer " + foreign}});
    EXPECT_EQ(401, response.status);
    EXPECT_NE(std::string::npos, response.body.find("unknown signing key"));
}

TEST_F(IdentityTest, ExpiredTokenIsRejected) {
    emulator->setTokenLifetime(-5);
    const auto response = requestToken(emulator->apiKey());
    ASSERT_EQ(200, response.status);
    const auto answer = nlohmann::json::parse(response.body);
    EXPECT_EQ(-5, answer["expires_in"]);
    token = answer["access_token"];
    const auto rejected = call("GET", "/discovery/api/v1/service");
    EXPECT_EQ(401, rejected.status);
    EXPECT_NE(std::string::npos, rejected.body.find("token expired"));
}

TEST_F(IdentityTest, RotationKeepsOldTokensValidAndSignsWithTheNewKey) {
    const std::string oldToken = token;
    const std::string oldKid = keySet()["keys"][0]["kid"];
    emulator->rotateKey();
    const auto keys = keySet();
    ASSERT_EQ(2u, keys["keys"].size());
    EXPECT_EQ(oldKid, keys["keys"][0]["kid"]);
    const std::string newToken =
        nlohmann::json::parse(requestToken(emulator->apiKey()).body)["access_token"];
    const auto header = nlohmann::json::parse(base64Decode(split(newToken).header, true));
    EXPECT_EQ(keys["keys"][1]["kid"], header["kid"]);
    EXPECT_TRUE(verifiedByServedCertificate(keys, newToken));
    EXPECT_TRUE(verifiedByServedCertificate(keys, oldToken));
    EXPECT_EQ(200, call("GET", "/discovery/api/v1/service").status);
    token = newToken;
    EXPECT_EQ(200, call("GET", "/discovery/api/v1/service").status);
}

}  // namespace
}  // namespace EmulatorTest
