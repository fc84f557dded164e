// StringHolder: the wide message text carried by every ZuCore exception.
#pragma once

#include <ostream>
#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

// A value type holding one wide string. Copyable and movable; a moved-from holder is empty.
// Not synchronised: like std::wstring, concurrent reads are safe, a write is not.
class ZU_EXPORT StringHolder {
  public:
    StringHolder() = default;
    // From a zero-terminated wide string; null gives an empty text.
    StringHolder(const wchar_t* text);  // NOLINT(google-explicit-constructor): message literals
    StringHolder(const std::wstring& text);      // NOLINT(google-explicit-constructor)
    StringHolder(std::wstring&& text) noexcept;  // NOLINT(google-explicit-constructor)
    StringHolder(const StringHolder&) = default;
    StringHolder(StringHolder&& other) noexcept;
    StringHolder& operator=(const StringHolder&) = default;
    StringHolder& operator=(StringHolder&& other) noexcept;
    ~StringHolder();

    const std::wstring& str() const noexcept { return text_; }
    const wchar_t* c_str() const noexcept { return text_.c_str(); }
    bool empty() const noexcept { return text_.empty(); }

    // The text as UTF-8.
    std::string toUtf8() const;

    bool operator==(const StringHolder& other) const noexcept { return text_ == other.text_; }
    bool operator!=(const StringHolder& other) const noexcept { return text_ != other.text_; }

  private:
    std::wstring text_;
};

// Writes the text as UTF-8.
ZU_EXPORT std::ostream& operator<<(std::ostream& out, const StringHolder& text);
// Writes the text unchanged.
ZU_EXPORT std::wostream& operator<<(std::wostream& out, const StringHolder& text);

}  // namespace Zu
}  // namespace Varkel
