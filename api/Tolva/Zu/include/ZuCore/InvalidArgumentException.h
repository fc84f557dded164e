// InvalidArgumentException: thrown when an argument has a value the callee does not accept.
#pragma once

#include <ZuCore/Exception.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

// Thrown when an argument has a value the callee does not accept. See Exception for what it
// carries.
class ZU_EXPORT InvalidArgumentException : public Exception {
  public:
    InvalidArgumentException();
    explicit InvalidArgumentException(const StringHolder& message);
    InvalidArgumentException(const StringHolder& message, const LoggerLocationInfo& where);
    InvalidArgumentException(const InvalidArgumentException& other);
    InvalidArgumentException& operator=(const InvalidArgumentException& other);
    ~InvalidArgumentException() override;
};

}  // namespace Zu
}  // namespace Varkel
