/// @class Varkel::Zu::InvalidArgumentException
/// InvalidArgumentException: thrown when an argument has a value the callee does not accept.
#pragma once

#include <ZuCore/Exception.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Thrown when an argument has a value the callee does not accept. See Exception for what it
/// carries.
class ZU_EXPORT InvalidArgumentException : public Exception {
  public:
    InvalidArgumentException();
    /// With `message`, an unknown location and the current thread.
    explicit InvalidArgumentException(const StringHolder& message);
    /// With `message`, thrown at `where`, on the current thread.
    InvalidArgumentException(const StringHolder& message, const LoggerLocationInfo& where);
    /// Copies message, location and thread id.
    InvalidArgumentException(const InvalidArgumentException& other);
    /// Copies message, location and thread id.
    InvalidArgumentException& operator=(const InvalidArgumentException& other);
    ~InvalidArgumentException() override;
};

}  // namespace Zu
}  // namespace Varkel
