/// @class Varkel::Zu::RuntimeErrorException
/// RuntimeErrorException: thrown when an operation failed for a reason outside the caller's
/// control.
#pragma once

#include <ZuCore/Exception.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Thrown when an operation failed for a reason outside the caller's control. See Exception for
/// what it carries.
class ZU_EXPORT RuntimeErrorException : public Exception {
  public:
    RuntimeErrorException();
    /// With `message`, an unknown location and the current thread.
    explicit RuntimeErrorException(const StringHolder& message);
    /// With `message`, thrown at `where`, on the current thread.
    RuntimeErrorException(const StringHolder& message, const LoggerLocationInfo& where);
    /// Copies message, location and thread id.
    RuntimeErrorException(const RuntimeErrorException& other);
    /// Copies message, location and thread id.
    RuntimeErrorException& operator=(const RuntimeErrorException& other);
    ~RuntimeErrorException() override;
};

}  // namespace Zu
}  // namespace Varkel
