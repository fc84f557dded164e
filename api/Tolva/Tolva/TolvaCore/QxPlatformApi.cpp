#include <TolvaCore/QxPlatformApi.h>

#include <TolvaCore/WebUtils.h>

#include <ZuCore/Base64.h>
#include <ZuCore/Constants.h>
#include <ZuCore/DebugLog.h>
#include <ZuCore/Env.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>
#include <ZuCore/Timer.h>

#include <cstdio>
#include <iostream>
#include <locale>
#include <stdexcept>
#include <utility>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::DebugLog;
using Varkel::Zu::Logger;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::http::http_exception;
using web::http::http_request;
using web::http::http_response;
using web::http::status_code;
using web::json::value;

std::shared_ptr<Logger> QxPlatformApi::logger_ = Logger::getLogger("TolvaCore.QxPlatformApi");

namespace {

// Cap interval of the repeatable error sites of this class.
constexpr unsigned int kLogCapMs = 60000;
// A token is renewed once fewer than this many seconds of it remain.
constexpr std::chrono::seconds kTokenRenewalMargin(300);
// Pause of the heartbeat task between passes.
constexpr std::chrono::seconds kHeartbeatPeriod(5);

constexpr const char* kTokenPath = "/identity/connect/token";
constexpr const char* kKeySetPath = "/identity/.well-known/openid-configuration/jwks";
constexpr const char* kNotificationsPath = "/notifications/api/v1/notifications";
constexpr const char* kTokenRequestBody = "grant_type=client_credentials&scope=platform+cluster";
constexpr const char* kFormContentType = "application/x-www-form-urlencoded";
constexpr const char* kJsonContentType = "application/json";
constexpr const char* kUserAgent = "Tolva";

// A request for path with the given headers, added in the order given. The HTTP library keeps
// headers sorted by name, so the order on the wire is its own.
http_request makeRequest(const web::http::method& method, const char* path,
                         std::initializer_list<std::pair<const char*, std::string>> headers) {
    http_request request(method);
    request.set_request_uri(path);
    for (const auto& header : headers) {
        request.headers().add(header.first, header.second);
    }
    return request;
}

// The failure of a status check: writes "ERROR: " + failureText + status + " " + reason to the
// debug log, then yields a task that fails with an http_exception built from the status code
// and the response body. The body is read asynchronously so that no continuation blocks.
template <class Result>
pplx::task<Result> failWithStatus(http_response response, const std::wstring& failureText) {
    const status_code status = response.status_code();
    DebugLog::error(failureText + std::to_wstring(status) + L" " + widen(response.reason_phrase()));
    return response.extract_string(true).then(
        [status](const std::string& body) -> Result { throw http_exception(status, body); });
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

std::wstring lowerCase(const std::wstring& text) {
    const std::locale globalLocale;
    std::wstring lowered;
    lowered.reserve(text.size());
    for (const wchar_t c : text) {
        lowered.push_back(std::tolower(c, globalLocale));
    }
    return lowered;
}

}  // namespace

QxPlatformApi::QxPlatformApi(Varkel::Zu::MakeShared::PrivateConstructorType,
                             const std::wstring& url, const std::wstring& key)
    : platformUrl_(url), apiKey_(key) {
    createClient();
    try {
        storeToken(getToken());
    } catch (const std::exception& e) {
        DebugLog::error(L"Token validation failed. " + widen(e.what()));
    }
    running_ = true;
    launchHeartbeatTask();
    mailboxQueue_ = std::make_shared<MailboxQueue>(ZU_MAXUINT32);
}

QxPlatformApi::~QxPlatformApi() {
    {
        // Cleared under the object lock: the heartbeat task checks the flag under it before
        // each wait, so it either sees the flag or is already waiting when the wait is
        // interrupted below, and never starts a fresh 5-second wait after the interruption.
        std::lock_guard<std::mutex> lock(objectLock_);
        running_ = false;
    }
    if (mailboxQueue_) {
        mailboxQueue_->shutdown();
    }
    heartbeatWakeUp_.interruptAll();
    try {
        heartbeatTask_.wait();
    } catch (...) {
        // The heartbeat loop handles its own failures; nothing is left to report.
    }
    if (queryLauncherThread_) {
        queryLauncherThread_->join();
        queryLauncherThread_.reset();
    }

    const Varkel::Zu::Timer timer;
    std::vector<pplx::task<void>> receptionTasks;
    {
        std::lock_guard<std::mutex> lock(objectLock_);
        receptionCancellation_.cancel();
        for (const auto& entry : mailboxTable_) {
            receptionTasks.push_back(entry.second.receptionTask);
        }
    }
    // Waited for outside the object lock: a reception continuation that meets an unexpected
    // status takes that lock, so waiting for it while holding the lock could deadlock.
    for (const auto& task : receptionTasks) {
        if (task == pplx::task<void>()) {
            continue;
        }
        try {
            task.wait();
        } catch (...) {
            // A failed or cancelled reception ends the same way; the walk goes on.
        }
    }
    DebugLog::trace(L"It took " + std::to_wstring(timer.getMilliseconds()) +
                    L" ms to kill the mailbox reception tasks.");
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
    std::wstring url;
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        httpClient_.reset();
        url = platformUrl_;
    }
    auto client = WebUtils::createHttpClient(url, nullptr);
    std::lock_guard<std::mutex> lock(stateMutex_);
    httpClient_ = std::move(client);
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
}

void QxPlatformApi::setPlatformApiKey(std::wstring key) {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        apiKey_ = std::move(key);
    }
    clearToken();
}

void QxPlatformApi::clearToken() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    currentToken_.accessToken.clear();
    currentToken_.expiresAt = Token::TimePoint();
}

const Token& QxPlatformApi::getCurrentToken() {
    return currentToken_;
}

bool QxPlatformApi::isTokenDue(const Token& token, Token::TimePoint now) {
    if (token.accessToken.empty()) {
        return true;
    }
    // An expiry before now is due without computing the difference: from the initial
    // minimum expiry, expiresAt - now would overflow.
    if (token.expiresAt < now) {
        return true;
    }
    return token.expiresAt - now < kTokenRenewalMargin;
}

void QxPlatformApi::validateToken() {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (!isTokenDue(currentToken_, Token::now())) {
            return;
        }
    }
    DebugLog::trace(L"Obtaining a new access token");
    try {
        storeToken(getToken());
    } catch (const std::exception& e) {
        DebugLog::error(L"Token validation failed. " + widen(e.what()));
        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), kLogCapMs,
                      L"Token validation failed. " + widen(e.what()));
    }
}

Token QxPlatformApi::getToken() {
    const auto client = currentClient();
    const std::wstring key = getPlatformApiKey();

    http_request tokenRequest = makeRequest(web::http::methods::POST, kTokenPath,
                                            {{"Accept", kJsonContentType},
                                             {"Content-Type", kFormContentType},
                                             {"User-Agent", kUserAgent},
                                             {"Authorization", narrow(L"Basic " + key)}});
    http_request keySetRequest =
        makeRequest(web::http::methods::GET, kKeySetPath,
                    {{"Accept", kJsonContentType}, {"User-Agent", kUserAgent}});
    // Passing the content type keeps the form type set above; the one-argument overload would
    // replace it with the library's text default.
    tokenRequest.set_body(std::string(kTokenRequestBody), kFormContentType);

    std::printf("#####Access token being created.\n");

    Token result;
    try {
        if (!client) {
            throw http_exception("No HTTP client for the platform URL.");
        }
        // The continuations write only into result, which outlives them: each chain is
        // waited for before the next step.
        client->request(tokenRequest)
            .then([](http_response response) -> pplx::task<value> {
                if (response.status_code() != web::http::status_codes::OK) {
                    return failWithStatus<value>(response, L"Get token failed ");
                }
                return response.extract_json();
            })
            .then([&result](const value& reply) {
                result.accessToken = widen(reply.at("access_token").as_string());
                const std::int64_t lifetimeSeconds = reply.at("expires_in").as_integer();
                result.expiresAt = Token::now() + std::chrono::seconds(lifetimeSeconds);
                std::printf("#########Access token updated successfully.\n");
                DebugLog::trace(L"Access token updated successfully.");
            })
            .get();

        client->request(keySetRequest)
            .then([](http_response response) -> pplx::task<value> {
                if (response.status_code() != web::http::status_codes::OK) {
                    std::printf("#########GET JWKS failed.\n");
                    return failWithStatus<value>(response, L"GET JWKS failed ");
                }
                return response.extract_json();
            })
            .then([&result](const value& keySet) { result.keySet = keySet; })
            .get();
    } catch (const http_exception& e) {
        std::printf("####### Get token failed \n");
        std::cout << "####### Get token failed: " << e.what() << std::endl;
        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), kLogCapMs,
                      L"Get token failed " + widen(e.what()));
        clearToken();
        throw std::runtime_error(e.what());
    }

    std::vector<std::string> parts;
    const std::string accessToken = narrow(result.accessToken);
    boost::split(parts, accessToken, boost::is_any_of("."));
    if (parts.size() != 3) {
        throw std::runtime_error("Invalid JWT token. Expecting 3 parts");
    }
    const auto payloadBytes = Varkel::Zu::Base64::decode(parts[1]);
    const std::wstring payloadText = widen(payloadBytes->toString());
    const value payload = value::parse(narrow(payloadText));
    if (!payload.is_object() || !payload.has_string_field("acc")) {
        throw std::runtime_error("Invalid JWT token. Does not carry an 'acc' claim.");
    }
    result.account = widen(payload.at("acc").as_string());
    ZU_LOG_DEBUG(logger_, L"QX Platform account : " + result.account);
    return result;
}

void QxPlatformApi::postNotification(const std::wstring& topic, const std::wstring& content,
                                     unsigned int ttl) {
    validateToken();

    http_request request =
        makeRequest(web::http::methods::POST, kNotificationsPath,
                    {{"Accept", kJsonContentType},
                     {"Content-Type", kJsonContentType},
                     {"User-Agent", kUserAgent},
                     {"Authorization", narrow(L"Bearer " + currentAccessToken())}});

    // A generator per call, seeded afresh from the system's random source.
    boost::uuids::random_generator uuidGenerator;
    value body = value::object();
    body["id"] = value::string(boost::uuids::to_string(uuidGenerator()));
    body["time"] =
        value::string(utility::datetime::utc_now().to_string(utility::datetime::ISO_8601));
    body["topic"] = value::string(narrow(lowerCase(topic)));
    body["content"] = value::string(narrow(content));
    if (ttl != 0) {
        body["ttl"] = value::number(ttl);
    }
    body["source"] = value::string(kUserAgent);

    DebugLog::trace(L"Sending QXP notification: " + widen(body.serialize()));
    request.set_body(body);

    const auto client = currentClient();
    try {
        if (!client) {
            throw http_exception("No HTTP client for the platform URL.");
        }
        client->request(request)
            .then([](pplx::task<http_response> responseTask) -> pplx::task<void> {
                http_response response = responseTask.get();
                if (response.status_code() == web::http::status_codes::NoContent) {
                    return pplx::task_from_result();
                }
                return failWithStatus<void>(response, L"Post notification failed. ");
            })
            .get();
    } catch (const http_exception& e) {
        throw std::runtime_error(e.what());
    }
}

void QxPlatformApi::launchHeartbeatTask() {
    // The destructor waits for this task before any member goes, so the raw this stays valid
    // for the task's whole life; the wait also observes the task's outcome.
    heartbeatTask_ = pplx::create_task([this] { heartbeatLoop(); });
}

void QxPlatformApi::heartbeatLoop() {
    while (running_) {
        try {
            std::unique_lock<std::mutex> lock(objectLock_);
            if (!running_) {
                break;
            }
            heartbeatWakeUp_.waitUntil(lock, std::chrono::steady_clock::now() + kHeartbeatPeriod);
            if (!running_) {
                break;
            }
            validateToken();
        } catch (const std::exception& e) {
            ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), kLogCapMs, widen(e.what()));
        }
    }
}

std::shared_ptr<web::http::client::http_client> QxPlatformApi::currentClient() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return httpClient_;
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

void QxPlatformApi::storeToken(const Token& token) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    currentToken_.accessToken = token.accessToken;
    currentToken_.account = token.account;
    currentToken_.keySet = token.keySet;
    currentToken_.expiresAt = token.expiresAt;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
