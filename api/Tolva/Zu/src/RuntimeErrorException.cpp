#include <ZuCore/RuntimeErrorException.h>

namespace Varkel {
namespace Zu {

RuntimeErrorException::RuntimeErrorException() = default;
RuntimeErrorException::RuntimeErrorException(const StringHolder& message) : Exception(message) {}
RuntimeErrorException::RuntimeErrorException(const StringHolder& message,
                                             const LoggerLocationInfo& where)
    : Exception(message, where) {}
RuntimeErrorException::RuntimeErrorException(const RuntimeErrorException& other) = default;
RuntimeErrorException& RuntimeErrorException::operator=(const RuntimeErrorException& other) =
    default;
RuntimeErrorException::~RuntimeErrorException() = default;

}  // namespace Zu
}  // namespace Varkel
