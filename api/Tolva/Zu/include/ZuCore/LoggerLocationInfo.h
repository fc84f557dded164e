/// @class Varkel::Zu::LoggerLocationInfo
/// LoggerLocationInfo: the source location attached to log records and exceptions.
#pragma once

#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// A source location: file, function and line.
///
/// The file and function are kept as plain pointers, not copied: pass string literals such as
/// __FILE__ and __PRETTY_FUNCTION__ (which is what ZU_LOCATION does), or other text that
/// outlives every copy of the location. Copying is cheap. Immutable, so any thread may read it.
class ZU_EXPORT LoggerLocationInfo {
  public:
    /// An unknown location: file and function "?", line -1.
    LoggerLocationInfo() noexcept;

    /// A location. Null pointers are stored as "?". Does not throw.
    LoggerLocationInfo(const char* file, const char* function, int line) noexcept;

    /// Copies the location.
    LoggerLocationInfo(const LoggerLocationInfo&) noexcept = default;
    /// Copies the location.
    LoggerLocationInfo& operator=(const LoggerLocationInfo&) noexcept = default;
    ~LoggerLocationInfo();

    /// The file as given (with __FILE__ in our build: the path relative to the source tree).
    const char* getFileName() const noexcept { return file_; }

    /// The file without its extension: "api/Tolva/Tolva/TolvaCore/QxPlatformApi.cpp" gives
    /// "api/Tolva/Tolva/TolvaCore/QxPlatformApi". Only the last path component is looked at.
    std::string getFileNameWithoutExtension() const;

    /// The function as given (with __PRETTY_FUNCTION__: its full signature).
    const char* getFunctionName() const noexcept { return function_; }

    /// The line number, -1 when unknown.
    int getLineNumber() const noexcept { return line_; }

  private:
    const char* file_;
    const char* function_;
    int line_;
};

}  // namespace Zu
}  // namespace Varkel

/// The location of the code where the macro is written.
#define ZU_LOCATION ::Varkel::Zu::LoggerLocationInfo(__FILE__, __PRETTY_FUNCTION__, __LINE__)
