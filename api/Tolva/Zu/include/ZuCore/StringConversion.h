/// @file
/// Conversions between wide strings (one wchar_t per Unicode code point) and UTF-8.
#pragma once

#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Decodes UTF-8. Each malformed sequence (bad lead or continuation byte, overlong form,
/// surrogate, value above U+10FFFF, truncated tail) becomes one U+FFFD. Never throws except
/// std::bad_alloc. Any thread.
ZU_EXPORT std::wstring widen(const std::string& utf8);

/// Encodes as UTF-8. Values that are not Unicode scalar values (surrogates, above U+10FFFF)
/// become U+FFFD. Never throws except std::bad_alloc. Any thread.
ZU_EXPORT std::string narrow(const std::wstring& text);

}  // namespace Zu
}  // namespace Varkel
