#include <ZuCore/Env.h>

#include <cstdlib>

#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Zu {

std::wstring Env::getVar(const std::wstring& name, std::wstring defaultValue) {
    const char* value = std::getenv(narrow(name).c_str());
    return value != nullptr ? widen(value) : defaultValue;
}

std::string Env::getVar(const std::string& name, std::string defaultValue) {
    const char* value = std::getenv(name.c_str());
    return value != nullptr ? std::string(value) : defaultValue;
}

bool Env::hasVar(const std::wstring& name) {
    return std::getenv(narrow(name).c_str()) != nullptr;
}

}  // namespace Zu
}  // namespace Varkel
