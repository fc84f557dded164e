/// @file
/// Logging macros. Each checks Logger::isEnabledFor first and evaluates the message
/// expression only when the level is enabled, so a disabled level builds no message.
///
///   static const auto logger = Varkel::Zu::Logger::getLogger("TolvaCore.Mailbox");
///   ZU_LOG_DEBUG(logger, L"Created mailbox " + id);
///   ZU_LOG_CAPPED(logger, Varkel::Zu::Logger::getErrorLevel(), 60000, L"Poll failed: " + why);
///
/// `logger` is a std::shared_ptr<Logger> (a null pointer logs nothing); the message is a
/// std::wstring expression. Safe on any thread.
#pragma once

#include <ZuCore/LogCappedData.h>
#include <ZuCore/Logger.h>
#include <ZuCore/LoggerLocationInfo.h>

/// Logs `message` on `logger` at `level` when that level is enabled.
#define ZU_LOG_AT_LEVEL(logger, level, message)                                   \
    do {                                                                          \
        const auto& zuLogLogger_ = (logger);                                      \
        const ::Varkel::Zu::Logger::Level& zuLogLevel_ = (level);                 \
        if (zuLogLogger_ && zuLogLogger_->isEnabledFor(zuLogLevel_)) {            \
            zuLogLogger_->log(::std::wstring(message), ZU_LOCATION, zuLogLevel_); \
        }                                                                         \
    } while (0)

/// Logs `message` at trace level when enabled.
#define ZU_LOG_TRACE(logger, message) \
    ZU_LOG_AT_LEVEL(logger, ::Varkel::Zu::Logger::getTraceLevel(), message)
/// Logs `message` at debug level when enabled.
#define ZU_LOG_DEBUG(logger, message) \
    ZU_LOG_AT_LEVEL(logger, ::Varkel::Zu::Logger::getDebugLevel(), message)
/// Logs `message` at info level when enabled.
#define ZU_LOG_INFO(logger, message) \
    ZU_LOG_AT_LEVEL(logger, ::Varkel::Zu::Logger::getInfoLevel(), message)
/// Logs `message` at warn level when enabled.
#define ZU_LOG_WARN(logger, message) \
    ZU_LOG_AT_LEVEL(logger, ::Varkel::Zu::Logger::getWarnLevel(), message)
/// Logs `message` at error level when enabled.
#define ZU_LOG_ERROR(logger, message) \
    ZU_LOG_AT_LEVEL(logger, ::Varkel::Zu::Logger::getErrorLevel(), message)

/// At most one record per capMs milliseconds from this call site (one static LogCappedData per
/// expansion). The message is built only when the level is enabled and the cap lets a record
/// through; suppressed records are counted and the next written record says how many.
#define ZU_LOG_CAPPED(logger, level, capMs, message)                                           \
    do {                                                                                       \
        const auto& zuLogLogger_ = (logger);                                                   \
        const ::Varkel::Zu::Logger::Level& zuLogLevel_ = (level);                              \
        if (zuLogLogger_ && zuLogLogger_->isEnabledFor(zuLogLevel_)) {                         \
            static ::Varkel::Zu::LogCappedData zuLogCapped_;                                   \
            zuLogCapped_.logCappedAtLevelWith(zuLogLogger_, ZU_LOCATION, zuLogLevel_, (capMs), \
                                              [&]() { return ::std::wstring(message); });      \
        }                                                                                      \
    } while (0)
