// Helpers for the ZuCore tests: collecting log records and restoring the logging
// configuration.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <ZuCore/Logger.h>

namespace ZuTest {

// The whole content of a file as bytes (empty when it cannot be read).
inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// `text` split at line feeds, without them.
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        result.push_back(line);
    }
    return result;
}

struct CapturedRecord {
    std::string logger;
    std::string level;
    std::wstring message;
    std::string file;
    std::string function;
    int line = 0;
};

// Collects every record written while it lives (through Logger::addRecordObserver).
class RecordCollector {
  public:
    RecordCollector() {
        id_ = Varkel::Zu::Logger::addRecordObserver(
            [this](const Varkel::Zu::Logger& logger, const Varkel::Zu::Logger::Level& level,
                   const std::wstring& message, const Varkel::Zu::LoggerLocationInfo& where) {
                std::lock_guard<std::mutex> lock(mutex_);
                records_.push_back({logger.getName(), level.getName(), message, where.getFileName(),
                                    where.getFunctionName(), where.getLineNumber()});
            });
    }
    ~RecordCollector() { Varkel::Zu::Logger::removeRecordObserver(id_); }
    RecordCollector(const RecordCollector&) = delete;
    RecordCollector& operator=(const RecordCollector&) = delete;

    std::vector<CapturedRecord> records() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }

    // Records of one logger.
    std::vector<CapturedRecord> recordsOf(const std::string& loggerName) const {
        std::vector<CapturedRecord> selected;
        for (const auto& record : records()) {
            if (record.logger == loggerName) {
                selected.push_back(record);
            }
        }
        return selected;
    }

  private:
    std::size_t id_ = 0;
    mutable std::mutex mutex_;
    std::vector<CapturedRecord> records_;
};

// Clears the logging environment variables and the configuration at construction and
// destruction, so that each test starts from the defaults (root level info, stderr only).
class LoggingConfigGuard {
  public:
    LoggingConfigGuard() { reset(); }
    ~LoggingConfigGuard() { reset(); }
    LoggingConfigGuard(const LoggingConfigGuard&) = delete;
    LoggingConfigGuard& operator=(const LoggingConfigGuard&) = delete;

    static void reset() {
        for (const char* name : {"ZU_LOG_LEVEL", "ZU_LOG_LEVELS", "ZU_LOG_FILE", "ZU_LOG_STDERR"}) {
            ::unsetenv(name);
        }
        Varkel::Zu::Logger::reloadConfiguration();
    }
};

}  // namespace ZuTest
