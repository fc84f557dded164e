/// @class Varkel::Zu::Exception
/// Exception: base of the ZuCore exception family (InvalidArgumentException,
/// RuntimeErrorException, IllegalStateException, LogicErrorException).
///
/// Throw them through ZU_THROW (<ZuCore/ThrowException.h>), which logs the throw first.
#pragma once

#include <exception>
#include <ostream>
#include <string>
#include <thread>

#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// An exception with a wide message, the source location that threw it and the id of the
/// thread that created it. Copyable; thrown by value, caught by reference. Immutable once
/// made, so any thread may read it.
class ZU_EXPORT Exception : public std::exception {
  public:
    /// Empty message, unknown location, the current thread.
    Exception();
    /// Message with an unknown location.
    explicit Exception(const StringHolder& message);
    /// With `message`, thrown at `where`, on the current thread.
    Exception(const StringHolder& message, const LoggerLocationInfo& where);
    /// Copies message, location and thread id.
    Exception(const Exception& other);
    /// Copies message, location and thread id.
    Exception& operator=(const Exception& other);
    ~Exception() override;

    /// The message as UTF-8. Valid as long as the exception object lives.
    const char* what() const noexcept override;

    /// The wide message.
    const StringHolder& getMessage() const noexcept { return message_; }

    /// Where the exception was made.
    const LoggerLocationInfo& getLocation() const noexcept { return location_; }

    /// The thread that made the exception.
    std::thread::id getThreadId() const noexcept { return threadId_; }

  private:
    StringHolder message_;
    std::string utf8Message_;
    LoggerLocationInfo location_;
    std::thread::id threadId_;
};

/// The exception's wide message.
ZU_EXPORT std::wstring getExceptionMessage(const Exception& e);

/// Writes the wide message.
ZU_EXPORT std::wostream& operator<<(std::wostream& out, const Exception& e);
/// Writes the message as UTF-8.
ZU_EXPORT std::ostream& operator<<(std::ostream& out, const Exception& e);

}  // namespace Zu
}  // namespace Varkel
