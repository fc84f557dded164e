// JWTUtils::verify against the key set of an emulator made in this process (a real RS256 key
// and certificate). The first input byte picks what the rest of the input is:
//   0: the payload and signature of a token whose header names the real key, so fuzzed
//      inputs reach the claims and the signature check;
//   1: a whole token;
//   2: a key set, against a real token.
// verify and findKey never throw, whatever they are given.
#include "FuzzSupport.h"

#include <TolvaCore/JWTUtils.h>

#include <ZuCore/MakeShared.h>

#include <qxpemu/Emulator.h>

#include <cpprest/json.h>

#include <exception>

namespace {

struct RealKeys {
    web::json::value keySet;
    std::string token;
    std::string header;  // the token's first segment and its dot
    std::string kid;     // the id of the key set's first key
};

const RealKeys& realKeys() {
    static const RealKeys keys = [] {
        qxpemu::EmulatorOptions options;
        options.clients = {{"fuzz-client", "fuzz-secret", "fuzz-account"}};
        const qxpemu::Emulator emulator(options);
        RealKeys made;
        made.keySet = web::json::value::parse(emulator.keySet());
        made.token = emulator.issueToken("fuzz-client");
        made.header = made.token.substr(0, made.token.find('.') + 1);
        made.kid = made.keySet.at("keys").at(0).at("kid").as_string();
        return made;
    }();
    return keys;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TolvaFuzz::quietLogging();
    realKeys();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    static const auto verifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();
    const RealKeys& keys = realKeys();
    const std::string text = TolvaFuzz::bytes(data + 1, size - 1);
    web::json::value claims;
    switch (data[0] % 3) {
        case 0:
            verifier->verify(keys.keySet, Varkel::Zu::widen(keys.header + text), claims, 0);
            break;
        case 1:
            verifier->verify(keys.keySet, Varkel::Zu::widen(text), claims, 0);
            break;
        default: {
            web::json::value keySet;
            try {
                keySet = web::json::value::parse(text);
            } catch (const std::exception&) {
                // Not JSON (the parser also throws std::range_error, for a lone surrogate).
                return 0;
            }
            verifier->verify(keySet, Varkel::Zu::widen(keys.token), claims, 0);
            web::json::value key;
            verifier->findKey(keys.kid, keySet, key);
        }
    }
    return 0;
}
