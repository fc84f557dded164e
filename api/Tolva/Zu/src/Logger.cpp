#include <ZuCore/Logger.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Zu {

namespace {

const char kRootName[] = "root";
const char kRecordPattern[] = "%Y-%m-%d %H:%M:%S.%e %l [%t] %n - %v";

// Levels by ordering value: 0 trace .. 4 error, 6 off.
constexpr int kTraceValue = 0;
constexpr int kInfoValue = 2;
constexpr int kDefaultRootValue = kInfoValue;

spdlog::level::level_enum toSpdlogLevel(int value) {
    switch (value) {
        case 0:
            return spdlog::level::trace;
        case 1:
            return spdlog::level::debug;
        case 2:
            return spdlog::level::info;
        case 3:
            return spdlog::level::warn;
        case 4:
            return spdlog::level::err;
        default:
            return spdlog::level::off;
    }
}

std::string trim(const std::string& text) {
    const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    auto begin = std::find_if_not(text.begin(), text.end(), isSpace);
    auto end = std::find_if_not(text.rbegin(), text.rend(), isSpace).base();
    return begin < end ? std::string(begin, end) : std::string();
}

std::string canonicalName(const std::string& name) {
    return name.empty() ? kRootName : name;
}

// The one sink every spdlog logger of ours writes to. It forwards each record to the
// outputs configured at the moment (standard error, a file), which can be swapped at run
// time under the sink's own mutex; spdlog's loggers do not allow changing their sinks while
// other threads log through them.
class DispatchSink final : public spdlog::sinks::base_sink<std::mutex> {
  public:
    void configure(bool toStderr, std::shared_ptr<spdlog::sinks::sink> file) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (toStderr && !stderr_) {
            stderr_ = std::make_shared<spdlog::sinks::stderr_sink_st>();
            stderr_->set_pattern(kRecordPattern);
        } else if (!toStderr) {
            stderr_.reset();
        }
        if (file) {
            file->set_pattern(kRecordPattern);
        }
        file_ = std::move(file);
    }

  protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        // Every record is flushed: the records that matter most are the ones written just
        // before a crash.
        if (stderr_) {
            stderr_->log(msg);
            stderr_->flush();
        }
        if (file_) {
            file_->log(msg);
            file_->flush();
        }
    }

    void flush_() override {
        if (stderr_) {
            stderr_->flush();
        }
        if (file_) {
            file_->flush();
        }
    }

  private:
    std::shared_ptr<spdlog::sinks::sink> stderr_;
    std::shared_ptr<spdlog::sinks::sink> file_;
};

}  // namespace

struct Logger::Output {
    std::shared_ptr<spdlog::logger> logger;
};

// Owns every logger and the configuration. Created on first use and never destroyed, so
// that loggers held in statics of other libraries stay usable while the process exits.
class LoggerRegistry {
  public:
    static LoggerRegistry& instance() {
        static LoggerRegistry* registry = new LoggerRegistry();
        return *registry;
    }

    std::shared_ptr<Logger> getLogger(const std::string& requestedName) {
        const std::string name = canonicalName(requestedName);
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = loggers_.find(name);
        if (found != loggers_.end()) {
            return found->second;
        }
        std::shared_ptr<Logger> logger(new Logger(name));
        logger->output_->logger = std::make_shared<spdlog::logger>(name, sink_);
        logger->output_->logger->set_level(spdlog::level::trace);
        logger->effectiveLevel_.store(effectiveLevelLocked(name), std::memory_order_relaxed);
        loggers_.emplace(name, logger);
        return logger;
    }

    void setConfiguredLevel(const std::string& name, int value) {
        std::lock_guard<std::mutex> lock(mutex_);
        configured_[canonicalName(name)] = value;
        recomputeLocked();
    }

    void clearConfiguredLevel(const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex_);
        configured_.erase(canonicalName(name));
        recomputeLocked();
    }

    bool configureLevels(const std::string& levels) {
        std::vector<std::pair<std::string, int>> entries;
        const bool allParsed = parseLevels(levels, entries);
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : entries) {
            configured_[entry.first] = entry.second;
        }
        recomputeLocked();
        return allParsed;
    }

    void reloadConfiguration() {
        std::map<std::string, int> configured;
        if (const char* global = std::getenv("ZU_LOG_LEVEL")) {
            const Logger::Level* level = Logger::levelFromName(trim(global));
            if (level != nullptr) {
                configured[kRootName] = level->toInt();
            } else if (*global != '\0') {
                std::cerr << "ZuCore: ignoring ZU_LOG_LEVEL=" << global
                          << " (expected trace, debug, info, warn, error or off)" << std::endl;
            }
        }
        if (const char* levels = std::getenv("ZU_LOG_LEVELS")) {
            std::vector<std::pair<std::string, int>> entries;
            if (!parseLevels(levels, entries)) {
                std::cerr << "ZuCore: ignoring the malformed entries of ZU_LOG_LEVELS=" << levels
                          << " (expected name=level,name=level)" << std::endl;
            }
            for (const auto& entry : entries) {
                configured[entry.first] = entry.second;
            }
        }
        bool toStderr = true;
        if (const char* stderrSetting = std::getenv("ZU_LOG_STDERR")) {
            std::string value = trim(stderrSetting);
            std::transform(value.begin(), value.end(), value.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            toStderr = !(value == "0" || value == "off" || value == "false" || value == "no");
        }
        std::shared_ptr<spdlog::sinks::sink> file;
        if (const char* path = std::getenv("ZU_LOG_FILE")) {
            if (*path != '\0') {
                file = openFile(path, false);
                if (!file) {
                    std::cerr << "ZuCore: cannot open ZU_LOG_FILE=" << path << std::endl;
                }
            }
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            configured_ = std::move(configured);
            toStderr_ = toStderr;
            file_ = file;
            sink_->configure(toStderr_, file_);
            recomputeLocked();
        }
    }

    bool setLogFile(const std::string& path, bool truncate) {
        std::shared_ptr<spdlog::sinks::sink> file;
        if (!path.empty()) {
            file = openFile(path, truncate);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        file_ = file;
        sink_->configure(toStderr_, file_);
        return path.empty() || file_ != nullptr;
    }

    void setStderrEnabled(bool enabled) {
        std::lock_guard<std::mutex> lock(mutex_);
        toStderr_ = enabled;
        sink_->configure(toStderr_, file_);
    }

    std::size_t addObserver(Logger::RecordObserver observer) {
        std::lock_guard<std::recursive_mutex> lock(observerMutex_);
        const std::size_t id = ++lastObserverId_;
        observers_.emplace_back(id, std::move(observer));
        hasObservers_.store(true, std::memory_order_release);
        return id;
    }

    void removeObserver(std::size_t id) {
        std::lock_guard<std::recursive_mutex> lock(observerMutex_);
        observers_.erase(std::remove_if(observers_.begin(), observers_.end(),
                                        [id](const auto& entry) { return entry.first == id; }),
                         observers_.end());
        hasObservers_.store(!observers_.empty(), std::memory_order_release);
    }

    void notifyObservers(const Logger& logger, const Logger::Level& level,
                         const std::wstring& message, const LoggerLocationInfo& where) {
        if (!hasObservers_.load(std::memory_order_acquire)) {
            return;
        }
        // Recursive, so that an observer may itself log.
        std::lock_guard<std::recursive_mutex> lock(observerMutex_);
        for (const auto& entry : observers_) {
            try {
                entry.second(logger, level, message, where);
            } catch (...) {
                // An observer's failure must not turn logging into a throwing operation.
            }
        }
    }

  private:
    LoggerRegistry() : sink_(std::make_shared<DispatchSink>()) {
        sink_->configure(true, nullptr);
        reloadConfiguration();
    }

    static std::shared_ptr<spdlog::sinks::sink> openFile(const std::string& path, bool truncate) {
        try {
            return std::make_shared<spdlog::sinks::basic_file_sink_st>(path, truncate);
        } catch (const std::exception&) {
            return nullptr;
        }
    }

    // Parses "name=level,name=level" (";" also separates). Returns false if some entry was
    // malformed; the good entries are returned either way.
    static bool parseLevels(const std::string& text,
                            std::vector<std::pair<std::string, int>>& entries) {
        bool allParsed = true;
        std::size_t start = 0;
        while (start <= text.size()) {
            std::size_t end = text.find_first_of(",;", start);
            if (end == std::string::npos) {
                end = text.size();
            }
            const std::string entry = trim(text.substr(start, end - start));
            if (!entry.empty()) {
                const std::size_t equals = entry.find('=');
                const Logger::Level* level =
                    equals == std::string::npos
                        ? nullptr
                        : Logger::levelFromName(trim(entry.substr(equals + 1)));
                if (level == nullptr) {
                    allParsed = false;
                } else {
                    entries.emplace_back(canonicalName(trim(entry.substr(0, equals))),
                                         level->toInt());
                }
            }
            start = end + 1;
        }
        return allParsed;
    }

    // The configured level of the name, else of its nearest dotted ancestor, else the root's.
    int effectiveLevelLocked(const std::string& name) const {
        std::string candidate = name;
        while (!candidate.empty()) {
            auto found = configured_.find(candidate);
            if (found != configured_.end()) {
                return found->second;
            }
            const std::size_t dot = candidate.find_last_of('.');
            if (dot == std::string::npos) {
                break;
            }
            candidate.erase(dot);
        }
        auto root = configured_.find(kRootName);
        return root != configured_.end() ? root->second : kDefaultRootValue;
    }

    void recomputeLocked() {
        for (auto& entry : loggers_) {
            entry.second->effectiveLevel_.store(effectiveLevelLocked(entry.first),
                                                std::memory_order_relaxed);
        }
    }

    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<Logger>> loggers_;
    std::map<std::string, int> configured_;
    bool toStderr_ = true;
    std::shared_ptr<spdlog::sinks::sink> file_;
    std::shared_ptr<DispatchSink> sink_;

    std::recursive_mutex observerMutex_;
    std::vector<std::pair<std::size_t, Logger::RecordObserver>> observers_;
    std::size_t lastObserverId_ = 0;
    std::atomic<bool> hasObservers_{false};
};

Logger::Logger(std::string name)
    : name_(std::move(name)), effectiveLevel_(kDefaultRootValue), output_(new Output()) {}

Logger::~Logger() = default;

std::shared_ptr<Logger> Logger::getLogger(const std::string& name) {
    return LoggerRegistry::instance().getLogger(name);
}

std::shared_ptr<Logger> Logger::getRootLogger() {
    // Cached, since the root logger is asked for on every throw, and never destroyed, like
    // the registry, so that throws during process exit still find it.
    static const std::shared_ptr<Logger>* root =
        new std::shared_ptr<Logger>(LoggerRegistry::instance().getLogger(kRootName));
    return *root;
}

const Logger::Level& Logger::getTraceLevel() noexcept {
    static const Level level(kTraceValue, "trace");
    return level;
}

const Logger::Level& Logger::getDebugLevel() noexcept {
    static const Level level(1, "debug");
    return level;
}

const Logger::Level& Logger::getInfoLevel() noexcept {
    static const Level level(kInfoValue, "info");
    return level;
}

const Logger::Level& Logger::getWarnLevel() noexcept {
    static const Level level(3, "warn");
    return level;
}

const Logger::Level& Logger::getErrorLevel() noexcept {
    static const Level level(4, "error");
    return level;
}

const Logger::Level& Logger::getOffLevel() noexcept {
    static const Level level(kOffValue, "off");
    return level;
}

const Logger::Level* Logger::levelFromName(const std::string& name) noexcept {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "trace") {
        return &getTraceLevel();
    }
    if (lower == "debug") {
        return &getDebugLevel();
    }
    if (lower == "info") {
        return &getInfoLevel();
    }
    if (lower == "warn" || lower == "warning") {
        return &getWarnLevel();
    }
    if (lower == "error") {
        return &getErrorLevel();
    }
    if (lower == "off") {
        return &getOffLevel();
    }
    return nullptr;
}

void Logger::log(const std::wstring& message, const LoggerLocationInfo& where,
                 const Level& level) const noexcept {
    if (!isEnabledFor(level)) {
        return;
    }
    try {
        std::string text = narrow(message);
        if (where.getLineNumber() >= 0) {
            const char* file = where.getFileName();
            const char* slash = std::strrchr(file, '/');
            text += " [";
            text += slash != nullptr ? slash + 1 : file;
            text += ':';
            text += std::to_string(where.getLineNumber());
            text += ']';
        }
        output_->logger->log(toSpdlogLevel(level.toInt()), spdlog::string_view_t(text));
        LoggerRegistry::instance().notifyObservers(*this, level, message, where);
    } catch (...) {
        // Logging never throws into the caller.
    }
}

void Logger::setLevel(const Level& level) {
    LoggerRegistry::instance().setConfiguredLevel(name_, level.toInt());
}

void Logger::clearLevel() {
    LoggerRegistry::instance().clearConfiguredLevel(name_);
}

const Logger::Level& Logger::getEffectiveLevel() const noexcept {
    switch (effectiveLevel_.load(std::memory_order_relaxed)) {
        case 0:
            return getTraceLevel();
        case 1:
            return getDebugLevel();
        case 2:
            return getInfoLevel();
        case 3:
            return getWarnLevel();
        case 4:
            return getErrorLevel();
        default:
            return getOffLevel();
    }
}

void Logger::setGlobalLevel(const Level& level) {
    LoggerRegistry::instance().setConfiguredLevel(kRootName, level.toInt());
}

bool Logger::configureLevels(const std::string& levels) {
    return LoggerRegistry::instance().configureLevels(levels);
}

void Logger::reloadConfiguration() {
    LoggerRegistry::instance().reloadConfiguration();
}

bool Logger::setLogFile(const std::string& path, bool truncate) {
    return LoggerRegistry::instance().setLogFile(path, truncate);
}

void Logger::setStderrEnabled(bool enabled) {
    LoggerRegistry::instance().setStderrEnabled(enabled);
}

std::size_t Logger::addRecordObserver(RecordObserver observer) {
    return LoggerRegistry::instance().addObserver(std::move(observer));
}

void Logger::removeRecordObserver(std::size_t id) {
    LoggerRegistry::instance().removeObserver(id);
}

}  // namespace Zu
}  // namespace Varkel
