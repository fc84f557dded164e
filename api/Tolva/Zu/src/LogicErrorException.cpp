#include <ZuCore/LogicErrorException.h>

namespace Varkel {
namespace Zu {

LogicErrorException::LogicErrorException() = default;
LogicErrorException::LogicErrorException(const StringHolder& message) : Exception(message) {}
LogicErrorException::LogicErrorException(const StringHolder& message,
                                         const LoggerLocationInfo& where)
    : Exception(message, where) {}
LogicErrorException::LogicErrorException(const LogicErrorException& other) = default;
LogicErrorException& LogicErrorException::operator=(const LogicErrorException& other) = default;
LogicErrorException::~LogicErrorException() = default;

}  // namespace Zu
}  // namespace Varkel
