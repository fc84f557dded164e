#include <ZuCore/InvalidArgumentException.h>

namespace Varkel {
namespace Zu {

InvalidArgumentException::InvalidArgumentException() = default;
InvalidArgumentException::InvalidArgumentException(const StringHolder& message)
    : Exception(message) {}
InvalidArgumentException::InvalidArgumentException(const StringHolder& message,
                                                   const LoggerLocationInfo& where)
    : Exception(message, where) {}
InvalidArgumentException::InvalidArgumentException(const InvalidArgumentException& other) = default;
InvalidArgumentException& InvalidArgumentException::operator=(
    const InvalidArgumentException& other) = default;
InvalidArgumentException::~InvalidArgumentException() = default;

}  // namespace Zu
}  // namespace Varkel
