/// @class Varkel::Zu::DebugLog
/// DebugLog: the plain debug log file, one process-wide line-oriented UTF-8 text file at the
/// fixed path "C://logs//ZuLog.txt" (relative to the working directory on systems without
/// drive letters: the folder "C:/logs" below the working directory).
///
///   DebugLog::trace(L"Access token updated successfully.");   // "TRACE: Access token ..."
///   DebugLog::error(L"Get token failed 401 Unauthorized");     // "ERROR: Get token failed ..."
///
/// The file is opened (and truncated) at the first write of the process. If it cannot be
/// opened - typically because the folder does not exist - every write is silently dropped
/// for the rest of the process. Each line is written whole and flushed at once; lines from
/// concurrent writers never interleave.
#pragma once

#include <fstream>
#include <mutex>
#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

class ZU_EXPORT DebugLog {
  public:
    /// The path of the process-wide debug log.
    static constexpr const char* kPath = "C://logs//ZuLog.txt";

    /// Writes "TRACE: " + text as one line to the process-wide debug log. Any thread; does
    /// not throw.
    static void trace(const std::wstring& text) noexcept;
    /// Same, for UTF-8 text.
    static void trace(const std::string& text) noexcept;

    /// Writes "ERROR: " + text as one line to the process-wide debug log. Any thread; does
    /// not throw.
    static void error(const std::wstring& text) noexcept;
    /// Same, for UTF-8 text.
    static void error(const std::string& text) noexcept;

    /// The process-wide debug log (at kPath). Never destroyed, so it may be used until the
    /// process ends.
    static DebugLog& instance();

    /// A debug log writing to `path`; the process-wide one is instance(). The file is
    /// opened, truncating, at the first write.
    explicit DebugLog(std::string path);
    DebugLog(const DebugLog&) = delete;
    DebugLog& operator=(const DebugLog&) = delete;
    ~DebugLog();

    ///@{
    /// Writes prefix + text + "\n" (text converted to UTF-8) and flushes. Opens the file at
    /// the first call. Any thread; does not throw.
    void writeLine(const std::string& prefix, const std::wstring& text) noexcept;
    void writeLine(const std::string& prefix, const std::string& utf8Text) noexcept;
    ///@}

    /// The path this log writes to.
    const std::string& getPath() const noexcept { return path_; }

    /// False before the first write and after a failed open.
    bool isOpen() const;

  private:
    const std::string path_;
    mutable std::mutex mutex_;
    bool openAttempted_ = false;
    std::ofstream stream_;
};

}  // namespace Zu
}  // namespace Varkel
