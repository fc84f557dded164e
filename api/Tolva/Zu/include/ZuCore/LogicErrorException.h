// LogicErrorException: thrown when the program broke one of its own rules (a failed assertion).
#pragma once

#include <ZuCore/Exception.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

// Thrown when the program broke one of its own rules (a failed assertion). See Exception for what
// it carries.
class ZU_EXPORT LogicErrorException : public Exception {
  public:
    LogicErrorException();
    explicit LogicErrorException(const StringHolder& message);
    LogicErrorException(const StringHolder& message, const LoggerLocationInfo& where);
    LogicErrorException(const LogicErrorException& other);
    LogicErrorException& operator=(const LogicErrorException& other);
    ~LogicErrorException() override;
};

}  // namespace Zu
}  // namespace Varkel
