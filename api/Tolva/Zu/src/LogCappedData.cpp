#include <ZuCore/LogCappedData.h>

namespace Varkel {
namespace Zu {

LogCappedData::LogCappedData() = default;
LogCappedData::~LogCappedData() = default;

void LogCappedData::logCappedAtLevel(const std::shared_ptr<Logger>& logger,
                                     const LoggerLocationInfo& where, const Logger::Level& level,
                                     unsigned int capMs, const std::wstring& message) noexcept {
    if (!logger || !logger->isEnabledFor(level)) {
        return;
    }
    std::uint64_t suppressed = 0;
    if (claimRecord(capMs, suppressed)) {
        writeRecord(*logger, where, level, message, suppressed);
    }
}

std::uint64_t LogCappedData::getSuppressedCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return suppressed_;
}

bool LogCappedData::claimRecord(unsigned int capMs, std::uint64_t& suppressed) noexcept {
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    if (hasWritten_ && now - lastWritten_ < std::chrono::milliseconds(capMs)) {
        ++suppressed_;
        return false;
    }
    hasWritten_ = true;
    lastWritten_ = now;
    suppressed = suppressed_;
    suppressed_ = 0;
    return true;
}

void LogCappedData::writeRecord(const Logger& logger, const LoggerLocationInfo& where,
                                const Logger::Level& level, const std::wstring& message,
                                std::uint64_t suppressed) noexcept {
    // The record itself is written outside the lock: writing may block on the output, and
    // other callers of this site only need to learn that they are to be suppressed.
    if (suppressed == 0) {
        logger.log(message, where, level);
        return;
    }
    try {
        logger.log(message + L" (" + std::to_wstring(suppressed) +
                       (suppressed == 1 ? L" similar message suppressed)"
                                        : L" similar messages suppressed)"),
                   where, level);
    } catch (...) {
        // Out of memory while building the text: drop the record rather than throw.
    }
}

}  // namespace Zu
}  // namespace Varkel
