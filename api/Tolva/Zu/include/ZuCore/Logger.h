/// @class Varkel::Zu::Logger
/// Logger: named loggers with per-logger levels, writing records to standard error and/or a
/// file.
///
/// Getting a logger
///   Logger::getLogger("TolvaCore.QxPlatformApi") returns the one logger of that name (the same
///   object on every call). Logger::getRootLogger() returns the logger named "root".
///
/// Logging
///   Use the macros of <ZuCore/LogMacros.h> (ZU_LOG_DEBUG(logger, L"text" + value) and so on):
///   they ask isEnabledFor first and only then build the message, so a disabled level costs
///   one atomic load and no string building.
///
/// Levels
///   trace < debug < info < warn < error; a logger whose level is L writes records of level L
///   and above. "off" as a configured level disables a logger entirely.
///   A logger's effective level is the level configured for its own name, else for the
///   nearest dotted ancestor ("TolvaCore" for "TolvaCore.Mailbox"), else the root logger's
///   level, which defaults to info.
///
/// Configuration from the environment (read when the logging system first starts, and again
/// by reloadConfiguration()):
///   ZU_LOG_LEVEL=warn
///       the root (global) level: trace, debug, info, warn (or warning), error or off.
///   ZU_LOG_LEVELS=TolvaCore.QxPlatformApi=debug,TolvaCore.JWTUtils=trace,TolvaCore=warn
///       levels per logger name (or name prefix), comma separated; "root=..." sets the root.
///       Entries that cannot be parsed are reported once on standard error and ignored.
///   ZU_LOG_FILE=/var/log/myapp/tolva.log
///       also write records to this file (appending; missing folders are created).
///   ZU_LOG_STDERR=0
///       do not write records to standard error (which is on by default).
///
/// The same can be done in code: setLevel / clearLevel per logger, setGlobalLevel,
/// configureLevels (same syntax as ZU_LOG_LEVELS), setLogFile and setStderrEnabled.
///
/// Observers
///   addRecordObserver registers a callback that receives every record that is written (after
///   the level check), with the logger, level, message and location. It is the way to route
///   records into an application's own logging, and what tests use to look at records.
///
/// Record layout (standard error and file):
///   2026-01-31 12:00:00.123 warning [12345] TolvaCore.Mailbox - message text [Mailbox.cpp:42]
///
/// Thread safety: every member may be called from any thread at any time. Records from
/// concurrent writers are written whole and never interleave. Each record is flushed.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

class ZU_EXPORT Logger {
  public:
    /// A log level. Opaque: obtained only from Logger's static accessors and compared by
    /// identity of value. Immutable.
    class ZU_EXPORT Level {
      public:
        /// Lower-case name: "trace", "debug", "info", "warn", "error" or "off".
        const char* getName() const noexcept { return name_; }
        /// Ordering value: a higher value is more severe.
        int toInt() const noexcept { return value_; }
        /// Levels compare by their ordering value.
        bool operator==(const Level& other) const noexcept { return value_ == other.value_; }
        /// Levels compare by their ordering value.
        bool operator!=(const Level& other) const noexcept { return value_ != other.value_; }

      private:
        friend class Logger;
        constexpr Level(int value, const char* name) noexcept : value_(value), name_(name) {}
        int value_;
        const char* name_;
    };

    /// Receives each written record; see addRecordObserver.
    using RecordObserver =
        std::function<void(const Logger& logger, const Level& level, const std::wstring& message,
                           const LoggerLocationInfo& where)>;

    /// The one logger with this name, created on first request. "" and "root" give the root
    /// logger. Never returns null. Throws only std::bad_alloc.
    static std::shared_ptr<Logger> getLogger(const std::string& name);

    /// The root logger (name "root"), whose level is the global level.
    static std::shared_ptr<Logger> getRootLogger();

    /// The level "trace", the most detailed.
    static const Level& getTraceLevel() noexcept;
    /// The level "debug".
    static const Level& getDebugLevel() noexcept;
    /// The level "info", the default of the root logger.
    static const Level& getInfoLevel() noexcept;
    /// The level "warn".
    static const Level& getWarnLevel() noexcept;
    /// The level "error", the most severe.
    static const Level& getErrorLevel() noexcept;
    /// As a threshold, disables a logger. Records logged "at" this level are never written.
    static const Level& getOffLevel() noexcept;

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    ~Logger();

    /// The logger's name as given to getLogger ("root" for the root logger).
    const std::string& getName() const noexcept { return name_; }

    /// True when a record of this level would be written. Cheap: one atomic load.
    bool isEnabledFor(const Level& level) const noexcept {
        return level.value_ < kOffValue &&
               level.value_ >= effectiveLevel_.load(std::memory_order_relaxed);
    }

    /// Writes one record with the message, location and level, provided the level is enabled.
    /// Does not throw: failures to write are swallowed (an observer's exception included).
    void log(const std::wstring& message, const LoggerLocationInfo& where,
             const Level& level) const noexcept;

    /// Sets this logger's own level (descendant loggers without their own level follow it).
    /// On the root logger this is the same as setGlobalLevel.
    void setLevel(const Level& level);

    /// Forgets this logger's own level; it follows its nearest configured ancestor again.
    void clearLevel();

    /// The level in force for this logger.
    const Level& getEffectiveLevel() const noexcept;

    /// Sets the root logger's level.
    static void setGlobalLevel(const Level& level);

    /// Applies a level list in the ZU_LOG_LEVELS syntax ("name=level,name=level") on top of
    /// the current configuration. Returns false if any entry could not be parsed (the valid
    /// ones are applied all the same).
    static bool configureLevels(const std::string& levels);

    /// Parses a level name (trace, debug, info, warn, warning, error, off; any case).
    /// Returns null for anything else.
    static const Level* levelFromName(const std::string& name) noexcept;

    /// Forgets every configured level and output setting and reads ZU_LOG_LEVEL,
    /// ZU_LOG_LEVELS, ZU_LOG_FILE and ZU_LOG_STDERR again. Observers stay registered.
    static void reloadConfiguration();

    /// Also writes records to this file from now on (the previous file, if any, is closed).
    /// truncate: start the file empty instead of appending. Missing folders are created. An
    /// empty path stops file output.
    /// Returns false if the file cannot be opened (file output is then off).
    static bool setLogFile(const std::string& path, bool truncate = false);

    /// Turns writing to standard error on or off.
    static void setStderrEnabled(bool enabled);

    /// Registers an observer; returns its id for removeRecordObserver. Observers are called on
    /// the logging thread, one record at a time (calls are serialised), after the record has
    /// been written. An observer may log (its own records reach it too, so beware of loops)
    /// but must not add or remove observers.
    static std::size_t addRecordObserver(RecordObserver observer);

    /// Unregisters an observer. Once this returns the observer is no longer called. Must not
    /// be called from inside an observer.
    static void removeRecordObserver(std::size_t id);

  private:
    friend class LoggerRegistry;
    static constexpr int kOffValue = 6;

    explicit Logger(std::string name);

    struct Output;
    std::string name_;
    std::atomic<int> effectiveLevel_;
    std::unique_ptr<Output> output_;
};

}  // namespace Zu
}  // namespace Varkel
