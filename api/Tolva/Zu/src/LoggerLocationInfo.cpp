#include <ZuCore/LoggerLocationInfo.h>

#include <cstring>

namespace Varkel {
namespace Zu {

namespace {
const char kUnknown[] = "?";
}

LoggerLocationInfo::LoggerLocationInfo() noexcept
    : file_(kUnknown), function_(kUnknown), line_(-1) {}

LoggerLocationInfo::LoggerLocationInfo(const char* file, const char* function, int line) noexcept
    : file_(file != nullptr ? file : kUnknown),
      function_(function != nullptr ? function : kUnknown),
      line_(line) {}

LoggerLocationInfo::~LoggerLocationInfo() = default;

std::string LoggerLocationInfo::getFileNameWithoutExtension() const {
    std::string path(file_);
    const std::size_t lastSeparator = path.find_last_of("/\\");
    const std::size_t nameStart = lastSeparator == std::string::npos ? 0 : lastSeparator + 1;
    const std::size_t dot = path.find_last_of('.');
    // A dot that starts the name (".profile") is not an extension separator.
    if (dot != std::string::npos && dot > nameStart) {
        path.erase(dot);
    }
    return path;
}

}  // namespace Zu
}  // namespace Varkel
