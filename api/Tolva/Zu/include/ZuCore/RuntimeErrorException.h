// RuntimeErrorException: thrown when an operation failed for a reason outside the caller's control.
#pragma once

#include <ZuCore/Exception.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

// Thrown when an operation failed for a reason outside the caller's control. See Exception for what
// it carries.
class ZU_EXPORT RuntimeErrorException : public Exception {
  public:
    RuntimeErrorException();
    explicit RuntimeErrorException(const StringHolder& message);
    RuntimeErrorException(const StringHolder& message, const LoggerLocationInfo& where);
    RuntimeErrorException(const RuntimeErrorException& other);
    RuntimeErrorException& operator=(const RuntimeErrorException& other);
    ~RuntimeErrorException() override;
};

}  // namespace Zu
}  // namespace Varkel
