// ScriptedProvider: a standard OpenID provider standing in for the platform's identity
// service, as a deployment puts one behind the proxy that routes "/identity/" to it and the
// rest to the platform. It runs in the test process on loopback, inside the emulator: fault
// rules answer the token request and the key set request with what the test scripts (tokens
// that are at+jwt, opaque or without "acc"; key sets with or without "x5c", served as
// application/jwk-set+json), while every other path is the emulator's own. Tokens are made
// with a JwtTestSigner and claims the way such providers issue them.
#pragma once

#include "JwtTestSigner.h"

#include <qxpemu/Emulator.h>

#include <cstdint>
#include <string>
#include <vector>

#include <cpprest/json.h>

namespace TolvaRestTest {

class ScriptedProvider {
  public:
    static constexpr const char* kIssuer = "https://id.example.test/identity";
    static constexpr const char* kAudience = "qx-platform";
    static constexpr const char* kAccount = "acc-oidc-4411";

    ScriptedProvider(qxpemu::Emulator& emulator, const JwtTestSigner& signer)
        : emulator_(emulator), signer_(signer) {}

    // From now on every token request is answered 200 with this access token (an hour long)
    // and every key set request with this key set. Replaces what was scripted before.
    void script(const std::string& accessToken, const web::json::value& keySet) const {
        emulator_.clearFaults();
        qxpemu::FaultRule token;
        token.method = "POST";
        token.pathPattern = "/identity/connect/token";
        token.status = 200;
        token.body = "{\"access_token\":\"" + accessToken +
                     "\",\"expires_in\":3600,\"token_type\":\"Bearer\"}";
        token.contentType = "application/json";
        token.times = -1;
        emulator_.addFault(token);
        qxpemu::FaultRule keys;
        keys.method = "GET";
        keys.pathPattern = "/identity/.well-known/openid-configuration/jwks";
        keys.status = 200;
        keys.body = keySet.serialize();
        keys.contentType = "application/jwk-set+json";
        keys.times = -1;
        emulator_.addFault(keys);
    }

    // The claims of an RFC 9068 access token issued at `now` for an hour, with the platform
    // account in "acc" (or without it).
    static web::json::value claims(std::int64_t now, bool withAccount = true) {
        web::json::value c;
        c["iss"] = web::json::value::string(kIssuer);
        c["sub"] = web::json::value::string("svc-render");
        c["aud"] = web::json::value::string(kAudience);
        c["client_id"] = web::json::value::string("svc-render");
        c["iat"] = web::json::value::number(now);
        c["exp"] = web::json::value::number(now + 3600);
        c["jti"] = web::json::value::string("jti-0001");
        c["scope"] = web::json::value::string("platform cluster");
        if (withAccount) {
            c["acc"] = web::json::value::string(kAccount);
        }
        return c;
    }

    // An access token as the provider signs it: RS256 with key id "k1" and this "typ".
    std::string accessToken(const web::json::value& claims,
                            const std::string& typ = "at+jwt") const {
        return signer_.token(R"({"alg":"RS256","kid":"k1","typ":")" + typ + R"("})",
                             claims.serialize());
    }

    // The key set with the signer's key "k1" carrying its certificate ("x5c" and "n"/"e").
    web::json::value keySetWithCertificate() const {
        web::json::value key = signer_.rsaKey("k1");
        key["x5c"] = signer_.key("k1").at("x5c");
        return JwtTestSigner::keySet({key});
    }

    // The key set with "k1" by its parameters only, the common form.
    web::json::value keySetWithoutCertificate() const {
        return JwtTestSigner::keySet({signer_.rsaKey("k1")});
    }

  private:
    qxpemu::Emulator& emulator_;
    const JwtTestSigner& signer_;
};

}  // namespace TolvaRestTest
