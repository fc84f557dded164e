// Verifies a token against the key set the platform serves: the API object's own token when
// no argument is given, else the token given.
//
//   verify_token [token]
#include <TolvaCore/JWTUtils.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <cstdio>
#include <exception>

using Varkel::Tolva::JWTUtils;
using Varkel::Tolva::Rest::QxPlatformApi;

int main(int argc, char** argv) {
    try {
        const auto api = QxPlatformApi::createFromEnvVar();
        if (!api) {
            std::fprintf(stderr, "set QX_PLATFORM_CONFIG first\n");
            return 2;
        }
        // A consistent copy: the heartbeat task may renew the token meanwhile.
        const auto current = api->getCurrentTokenCopy();
        const std::wstring token = argc > 1 ? Varkel::Zu::widen(argv[1]) : current.accessToken;

        const auto verifier = Varkel::Zu::MakeShared::create<JWTUtils>();
        web::json::value claims;
        const auto result = verifier->verify(current.keySet, token, claims);
        if (result != Varkel::Tolva::Verified) {
            std::printf("not verified (result %d)\n", static_cast<int>(result));
            return 1;
        }
        std::printf("verified; account %s\n", claims.at("acc").as_string().c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "verify failed: %s\n", e.what());
        return 1;
    }
    return 0;
}
