/// @class Varkel::Zu::LogCappedData
/// LogCappedData: rate limiting for a log call site that may repeat (an error in a loop, a
/// failing remote call). Each call site owns one static instance; see ZU_LOG_CAPPED in
/// <ZuCore/LogMacros.h>.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <ZuCore/Logger.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Lets at most one record through per cap interval. The first record is always written; a
/// record is written again once capMs milliseconds have passed since the last written one.
/// Records in between are counted and dropped, and the next written record ends with
/// " (N similar messages suppressed)" (" (1 similar message suppressed)" for one).
/// Records at a level the logger does not write neither count nor use up the interval.
///
/// Thread-safe: any number of threads may log through one instance at once.
class ZU_EXPORT LogCappedData {
  public:
    LogCappedData();
    LogCappedData(const LogCappedData&) = delete;
    LogCappedData& operator=(const LogCappedData&) = delete;
    ~LogCappedData();

    /// Logs `message` through `logger` at `level` unless a record from this instance was
    /// written less than capMs milliseconds ago. A null logger logs nothing. Does not throw.
    void logCappedAtLevel(const std::shared_ptr<Logger>& logger, const LoggerLocationInfo& where,
                          const Logger::Level& level, unsigned int capMs,
                          const std::wstring& message) noexcept;

    /// As logCappedAtLevel, but the message is made by calling makeMessage() (returning a
    /// std::wstring), and only when the record is actually written.
    template <class MakeMessage>
    void logCappedAtLevelWith(const std::shared_ptr<Logger>& logger,
                              const LoggerLocationInfo& where, const Logger::Level& level,
                              unsigned int capMs, MakeMessage&& makeMessage) {
        if (!logger || !logger->isEnabledFor(level)) {
            return;
        }
        std::uint64_t suppressed = 0;
        if (claimRecord(capMs, suppressed)) {
            writeRecord(*logger, where, level, std::forward<MakeMessage>(makeMessage)(),
                        suppressed);
        }
    }

    /// How many records have been dropped since the last written one.
    std::uint64_t getSuppressedCount() const;

  private:
    /// Decides under the lock whether a record may be written now; if so, hands over and
    /// resets the count of records suppressed since the previous one.
    bool claimRecord(unsigned int capMs, std::uint64_t& suppressed) noexcept;
    static void writeRecord(const Logger& logger, const LoggerLocationInfo& where,
                            const Logger::Level& level, const std::wstring& message,
                            std::uint64_t suppressed) noexcept;

    mutable std::mutex mutex_;
    bool hasWritten_ = false;
    std::chrono::steady_clock::time_point lastWritten_;
    std::uint64_t suppressed_ = 0;
};

}  // namespace Zu
}  // namespace Varkel
