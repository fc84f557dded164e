#include <ZuCore/CommonUtil.h>

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Zu {

std::chrono::steady_clock::time_point CommonUtil::msDelayToTimePoint(
    unsigned int delayMs) noexcept {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(delayMs);
}

std::wstring CommonUtil::encodeUnsafeURLCharacters(const std::wstring& text) {
    static const wchar_t kHex[] = L"0123456789ABCDEF";
    std::wstring out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        const bool unreserved = (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') ||
                                (c >= L'0' && c <= L'9') || c == L'-' || c == L'.' || c == L'_' ||
                                c == L'~';
        if (unreserved) {
            out.push_back(c);
            continue;
        }
        for (unsigned char byte : narrow(std::wstring(1, c))) {
            out.push_back(L'%');
            out.push_back(kHex[byte >> 4]);
            out.push_back(kHex[byte & 0x0F]);
        }
    }
    return out;
}

namespace {

// Drops the namespace and class qualification in front of the name's last component,
// ignoring "::" inside template argument lists and parentheses.
std::string withoutQualification(const std::string& name) {
    int depth = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (c == '<' || c == '(') {
            ++depth;
        } else if (c == '>' || c == ')') {
            --depth;
        } else if (depth == 0 && c == ':' && i + 1 < name.size() && name[i + 1] == ':') {
            start = i + 2;
            ++i;
        }
    }
    return name.substr(start);
}

}  // namespace

std::string CommonUtil::getNiceTypeName(std::string mangledName, bool withoutNamespace) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(mangledName.c_str(), nullptr, nullptr, &status), std::free);
    std::string name = (status == 0 && demangled) ? std::string(demangled.get()) : mangledName;
    return withoutNamespace ? withoutQualification(name) : name;
}

}  // namespace Zu
}  // namespace Varkel
