/// @class Varkel::Zu::IllegalStateException
/// IllegalStateException: thrown when an operation was called while the object is in a state that
/// does not allow it.
#pragma once

#include <ZuCore/Exception.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Thrown when an operation was called while the object is in a state that does not allow it. See
/// Exception for what it carries.
class ZU_EXPORT IllegalStateException : public Exception {
  public:
    IllegalStateException();
    /// With `message`, an unknown location and the current thread.
    explicit IllegalStateException(const StringHolder& message);
    /// With `message`, thrown at `where`, on the current thread.
    IllegalStateException(const StringHolder& message, const LoggerLocationInfo& where);
    /// Copies message, location and thread id.
    IllegalStateException(const IllegalStateException& other);
    /// Copies message, location and thread id.
    IllegalStateException& operator=(const IllegalStateException& other);
    ~IllegalStateException() override;
};

}  // namespace Zu
}  // namespace Varkel
