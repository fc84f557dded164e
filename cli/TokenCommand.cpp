// tolva token: obtain a token, show its account and expiry, verify it against the key set.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "PlatformConnection.h"

#include <TolvaCore/JWTUtils.h>

#include <ZuCore/StringConversion.h>

#include <chrono>

namespace tolva {

int runToken(const Arguments& arguments) {
    const PlatformConnection connection(arguments);
    const auto api = connection.connect();
    const auto token = api->getCurrentTokenCopy();
    web::json::value claims;
    const auto verifier = makeVerifier(arguments);
    std::wstring reason;
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const auto result = verifier->verify(token.keySet, token.accessToken, claims, now, reason);
    const std::string reasonText = Varkel::Zu::narrow(reason);
    const std::string account = Varkel::Zu::narrow(token.account);

    if (arguments.has("json")) {
        auto out = web::json::value::object();
        out["url"] = jsonText(connection.url());
        out["account"] = jsonText(account);
        out["expiresAt"] = jsonText(tokenExpiry(token));
        out["expiresIn"] = web::json::value::number(static_cast<int64_t>(tokenSecondsLeft(token)));
        out["verification"] = jsonText(verificationName(result));
        if (!reasonText.empty()) {
            out["reason"] = jsonText(reasonText);
        }
        if (arguments.has("show-token")) {
            out["token"] = jsonText(Varkel::Zu::narrow(token.accessToken));
        }
        Console::out(out.serialize());
    } else {
        Console::out("platform      " + connection.url());
        Console::out("account       " + account);
        Console::out("expires       " + tokenExpiry(token) + " (in " +
                     std::to_string(tokenSecondsLeft(token)) + " s)");
        Console::out("verification  " + verificationName(result));
        if (arguments.has("show-token")) {
            Console::out("token         " + Varkel::Zu::narrow(token.accessToken));
        }
    }
    if (result != Varkel::Tolva::Verified) {
        Console::err("tolva: the token does not verify against the platform's key set: " +
                     refusalText(*verifier, result, reasonText));
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace tolva
