#include <ZuCore/ThrowException.h>

#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Zu {

std::wstring formatThrowingLine(const std::wstring& message, const LoggerLocationInfo& where) {
    return L"THROWING EXCEPTION with message : " + message + L" in " +
           widen(where.getFunctionName()) + L" (" + widen(where.getFileNameWithoutExtension()) +
           L"(" + std::to_wstring(where.getLineNumber()) + L"))";
}

void logThrowing(const std::wstring& message, const LoggerLocationInfo& where) noexcept {
    try {
        const std::shared_ptr<Logger> root = Logger::getRootLogger();
        if (root->isEnabledFor(Logger::getErrorLevel())) {
            root->log(formatThrowingLine(message, where), where, Logger::getErrorLevel());
        }
    } catch (...) {
        // The exception about to be thrown matters more than its log line.
    }
}

void logThrowing(const std::string& message, const LoggerLocationInfo& where) noexcept {
    try {
        logThrowing(widen(message), where);
    } catch (...) {
    }
}

}  // namespace Zu
}  // namespace Varkel
