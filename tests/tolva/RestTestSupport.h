// Shared pieces of the REST client tests: an API object subclass that opens the protected
// token operations, a fixture with a running in-process emulator, and small helpers for the
// environment, the debug log and logger records.
#pragma once

// GoogleTest comes before the HTTP library, whose U() macro would clash with its templates.
#include <gtest/gtest.h>

#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/Token.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <qxpemu/Emulator.h>

#include "TestSupport.h"

namespace TolvaRestTest {

using Varkel::Tolva::Rest::QxPlatformApi;
using Varkel::Tolva::Rest::Token;

// QxPlatformApi with its protected token operations made public for the tests.
class TestApi : public QxPlatformApi {
  public:
    TestApi(Varkel::Zu::PrivateConstructorType tag, const std::wstring& url,
            const std::wstring& key)
        : QxPlatformApi(tag, url, key) {}

    using QxPlatformApi::getToken;
    using QxPlatformApi::isTokenDue;
    using QxPlatformApi::validateToken;
};

// Sets (or, with no value, removes) an environment variable for the lifetime of the object
// and restores the previous state afterwards.
class ScopedEnv {
  public:
    ScopedEnv(std::string name, std::optional<std::string> newValue) : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str())) {
            old_ = std::string(old);
        }
        apply(newValue);
    }
    ~ScopedEnv() { apply(old_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    void apply(const std::optional<std::string>& value) {
        if (value) {
            ::setenv(name_.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }
    std::string name_;
    std::optional<std::string> old_;
};

// Everything written to the logger system while the object lives.
class LogRecords {
  public:
    struct Record {
        std::string logger;
        std::string level;
        std::wstring message;
        int line;
    };

    LogRecords() {
        id_ = Varkel::Zu::Logger::addRecordObserver([this](const Varkel::Zu::Logger& logger,
                                                           const Varkel::Zu::Logger::Level& level,
                                                           const std::wstring& message,
                                                           const Varkel::Zu::LoggerLocationInfo&
                                                               where) {
            std::lock_guard<std::mutex> lock(mutex_);
            records_.push_back({logger.getName(), level.getName(), message, where.getLineNumber()});
        });
    }
    ~LogRecords() { Varkel::Zu::Logger::removeRecordObserver(id_); }
    LogRecords(const LogRecords&) = delete;
    LogRecords& operator=(const LogRecords&) = delete;

    std::vector<Record> records() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }

    // All messages of one logger.
    std::vector<std::wstring> messages(const std::string& logger) const {
        std::vector<std::wstring> found;
        for (const auto& record : records()) {
            if (record.logger == logger) {
                found.push_back(record.message);
            }
        }
        return found;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Record> records_;
    std::size_t id_ = 0;
};

// The debug log lines written after construction (the process-wide log keeps growing when a
// whole suite runs in one process).
// Checks that "TolvaCore.Mailbox" holds exactly one record, the capped error line of a
// listener's exception, at error level.
inline void expectOneListenerErrorLine(const LogRecords& records) {
    EXPECT_EQ(records.messages("TolvaCore.Mailbox"),
              (std::vector<std::wstring>{L"Unknown exception caught while receiving mail."}));
    for (const auto& record : records.records()) {
        if (record.logger == "TolvaCore.Mailbox") {
            EXPECT_EQ(record.level, "error");
        }
    }
}

class DebugLogTail {
  public:
    DebugLogTail() : offset_(TolvaTest::readDebugLog().size()) {}

    std::string text() const {
        const std::string all = TolvaTest::readDebugLog();
        return all.size() > offset_ ? all.substr(offset_) : std::string();
    }

    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::istringstream in(text());
        for (std::string line; std::getline(in, line);) {
            result.push_back(line);
        }
        return result;
    }

    bool hasLine(const std::string& line) const {
        for (const auto& candidate : lines()) {
            if (candidate == line) {
                return true;
            }
        }
        return false;
    }

    std::size_t countLinesStartingWith(const std::string& prefix) const {
        std::size_t count = 0;
        for (const auto& candidate : lines()) {
            if (candidate.rfind(prefix, 0) == 0) {
                ++count;
            }
        }
        return count;
    }

  private:
    std::size_t offset_;
};

// The account of the emulator client the fixture uses.
inline const char* testAccount() {
    return "acc-tolva-7781";
}

inline qxpemu::EmulatorOptions testEmulatorOptions() {
    qxpemu::EmulatorOptions options;
    options.clients.push_back({"tolva-rest-test-client-0123456789abcdef0123456789abcdef",
                               "s3cr3t-0123456789abcdef0123456789abcdef0123456789abcdef0123456789",
                               testAccount()});
    return options;
}

// A running emulator, "http_proxy" removed so that requests go straight to it.
class RestTest : public ::testing::Test {
  protected:
    RestTest() : RestTest(testEmulatorOptions()) {}
    explicit RestTest(qxpemu::EmulatorOptions options)
        : noProxy_("http_proxy", std::nullopt), emulator_(std::move(options)) {}

    void SetUp() override { emulator_.start(); }

    std::shared_ptr<TestApi> makeApi() {
        return Varkel::Zu::MakeShared::create<TestApi>(Varkel::Zu::widen(emulator_.baseUrl()),
                                                       Varkel::Zu::widen(emulator_.apiKey()));
    }

    // The recorded requests with this method and target, oldest first.
    std::vector<qxpemu::RecordedRequest> requestsTo(const std::string& method,
                                                    const std::string& target) const {
        std::vector<qxpemu::RecordedRequest> found;
        for (const auto& request : emulator_.requests()) {
            if (request.method == method && request.target == target) {
                found.push_back(request);
            }
        }
        return found;
    }

    // Waits until at least `count` recorded requests satisfy `matches` or `timeout` passes;
    // returns the matching requests as they stand then (check the size).
    std::vector<qxpemu::RecordedRequest> waitForMatching(
        const std::function<bool(const qxpemu::RecordedRequest&)>& matches, std::size_t count,
        std::chrono::milliseconds timeout = std::chrono::seconds(20)) const {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const auto all = emulator_.requests();
            std::vector<qxpemu::RecordedRequest> found;
            std::copy_if(all.begin(), all.end(), std::back_inserter(found), matches);
            const auto now = std::chrono::steady_clock::now();
            if (found.size() >= count || now >= deadline) {
                return found;
            }
            emulator_.waitForRequests(
                all.size() + 1,
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now));
        }
    }

    std::size_t tokenRequestCount() const {
        return requestsTo("POST", "/identity/connect/token").size();
    }

    // Token requests that arrived after `from` and before `to`: a heartbeat pass renews a
    // due token every 5 s on its own, so a count over a window tells the calls' renewals apart.
    std::size_t tokenRequestsBetween(std::chrono::steady_clock::time_point from,
                                     std::chrono::steady_clock::time_point to) const {
        std::size_t count = 0;
        for (const auto& request : requestsTo("POST", "/identity/connect/token")) {
            count += request.received > from && request.received < to ? 1 : 0;
        }
        return count;
    }

    ScopedEnv noProxy_;
    qxpemu::Emulator emulator_;
};

// Waits until `condition` holds or `timeout` passes; returns its last value. For what the
// library's own threads change without a signal a test could wait on (logger records,
// debug-log lines, a mailbox dropped after a poll).
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// The what() text of the exception `call` throws, which must be an E: a test failure (and "")
// when it returns normally or throws anything else.
template <class E, class Call>
std::string thrownText(Call&& call) {
    try {
        call();
    } catch (const E& e) {
        return e.what();
    } catch (const std::exception& e) {
        ADD_FAILURE() << "threw an exception of another type: " << e.what();
        return {};
    }
    ADD_FAILURE() << "returned normally";
    return {};
}

// A URL on which nothing listens: requests to it fail at once with "connection refused".
inline std::wstring unreachableUrl() {
    return L"http://127.0.0.1:9";
}

// Makes an API object whose first token request fails at once.
inline std::shared_ptr<TestApi> makeUnreachableApi() {
    return Varkel::Zu::MakeShared::create<TestApi>(unreachableUrl(), L"some-key");
}

constexpr const char* kTokenPath = "/identity/connect/token";
constexpr const char* kKeySetPath = "/identity/.well-known/openid-configuration/jwks";
constexpr const char* kNotificationsPath = "/notifications/api/v1/notifications";

// A token reply carrying the given access token text, valid for an hour.
inline qxpemu::FaultRule tokenReply(const std::string& accessToken) {
    qxpemu::FaultRule rule;
    rule.method = "POST";
    rule.pathPattern = kTokenPath;
    rule.status = 200;
    rule.body =
        "{\"access_token\":\"" + accessToken + "\",\"expires_in\":3600,\"token_type\":\"Bearer\"}";
    rule.contentType = "application/json";
    return rule;
}

inline qxpemu::FaultRule statusRule(const std::string& method, const std::string& path, int status,
                                    const std::string& body = "",
                                    const std::string& contentType = "text/plain") {
    qxpemu::FaultRule rule;
    rule.method = method;
    rule.pathPattern = path;
    rule.status = status;
    rule.body = body;
    rule.contentType = contentType;
    return rule;
}

inline qxpemu::FaultRule dropRule(const std::string& method, const std::string& path) {
    qxpemu::FaultRule rule;
    rule.method = method;
    rule.pathPattern = path;
    rule.drop = true;
    // The HTTP library retries a request once when a pooled connection turns out closed, so
    // a drop must apply to every attempt to be seen by the caller.
    rule.times = -1;
    return rule;
}

}  // namespace TolvaRestTest
