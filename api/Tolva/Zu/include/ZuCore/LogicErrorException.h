/// @class Varkel::Zu::LogicErrorException
/// LogicErrorException: thrown when the program broke one of its own rules (a failed assertion).
#pragma once

#include <ZuCore/Exception.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Thrown when the program broke one of its own rules (a failed assertion). See Exception for what
/// it carries.
class ZU_EXPORT LogicErrorException : public Exception {
  public:
    LogicErrorException();
    /// With `message`, an unknown location and the current thread.
    explicit LogicErrorException(const StringHolder& message);
    /// With `message`, thrown at `where`, on the current thread.
    LogicErrorException(const StringHolder& message, const LoggerLocationInfo& where);
    /// Copies message, location and thread id.
    LogicErrorException(const LogicErrorException& other);
    /// Copies message, location and thread id.
    LogicErrorException& operator=(const LogicErrorException& other);
    ~LogicErrorException() override;
};

}  // namespace Zu
}  // namespace Varkel
