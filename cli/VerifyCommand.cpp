// tolva verify: verify a platform-issued JWT against a key set and print its claims.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "PlatformConnection.h"
#include "UsageError.h"

#include <TolvaCore/JWTUtils.h>

#include <ZuCore/StringConversion.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

namespace tolva {

namespace {

std::string readToken(const std::string& argument) {
    if (argument != "-") {
        return argument;
    }
    std::string token;
    std::getline(std::cin, token);
    const auto end = token.find_last_not_of(" \t\r\n");
    token.erase(end == std::string::npos ? 0 : end + 1);
    return token;
}

web::json::value readKeySet(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw UsageError("cannot read the key set file " + path);
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    web::json::value keySet;
    try {
        keySet = web::json::value::parse(text);
    } catch (const std::exception& e) {
        throw UsageError("the key set file " + path + " is not JSON: " + e.what());
    }
    if (!keySet.is_object() || !keySet.has_array_field("keys")) {
        throw UsageError("the key set file " + path +
                         " is not a JSON Web Key Set (an object with a \"keys\" array)");
    }
    return keySet;
}

}  // namespace

int runVerify(const Arguments& arguments) {
    if (arguments.has("jwks") && arguments.has("from-platform")) {
        throw UsageError("give either --jwks or --from-platform, not both");
    }
    const std::string token = readToken(arguments.positional().at(0));
    if (token.empty()) {
        throw UsageError("the token is empty");
    }
    web::json::value keySet;
    if (arguments.has("jwks")) {
        keySet = readKeySet(arguments.value("jwks"));
    } else {
        const PlatformConnection connection(arguments);
        keySet = connection.connect()->getCurrentTokenCopy().keySet;
    }
    web::json::value claims;
    const auto verifier = makeVerifier(arguments);
    std::wstring reason;
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const auto result = verifier->verify(keySet, Varkel::Zu::widen(token), claims, now, reason);
    const std::string reasonText = Varkel::Zu::narrow(reason);
    if (arguments.has("json")) {
        auto out = web::json::value::object();
        out["result"] = jsonText(verificationName(result));
        if (!reasonText.empty()) {
            out["reason"] = jsonText(reasonText);
        }
        out["claims"] = claims;
        Console::out(out.serialize());
    } else {
        Console::out("result  " + verificationName(result));
        if (!claims.is_null()) {
            Console::out("claims  " + claims.serialize());
        }
    }
    if (result != Varkel::Tolva::Verified) {
        Console::err("tolva: the token does not verify: " +
                     refusalText(*verifier, result, reasonText));
        return kExitFailure;
    }
    if (!claims.is_object() || !claims.has_string_field("acc")) {
        Console::err(
            "tolva: the token verifies but carries no \"acc\" claim: the library cannot "
            "take the platform account from it");
    }
    return kExitOk;
}

}  // namespace tolva
