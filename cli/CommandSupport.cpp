#include "CommandSupport.h"

#include "UsageError.h"

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <ctime>

namespace tolva {

std::string isoUtc(std::chrono::system_clock::time_point when) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string tokenExpiry(const Varkel::Tolva::Rest::Token& token) {
    if (token.expiresAt == Varkel::Tolva::Rest::Token::TimePoint::min()) {
        return "none";
    }
    return isoUtc(std::chrono::time_point_cast<std::chrono::system_clock::duration>(
        std::chrono::time_point_cast<std::chrono::seconds>(token.expiresAt)));
}

long long tokenSecondsLeft(const Varkel::Tolva::Rest::Token& token) {
    if (token.expiresAt == Varkel::Tolva::Rest::Token::TimePoint::min()) {
        return 0;
    }
    return std::chrono::duration_cast<std::chrono::seconds>(token.expiresAt -
                                                            Varkel::Tolva::Rest::Token::now())
        .count();
}

std::string verificationName(Varkel::Tolva::VerificationResult result) {
    switch (result) {
        case Varkel::Tolva::KeyNotFound:
            return "KeyNotFound";
        case Varkel::Tolva::TokenExpired:
            return "TokenExpired";
        case Varkel::Tolva::InvalidToken:
            return "InvalidToken";
        case Varkel::Tolva::VerificationFailed:
            return "VerificationFailed";
        case Varkel::Tolva::Verified:
            return "Verified";
    }
    return "Unknown(" + std::to_string(static_cast<int>(result)) + ")";
}

std::vector<OptionSyntax> verificationOptions() {
    return {
        {"jwt-profile", "NAME",
         "verify by the platform's rules (platform, the default) or also accept RFC 9068 "
         "access tokens of standard OpenID providers (rfc9068); default TOLVA_JWT_PROFILE"},
        {"issuer", "ISS", "with rfc9068: the \"iss\" tokens must carry (default TOLVA_JWT_ISSUER)"},
        {"audience", "AUD",
         "with rfc9068: the audience \"aud\" must hold (default TOLVA_JWT_AUDIENCE)"}};
}

std::shared_ptr<Varkel::Tolva::JWTUtils> makeVerifier(const Arguments& arguments) {
    using Varkel::Tolva::JwtProfile;
    auto verifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();
    if (arguments.has("jwt-profile")) {
        const std::string name = arguments.value("jwt-profile");
        if (name == "rfc9068") {
            verifier->setProfile(JwtProfile::Rfc9068);
        } else if (name == "platform") {
            verifier->setProfile(JwtProfile::Platform);
        } else {
            throw UsageError("--jwt-profile needs platform or rfc9068, got \"" + name + "\"");
        }
    }
    if (arguments.has("issuer")) {
        verifier->setExpectedIssuer(Varkel::Zu::widen(arguments.value("issuer")));
    }
    if (arguments.has("audience")) {
        verifier->setExpectedAudience(Varkel::Zu::widen(arguments.value("audience")));
    }
    return verifier;
}

std::string refusalText(const Varkel::Tolva::JWTUtils& verifier,
                        Varkel::Tolva::VerificationResult result, const std::string& reason) {
    std::string text = verificationName(result);
    if (!reason.empty()) {
        text += " (" + reason + ")";
    }
    // What the default refuses and the profile is made for: another "typ" (at+jwt) or a key
    // without a certificate.
    if (verifier.profile() == Varkel::Tolva::JwtProfile::Platform &&
        (reason == "Token type is not 'JWT'" || reason == "Missing 'x5c' section in JWKS key.")) {
        text += "; --jwt-profile rfc9068 accepts the access tokens of standard OpenID providers";
    }
    return text;
}

web::json::value jsonText(const std::string& text) {
    return web::json::value::string(text);
}

long long millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

}  // namespace tolva
