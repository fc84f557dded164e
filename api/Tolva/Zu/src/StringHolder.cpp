#include <ZuCore/StringHolder.h>

#include <utility>

#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Zu {

StringHolder::StringHolder(const wchar_t* text) : text_(text != nullptr ? text : L"") {}

StringHolder::StringHolder(const std::wstring& text) : text_(text) {}

StringHolder::StringHolder(std::wstring&& text) noexcept : text_(std::move(text)) {}

StringHolder::StringHolder(StringHolder&& other) noexcept : text_(std::move(other.text_)) {
    other.text_.clear();
}

StringHolder& StringHolder::operator=(StringHolder&& other) noexcept {
    if (this != &other) {
        text_ = std::move(other.text_);
        other.text_.clear();
    }
    return *this;
}

StringHolder::~StringHolder() = default;

std::string StringHolder::toUtf8() const {
    return narrow(text_);
}

std::ostream& operator<<(std::ostream& out, const StringHolder& text) {
    return out << text.toUtf8();
}

std::wostream& operator<<(std::wostream& out, const StringHolder& text) {
    return out << text.str();
}

}  // namespace Zu
}  // namespace Varkel
