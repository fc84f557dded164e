/// @class Varkel::Zu::Env
/// Env: access to the process environment.
#pragma once

#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

class ZU_EXPORT Env {
  public:
    /// The value of the environment variable `name` (decoded as UTF-8), or `defaultValue` when
    /// it is not set. A variable set to the empty string gives "". Does not throw except
    /// std::bad_alloc. Any thread, as long as no thread changes the environment at the same
    /// time (the C library does not synchronise getenv with setenv).
    static std::wstring getVar(const std::wstring& name, std::wstring defaultValue = L"");

    /// Narrow form of getVar: the raw bytes of the value.
    static std::string getVar(const std::string& name, std::string defaultValue = "");

    /// True when the variable is set (possibly to "").
    static bool hasVar(const std::wstring& name);
};

}  // namespace Zu
}  // namespace Varkel
