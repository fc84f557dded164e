#include <TolvaCore/QxPlatformApi.h>

#include <TolvaCore/WebUtils.h>

#include "private/ApiDefaults.h"
#include "private/BearerText.h"
#include "private/ConnectionPacer.h"
#include "private/CountText.h"
#include "private/DeliveryThreads.h"
#include "private/EventDispatcher.h"
#include "private/HttpClientMaker.h"
#include "private/MailboxRegistry.h"
#include "private/RestCall.h"
#include "private/StatisticsRecorder.h"
#include "private/StatisticsReporter.h"

#include <ZuCore/Constants.h>
#include <ZuCore/DebugLog.h>
#include <ZuCore/Env.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>
#include <ZuCore/Timer.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::DebugLog;
using Varkel::Zu::Logger;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::json::value;

std::shared_ptr<Logger> QxPlatformApi::logger_ = Logger::getLogger("TolvaCore.QxPlatformApi");

namespace {

// TOLVA_REQUEST_TIME_LIMIT_MS, or RestCall's default; a bad value is logged and ignored.
std::chrono::milliseconds timeLimitFromEnvironment() {
    const std::wstring text =
        Varkel::Zu::Env::getVar(std::wstring(L"TOLVA_REQUEST_TIME_LIMIT_MS"), L"");
    if (text.empty()) {
        return RestCall::kDefaultTimeLimit;
    }
    const auto value = countFromText(
        text, static_cast<std::size_t>(ApiDefaults::kLongestRequestTimeLimit.count()));
    if (!value ||
        *value < static_cast<std::size_t>(ApiDefaults::kShortestRequestTimeLimit.count())) {
        ZU_LOG_WARN(Varkel::Zu::Logger::getLogger("TolvaCore.QxPlatformApi"),
                    L"TOLVA_REQUEST_TIME_LIMIT_MS is not a number from 100 to 3600000; requests "
                    L"keep the default time limit.");
        return RestCall::kDefaultTimeLimit;
    }
    return std::chrono::milliseconds(*value);
}

// The URL and the credential of a configuration document
// {"url": ..., "logging": {"credentials": ...}}. Throws web::json::json_exception.
std::pair<std::wstring, std::wstring> readConfiguration(const std::wstring& configuration) {
    const value document = value::parse(narrow(configuration));
    const web::json::object& root = document.as_object();
    const std::wstring url = widen(root.at("url").as_string());
    // The credential deliberately sits inside "logging", not at the top level.
    const std::wstring key = widen(root.at("logging").as_object().at("credentials").as_string());
    return {url, key};
}

}  // namespace

QxPlatformApi::QxPlatformApi(Varkel::Zu::MakeShared::PrivateConstructorType,
                             const std::wstring& url, const std::wstring& key)
    : platformUrl_(url), apiKey_(key), requestTimeLimitMs_(timeLimitFromEnvironment().count()) {
    // Made first (none starts a thread yet), so that the first token request is counted and
    // reported, and the heartbeat task finds its recovery thread.
    bearer_ = std::make_shared<BearerText>();
    deliveryThreads_ = std::make_shared<DeliveryThreads>(DeliveryThreads::limitFromEnvironment());
    statistics_ = std::make_shared<StatisticsRecorder>(deliveryThreads_);
    events_ = std::make_shared<EventDispatcher>();
    recovery_ = std::make_shared<DeliveryThreads>(1, DeliveryThreads::kIdleTime, "QXP recovery");
    mailboxQueue_ = std::make_shared<MailboxQueue>(ZU_MAXUINT32);
    pacer_ = std::make_shared<ConnectionPacer>(ApiDefaults::kPollsOpeningAtOnce);
    registry_ = std::make_shared<MailboxRegistry>(mailboxQueue_, statistics_, events_,
                                                  deliveryThreads_, recoveryModeFromEnvironment());
    statistics_->setMailboxViews(registry_);
    createClient();
    try {
        const Token token = getToken();
        storeToken(token);
        StatisticsRecorder::bump(statistics_->tokenRenewals);
    } catch (const std::exception& e) {
        StatisticsRecorder::bump(statistics_->tokenFailures);
        DebugLog::error(L"Token validation failed. " + widen(e.what()));
        tokenRequestFailed(e);
    }
    running_ = true;
    launchHeartbeatTask();
}

QxPlatformApi::~QxPlatformApi() {
    // The report first: its callback may call this object. On the report's own thread (its
    // callback let go of the last reference) this does not wait, and that thread holds only
    // the recorder.
    std::unique_ptr<StatisticsReporter> reporter;
    {
        std::lock_guard<std::mutex> lock(reporterMutex_);
        reporter.swap(reporter_);
    }
    reporter.reset();
    {
        // Cleared under the object lock: the heartbeat task checks the flag under it before
        // each wait, so it either sees the flag or is already waiting when the wait is
        // interrupted below, and never starts a fresh 5-second wait after the interruption.
        std::lock_guard<std::mutex> lock(objectLock_);
        running_ = false;
    }
    {
        // Ends a recovery job's back-off at once.
        std::lock_guard<std::mutex> lock(recoveryPauseMutex_);
        recoveryPauseEnded_.notify_all();
    }
    if (mailboxQueue_) {
        mailboxQueue_->shutdown();
        pacer_->stop();
    }
    heartbeatWakeUp_.interruptAll();
    if (heartbeatThread_) {
        // The loop handles its own failures; joining waits for a pass under way to end.
        heartbeatThread_->join();
    }
    if (queryLauncherThread_) {
        queryLauncherThread_->join();
        queryLauncherThread_.reset();
    }

    // Recovery jobs use this object; a job under way ends at its next step (each request is
    // bounded by the client's time-out). Jobs not started are dropped.
    recovery_->stop();

    const Varkel::Zu::Timer timer;
    // The polling thread has ended, so no poll starts any more. Cancelling may complete
    // requests on the spot, and their continuations take the registry's lock: the registry
    // cancels outside it, and the tasks are waited for here.
    receptionCancellation_.cancel();
    for (const auto& task : registry_->close()) {
        try {
            task.wait();
        } catch (...) {
            // A failed or cancelled reception ends the same way; the walk goes on.
        }
    }
    // Polls of mailboxes deleted meanwhile are in no table entry; they are cancelled all the
    // same and waited for here, since their continuations use this object.
    waitForPollsToEnd();
    // Listeners still running on other delivery threads are waited for; mail not yet handed
    // to a listener is dropped. When this destructor runs inside a listener (whose thread is
    // a delivery thread), that thread is not waited for: it ends by itself once the listener
    // returns, and its job touches nothing of this object.
    deliveryThreads_->stop();
    // Events not yet handed to the host's callback are dropped; one under way is waited for,
    // unless this runs inside it.
    events_->stop();
    DebugLog::trace(L"It took " + std::to_wstring(timer.getMilliseconds()) +
                    L" ms to kill the mailbox reception tasks.");
}

ApiStatistics QxPlatformApi::statistics() const {
    return statistics_->snapshot();
}

void QxPlatformApi::reportStatistics(std::chrono::milliseconds interval,
                                     std::function<void(const std::wstring& json)> callback) {
    if (interval.count() < 0) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException,
                 L"The statistics report interval must not be negative.");
    }
    std::unique_ptr<StatisticsReporter> replaced;
    {
        std::lock_guard<std::mutex> lock(reporterMutex_);
        replaced.swap(reporter_);
        if (interval.count() > 0) {
            reporter_ =
                std::make_unique<StatisticsReporter>(statistics_, interval, std::move(callback));
        }
    }
    // Outside the lock: stopping waits for a callback under way, which may call this.
    replaced.reset();
}

std::shared_ptr<QxPlatformApi> QxPlatformApi::createFromEnvVar() {
    const std::wstring configuration =
        Varkel::Zu::Env::getVar(std::wstring(L"QX_PLATFORM_CONFIG"), L"");
    if (configuration.empty()) {
        return nullptr;
    }
    const auto settings = readConfiguration(configuration);
    return Varkel::Zu::MakeShared::create<QxPlatformApi>(settings.first, settings.second);
}

std::shared_ptr<QxPlatformApi> QxPlatformApi::createFromQXPlatformConfig(
    const std::wstring& config) {
    try {
        const auto settings = readConfiguration(config);
        return Varkel::Zu::MakeShared::create<QxPlatformApi>(settings.first, settings.second);
    } catch (const std::exception& e) {
        // The location is pinned: the reported line is part of the log text callers match.
        Varkel::Zu::throwException<Varkel::Zu::InvalidArgumentException>(
            widen(e.what()), Varkel::Zu::LoggerLocationInfo(__FILE__, __PRETTY_FUNCTION__, 192));
    }
}

void QxPlatformApi::createClient() {
    // The new clients are made before the old ones go, so that a call on another thread in
    // between still has a client to send with. If they cannot be made, no client is kept: the
    // URL and the clients never disagree.
    std::shared_ptr<web::http::client::http_client> client;
    std::shared_ptr<web::http::client::http_client> pollClient;
    try {
        const std::wstring url = getPlatformUrl();
        // As WebUtils::createHttpClient(url, nullptr) makes it, with redirects not followed.
        client = WebUtils::makeHttpClient(url, ApiDefaults::kRequestStepTimeout);
        pollClient = WebUtils::makeHttpClient(url, ApiDefaults::kPollStepTimeout);
    } catch (...) {
        std::lock_guard<std::mutex> lock(stateMutex_);
        httpClient_.reset();
        pollClient_.reset();
        throw;
    }
    std::lock_guard<std::mutex> lock(stateMutex_);
    httpClient_ = std::move(client);
    pollClient_ = std::move(pollClient);
}

std::wstring QxPlatformApi::getPlatformUrl() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return platformUrl_;
}

std::wstring QxPlatformApi::getPlatformApiKey() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return apiKey_;
}

void QxPlatformApi::setPlatformUrl(std::wstring url) {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        platformUrl_ = std::move(url);
    }
    createClient();
    clearToken();
    // Resilient mode: a token for the new platform at once, so that the polls waiting for
    // one go on.
    if (recoveryMode() == RecoveryMode::Resilient) {
        requestTokenRenewal(std::string());
    }
}

void QxPlatformApi::setPlatformApiKey(std::wstring key) {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        apiKey_ = std::move(key);
    }
    clearToken();
    if (recoveryMode() == RecoveryMode::Resilient) {
        requestTokenRenewal(std::string());
    }
}

void QxPlatformApi::clearToken() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    currentToken_.accessToken.clear();
    currentToken_.expiresAt = Token::TimePoint();
    bearer_->set(std::string());
}

const Token& QxPlatformApi::getCurrentToken() {
    return currentToken_;
}

std::shared_ptr<web::http::client::http_client> QxPlatformApi::currentClient() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return httpClient_;
}

std::shared_ptr<web::http::client::http_client> QxPlatformApi::currentPollClient() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return pollClient_;
}

RestCall QxPlatformApi::platformCall(const web::http::method& method,
                                     const std::string& path) const {
    RestCall call(method, path);
    call.timeLimit(requestTimeLimit()).onResend([statistics = statistics_] {
        StatisticsRecorder::bump(statistics->requestsSentAgain);
    });
    return call;
}

void QxPlatformApi::setRequestTimeLimit(std::chrono::milliseconds limit) {
    if (limit < ApiDefaults::kShortestRequestTimeLimit ||
        limit > ApiDefaults::kLongestRequestTimeLimit) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException,
                 L"A request time limit must be from 100 ms to 1 hour.");
    }
    requestTimeLimitMs_ = limit.count();
}

std::chrono::milliseconds QxPlatformApi::requestTimeLimit() const {
    return std::chrono::milliseconds(requestTimeLimitMs_.load());
}

Token QxPlatformApi::getCurrentTokenCopy() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return currentToken_;
}

std::wstring QxPlatformApi::getCurrentAccessToken() const {
    return currentAccessToken();
}

std::wstring QxPlatformApi::currentAccessToken() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return currentToken_.accessToken;
}

std::string QxPlatformApi::bearerAuthorization() const {
    return bearer_->get();
}

std::string QxPlatformApi::requestAuthorization() const {
    std::string header = bearer_->get();
    if (BearerText::isEmpty(header) && recoveryMode() == RecoveryMode::Resilient) {
        throw std::runtime_error(
            "No access token (the last token request failed); the request was not sent.");
    }
    return header;
}

void QxPlatformApi::storeToken(const Token& token) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    currentToken_.accessToken = token.accessToken;
    currentToken_.account = token.account;
    currentToken_.keySet = token.keySet;
    currentToken_.expiresAt = token.expiresAt;
    bearer_->set(narrow(token.accessToken));
}

void QxPlatformApi::setRecoveryMode(RecoveryMode mode) {
    registry_->setMode(mode);
}

RecoveryMode QxPlatformApi::recoveryMode() const {
    return registry_->mode();
}

void QxPlatformApi::setEventCallback(std::function<void(const ApiEvent& event)> callback) {
    events_->setCallback(std::move(callback));
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
