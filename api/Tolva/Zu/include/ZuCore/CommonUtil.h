/// @class Varkel::Zu::CommonUtil
/// CommonUtil: small helpers used across the libraries.
#pragma once

#include <chrono>
#include <string>
#include <typeinfo>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

class ZU_EXPORT CommonUtil {
  public:
    /// The steady-clock time `delayMs` milliseconds from now (ZU_TIMEOUT_INFINITE gives a
    /// point about 49.7 days ahead). Any thread; does not throw.
    static std::chrono::steady_clock::time_point msDelayToTimePoint(unsigned int delayMs) noexcept;

    /// Percent-encodes `text` for use in a URL path segment or query value: every character
    /// outside the unreserved set A-Z a-z 0-9 - . _ ~ is replaced by the UTF-8 bytes of the
    /// character, each written as "%" and two upper-case hex digits ("a b/é" gives
    /// "a%20b%2F%C3%A9"). Any thread; throws only std::bad_alloc.
    static std::wstring encodeUnsafeURLCharacters(const std::wstring& text);

    /// A readable name for a mangled type name as given by typeid(x).name():
    /// "N6Varkel2Zu24InvalidArgumentExceptionE" gives "Varkel::Zu::InvalidArgumentException",
    /// or "InvalidArgumentException" when withoutNamespace is true (only the outermost
    /// qualification is removed; template arguments keep theirs). A name that cannot be
    /// demangled is returned as given (still shortened if asked). Any thread.
    static std::string getNiceTypeName(std::string mangledName, bool withoutNamespace = false);

    /// getNiceTypeName of typeid(T).name().
    template <class T>
    static std::string getNiceTypeName(bool withoutNamespace = false) {
        return getNiceTypeName(std::string(typeid(T).name()), withoutNamespace);
    }
};

}  // namespace Zu
}  // namespace Varkel
