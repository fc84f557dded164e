#include "PlatformConnection.h"

#include "UsageError.h"

#include <TolvaCore/RecoveryMode.h>
#include <TolvaCore/WebUtils.h>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include <cpprest/json.h>
#include <cpprest/uri.h>

namespace tolva {

namespace {

// Never destroyed: the library's threads may still log while the process exits.
struct LastError {
    std::mutex mutex;
    std::string text;
};

LastError& lastError() {
    static LastError* const made = new LastError;
    return *made;
}

std::string trimmed(std::string text) {
    const auto end = text.find_last_not_of(" \t\r\n");
    text.erase(end == std::string::npos ? 0 : end + 1);
    const auto begin = text.find_first_not_of(" \t\r\n");
    return begin == std::string::npos ? std::string() : text.substr(begin);
}

}  // namespace

PlatformConnection::PlatformConnection(const Arguments& arguments) {
    if (const char* config = std::getenv("QX_PLATFORM_CONFIG"); config && *config) {
        try {
            const auto document = web::json::value::parse(std::string(config));
            if (!arguments.has("url")) {
                url_ = document.at("url").as_string();
            }
            if (!arguments.has("credentials") && !arguments.has("credentials-file")) {
                key_ = document.at("logging").at("credentials").as_string();
            }
        } catch (const std::exception& e) {
            throw UsageError(
                std::string("QX_PLATFORM_CONFIG is not a valid configuration document (") +
                e.what() + "); expected {\"url\": ..., \"logging\": {\"credentials\": ...}}");
        }
    }
    if (arguments.has("credentials") && arguments.has("credentials-file")) {
        throw UsageError("give either --credentials or --credentials-file, not both");
    }
    url_ = arguments.value("url", url_);
    key_ = arguments.value("credentials", key_);
    if (arguments.has("credentials-file")) {
        const std::string path = arguments.value("credentials-file");
        std::ifstream in(path);
        if (!in) {
            throw UsageError("cannot read the credentials file " + path);
        }
        std::getline(in, key_);
        key_ = trimmed(key_);
        if (key_.empty()) {
            throw UsageError("the credentials file " + path + " is empty");
        }
    }
    if (url_.empty()) {
        throw UsageError("no platform URL: give --url or set QX_PLATFORM_CONFIG");
    }
    if (key_.empty()) {
        throw UsageError(
            "no API key: give --credentials, --credentials-file or set QX_PLATFORM_CONFIG");
    }
    if (arguments.has("ca-file")) {
        const std::string path = arguments.value("ca-file");
        try {
            Varkel::Tolva::WebUtils::setTrustedCaFile(Varkel::Zu::widen(path));
        } catch (const Varkel::Zu::InvalidArgumentException&) {
            throw UsageError("cannot use the CA file " + path +
                             ": it cannot be read or holds no PEM certificate");
        }
    }
    const bool httpScheme = url_.rfind("http://", 0) == 0 || url_.rfind("https://", 0) == 0;
    if (!httpScheme || !web::uri::validate(url_) || web::uri(url_).host().empty()) {
        throw UsageError("not an http:// or https:// URL: \"" + url_ + "\"");
    }
}

std::shared_ptr<Varkel::Tolva::Rest::QxPlatformApi> PlatformConnection::connect() const {
    using Varkel::Tolva::Rest::QxPlatformApi;
    auto api = Varkel::Zu::MakeShared::create<QxPlatformApi>(Varkel::Zu::widen(url_),
                                                             Varkel::Zu::widen(key_));
    if (api->getCurrentAccessToken().empty()) {
        // The token request's own failure; the library's log record of it where there is one
        // ("Get token failed ..." says which request failed). An unreadable token (opaque, or
        // without the account) is only written to the debug log, never to a logger.
        const std::string failure = Varkel::Zu::narrow(api->lastTokenFailure());
        std::string reason = lastLibraryError();
        if (reason.empty() || reason.find(failure) == std::string::npos) {
            reason = failure.empty() ? reason : failure;
        }
        throw std::runtime_error("no access token from " + url_ +
                                 (reason.empty() ? std::string() : ": " + reason));
    }
    return api;
}

std::shared_ptr<Varkel::Tolva::Rest::QxPlatformApi> PlatformConnection::connectResilient() const {
    auto api = connect();
    api->setRecoveryMode(Varkel::Tolva::Rest::RecoveryMode::Resilient);
    return api;
}

void PlatformConnection::watchLibraryErrors() {
    using Varkel::Zu::Logger;
    Logger::addRecordObserver([](const Logger& logger, const Logger::Level& level,
                                 const std::wstring& message,
                                 const Varkel::Zu::LoggerLocationInfo&) {
        // The event log repeats, in short, a failure the library has just logged in its own
        // words (a failing token renewal, say): the failure's own record is the reason.
        if (logger.getName() == "TolvaCore.Events") {
            return;
        }
        if (level.toInt() >= Logger::getErrorLevel().toInt()) {
            std::lock_guard<std::mutex> lock(lastError().mutex);
            lastError().text = Varkel::Zu::narrow(message);
        }
    });
}

std::string PlatformConnection::lastLibraryError() {
    std::lock_guard<std::mutex> lock(lastError().mutex);
    return lastError().text;
}

}  // namespace tolva
