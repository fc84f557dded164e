#include <ZuCore/DebugLog.h>

#include <utility>

#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Zu {

namespace {
const char kTracePrefix[] = "TRACE: ";
const char kErrorPrefix[] = "ERROR: ";
}  // namespace

DebugLog& DebugLog::instance() {
    // Never destroyed: threads and static destructors may still write while the process
    // exits.
    static DebugLog* log = new DebugLog(kPath);
    return *log;
}

void DebugLog::trace(const std::wstring& text) noexcept {
    instance().writeLine(kTracePrefix, text);
}

void DebugLog::trace(const std::string& text) noexcept {
    instance().writeLine(kTracePrefix, text);
}

void DebugLog::error(const std::wstring& text) noexcept {
    instance().writeLine(kErrorPrefix, text);
}

void DebugLog::error(const std::string& text) noexcept {
    instance().writeLine(kErrorPrefix, text);
}

DebugLog::DebugLog(std::string path) : path_(std::move(path)) {}

DebugLog::~DebugLog() = default;

void DebugLog::writeLine(const std::string& prefix, const std::wstring& text) noexcept {
    try {
        writeLine(prefix, narrow(text));
    } catch (...) {
    }
}

void DebugLog::writeLine(const std::string& prefix, const std::string& utf8Text) noexcept {
    try {
        // Build the whole line first and write it with one call under the lock, so that
        // concurrent writers never interleave.
        std::string line;
        line.reserve(prefix.size() + utf8Text.size() + 1);
        line.append(prefix).append(utf8Text).push_back('\n');

        std::lock_guard<std::mutex> lock(mutex_);
        if (!openAttempted_) {
            openAttempted_ = true;
            stream_.open(path_, std::ios::out | std::ios::trunc | std::ios::binary);
        }
        if (!stream_.is_open()) {
            return;
        }
        stream_.write(line.data(), static_cast<std::streamsize>(line.size()));
        stream_.flush();
        // A failed write (disk full) must not stop later lines from being tried.
        stream_.clear();
    } catch (...) {
        // The debug log is best effort by design.
    }
}

bool DebugLog::isOpen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stream_.is_open();
}

}  // namespace Zu
}  // namespace Varkel
