#include <ZuCore/IllegalStateException.h>

namespace Varkel {
namespace Zu {

IllegalStateException::IllegalStateException() = default;
IllegalStateException::IllegalStateException(const StringHolder& message) : Exception(message) {}
IllegalStateException::IllegalStateException(const StringHolder& message,
                                             const LoggerLocationInfo& where)
    : Exception(message, where) {}
IllegalStateException::IllegalStateException(const IllegalStateException& other) = default;
IllegalStateException& IllegalStateException::operator=(const IllegalStateException& other) =
    default;
IllegalStateException::~IllegalStateException() = default;

}  // namespace Zu
}  // namespace Varkel
