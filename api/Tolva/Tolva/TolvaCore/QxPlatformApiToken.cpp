// QxPlatformApi: the access token. Requests it with the client-credentials grant, fetches the
// identity service's key set with it, reads the platform account from the token, and renews
// it when fewer than 300 seconds of it remain.
#include <TolvaCore/QxPlatformApi.h>

#include "private/ApiDefaults.h"
#include "private/JsonReply.h"
#include "private/RestCall.h"

#include <TolvaCore/PlatformReplyError.h>
#include <TolvaCore/PlatformRequestError.h>
#include "private/StatisticsRecorder.h"

#include "private/EventDispatcher.h"

#include <ZuCore/Base64.h>
#include <ZuCore/DebugLog.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::DebugLog;
using Varkel::Zu::Logger;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::http::http_exception;
using web::http::http_response;
using web::http::status_codes;
using web::json::value;

bool QxPlatformApi::isTokenDue(const Token& token, Token::TimePoint now) {
    if (token.accessToken.empty()) {
        return true;
    }
    // An expiry before now is due without computing the difference: from the initial
    // minimum expiry, expiresAt - now would overflow.
    if (token.expiresAt < now) {
        return true;
    }
    return token.expiresAt - now < ApiDefaults::kTokenRenewalMargin;
}

void QxPlatformApi::validateToken() {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        const Token::TimePoint now = Token::now();
        if (!isTokenDue(currentToken_, now)) {
            return;
        }
        // Resilient mode keeps a still-valid token through a failed renewal; it is not asked
        // for again at every call while the identity service fails, but after a back-off.
        if (recoveryMode() == RecoveryMode::Resilient && !currentToken_.accessToken.empty() &&
            currentToken_.expiresAt > now &&
            std::chrono::steady_clock::now() < tokenRetryNotBefore_) {
            return;
        }
    }
    DebugLog::trace(L"Obtaining a new access token");
    renewToken();
}

bool QxPlatformApi::renewToken() {
    try {
        const Token token = getToken();
        storeToken(token);
        StatisticsRecorder::bump(statistics_->tokenRenewals);
        tokenRequestSucceeded();
        return true;
    } catch (const std::exception& e) {
        StatisticsRecorder::bump(statistics_->tokenFailures);
        DebugLog::error(L"Token validation failed. " + widen(e.what()));
        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                      L"Token validation failed. " + widen(e.what()));
        tokenRequestFailed(e);
        return false;
    }
}

void QxPlatformApi::tokenRequestFailed(const std::exception& failure) {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        tokenRetryFailures_ = std::min(tokenRetryFailures_ + 1, 6u);
        // 1 s, doubling to 32 s.
        tokenRetryNotBefore_ = std::chrono::steady_clock::now() +
                               std::chrono::seconds(1u << (tokenRetryFailures_ - 1));
        lastTokenFailure_ = widen(failure.what());
    }
    if (tokenFailing_.exchange(true)) {
        return;
    }
    ApiEvent event;
    event.kind = ApiEvent::Kind::TokenRenewalFailed;
    event.reason = widen(failure.what());
    events_->publish(std::move(event));
}

void QxPlatformApi::tokenRequestSucceeded() {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        tokenRetryFailures_ = 0;
        tokenRetryNotBefore_ = std::chrono::steady_clock::time_point();
        lastTokenFailure_.clear();
    }
    if (!tokenFailing_.exchange(false)) {
        return;
    }
    ApiEvent event;
    event.kind = ApiEvent::Kind::TokenRenewalRecovered;
    event.reason = L"a new access token was obtained";
    events_->publish(std::move(event));
}

std::wstring QxPlatformApi::lastTokenFailure() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return lastTokenFailure_;
}

Token QxPlatformApi::getToken() {
    const auto client = currentClient();

    RestCall tokenCall = platformCall(web::http::methods::POST, ApiDefaults::kTokenPath);
    tokenCall.header("Accept", RestCall::kJsonContentType)
        .header("Content-Type", ApiDefaults::kFormContentType)
        .header("User-Agent", RestCall::kUserAgent)
        .header("Authorization", narrow(L"Basic " + getPlatformApiKey()))
        .accept({status_codes::OK})
        .failureText(L"Get token failed ");
    RestCall keySetCall = platformCall(web::http::methods::GET, ApiDefaults::kKeySetPath);
    keySetCall.header("Accept", RestCall::kJsonContentType)
        .header("User-Agent", RestCall::kUserAgent)
        .accept({status_codes::OK})
        .failureText(L"GET JWKS failed ")
        .beforeFailure([] { std::printf("#########GET JWKS failed.\n"); });
    tokenCall.textBody(ApiDefaults::kTokenRequestBody, ApiDefaults::kFormContentType);

    std::printf("#####Access token being created.\n");

    Token result;
    try {
        // The continuations write only into result, which outlives them: each chain is
        // waited for before the next step.
        tokenCall.send(client)
            .then([](http_response response) { return extractJsonReply(response); })
            .then([&result](const value& reply) {
                result.accessToken = widen(reply.at("access_token").as_string());
                const std::int64_t lifetimeSeconds = reply.at("expires_in").as_integer();
                result.expiresAt = Token::now() + std::chrono::seconds(lifetimeSeconds);
                std::printf("#########Access token updated successfully.\n");
                DebugLog::trace(L"Access token updated successfully.");
            })
            .get();

        keySetCall.send(client)
            .then([](http_response response) { return extractJsonReply(response); })
            .then([&result](const value& keySet) { result.keySet = keySet; })
            .get();
    } catch (const PlatformReplyError&) {
        throw;
    } catch (const web::json::json_exception& e) {
        // An accepted answer without the members it must have: still a json_exception.
        throw PlatformReplyError(e.what());
    } catch (const http_exception& e) {
        std::printf("####### Get token failed \n");
        std::cout << "####### Get token failed: " << e.what() << std::endl;
        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                      L"Get token failed " + widen(e.what()));
        // Resilient mode keeps a token that is still valid: requests go on with it.
        bool keep = false;
        if (recoveryMode() == RecoveryMode::Resilient) {
            std::lock_guard<std::mutex> lock(stateMutex_);
            keep = !currentToken_.accessToken.empty() && currentToken_.expiresAt > Token::now();
        }
        if (!keep) {
            clearToken();
        }
        // A std::runtime_error as always, now with the failure's kind.
        const PlatformHttpException typed = RestCall::classify(e);
        throw PlatformRequestError(typed.what(), typed);
    }

    std::vector<std::string> parts;
    const std::string accessToken = narrow(result.accessToken);
    boost::split(parts, accessToken, boost::is_any_of("."));
    if (parts.size() != 3) {
        throw PlatformRequestError("Invalid JWT token. Expecting 3 parts",
                                   RequestFailure::Kind::BadReply);
    }
    const auto payloadBytes = Varkel::Zu::Base64::decode(parts[1]);
    const std::wstring payloadText = widen(payloadBytes->toString());
    const value payload = value::parse(narrow(payloadText));
    if (!payload.is_object() || !payload.has_string_field("acc")) {
        throw PlatformRequestError("Invalid JWT token. Does not carry an 'acc' claim.",
                                   RequestFailure::Kind::BadReply);
    }
    result.account = widen(payload.at("acc").as_string());
    ZU_LOG_DEBUG(logger_, L"QX Platform account : " + result.account);
    return result;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
