#include <ZuCore/Exception.h>

#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Zu {

Exception::Exception() : threadId_(std::this_thread::get_id()) {}

Exception::Exception(const StringHolder& message)
    : message_(message), utf8Message_(message.toUtf8()), threadId_(std::this_thread::get_id()) {}

Exception::Exception(const StringHolder& message, const LoggerLocationInfo& where)
    : message_(message),
      utf8Message_(message.toUtf8()),
      location_(where),
      threadId_(std::this_thread::get_id()) {}

// The copy keeps the thread of the original: it is where the failure happened.
Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    return utf8Message_.c_str();
}

std::wstring getExceptionMessage(const Exception& e) {
    return e.getMessage().str();
}

std::wostream& operator<<(std::wostream& out, const Exception& e) {
    return out << e.getMessage().str();
}

std::ostream& operator<<(std::ostream& out, const Exception& e) {
    return out << e.what();
}

}  // namespace Zu
}  // namespace Varkel
