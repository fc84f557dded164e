/// @class Varkel::Zu::StringHolder
/// StringHolder: the wide message text carried by every ZuCore exception.
#pragma once

#include <ostream>
#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// A value type holding one wide string. Copyable and movable; a moved-from holder is empty.
/// Not synchronised: like std::wstring, concurrent reads are safe, a write is not.
class ZU_EXPORT StringHolder {
  public:
    StringHolder() = default;
    /// From a zero-terminated wide string; null gives an empty text.
    StringHolder(const wchar_t* text);  ///< NOLINT(google-explicit-constructor): message literals
    StringHolder(const std::wstring& text);      ///< NOLINT(google-explicit-constructor)
    StringHolder(std::wstring&& text) noexcept;  ///< NOLINT(google-explicit-constructor)
    /// Copies the text.
    StringHolder(const StringHolder&) = default;
    /// Takes the text.
    StringHolder(StringHolder&& other) noexcept;
    /// Copies the text.
    StringHolder& operator=(const StringHolder&) = default;
    /// Takes the text.
    StringHolder& operator=(StringHolder&& other) noexcept;
    ~StringHolder();

    /// The text.
    const std::wstring& str() const noexcept { return text_; }
    /// The text, zero-terminated; valid while the holder lives unchanged.
    const wchar_t* c_str() const noexcept { return text_.c_str(); }
    /// Whether the text is empty.
    bool empty() const noexcept { return text_.empty(); }

    /// The text as UTF-8.
    std::string toUtf8() const;

    /// Holders compare by their text.
    bool operator==(const StringHolder& other) const noexcept { return text_ == other.text_; }
    /// Holders compare by their text.
    bool operator!=(const StringHolder& other) const noexcept { return text_ != other.text_; }

  private:
    std::wstring text_;
};

/// Writes the text as UTF-8.
ZU_EXPORT std::ostream& operator<<(std::ostream& out, const StringHolder& text);
/// Writes the text unchanged.
ZU_EXPORT std::wostream& operator<<(std::wostream& out, const StringHolder& text);

}  // namespace Zu
}  // namespace Varkel
