/// @file
/// The one way ZuCore-based code throws: log the throw on the root logger, then throw.
///
///   ZU_THROW(InvalidArgumentException, L"Service not found");
///
/// logs at error level on the root logger
///   `THROWING EXCEPTION with message : Service not found in <function signature>`
///   `(<source path without extension>(<line>))`
/// (one line) and throws InvalidArgumentException(message, location).
#pragma once

#include <string>

#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// The text of the throw log line: "THROWING EXCEPTION with message : " + message + " in " +
/// function + " (" + file without extension + "(" + line + "))".
ZU_EXPORT std::wstring formatThrowingLine(const std::wstring& message,
                                          const LoggerLocationInfo& where);

/// Writes the throw line for `message` at `where` on the root logger at error level (if that
/// level is enabled). For code that logs the line and then throws some other exception type.
/// Does not throw. Any thread.
ZU_EXPORT void logThrowing(const std::wstring& message, const LoggerLocationInfo& where) noexcept;
/// Same, for a UTF-8 message.
ZU_EXPORT void logThrowing(const std::string& message, const LoggerLocationInfo& where) noexcept;

/// Logs the throw line, then throws ExceptionType(message, where). ExceptionType is one of the
/// ZuCore exceptions (or anything constructible from (StringHolder, LoggerLocationInfo)).
template <class ExceptionType>
[[noreturn]] void throwException(const std::wstring& message, const LoggerLocationInfo& where) {
    logThrowing(message, where);
    throw ExceptionType(StringHolder(message), where);
}

}  // namespace Zu
}  // namespace Varkel

/// Logs and throws ExceptionType with the wide message, located at the macro's call site.
#define ZU_THROW(ExceptionType, message) \
    ::Varkel::Zu::throwException<ExceptionType>(::std::wstring(message), ZU_LOCATION)
