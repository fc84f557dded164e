#include "CommandSupport.h"

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

web::json::value jsonText(const std::string& text) {
    return web::json::value::string(text);
}

long long millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

}  // namespace tolva
