// Small text rules shared by the endpoints: encodings, UTF-8 validity, identifiers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qxpemu {
namespace text {

// Standard Base64 with "=" padding.
std::string base64Encode(std::string_view bytes);
// Base64url without padding (JWT form).
std::string base64UrlEncode(std::string_view bytes);
// Decodes standard or url-safe Base64, padding optional; nullopt when malformed.
std::optional<std::string> base64Decode(std::string_view text);

// Decodes %XX escapes ("+" stays "+"); nullopt on a broken escape.
std::optional<std::string> percentDecode(std::string_view text);

// Lower-cases ASCII letters only; other bytes (UTF-8 sequences) are kept.
std::string toLowerAscii(std::string_view text);
bool equalsIgnoreCase(std::string_view a, std::string_view b);

bool isValidUtf8(std::string_view text);

// 8-4-4-4-12 hexadecimal digits.
bool isUuid(std::string_view text);

// A fresh random version 4 UUID in lower-case text form.
std::string randomUuid();
// `bytes` random bytes, as base64url text.
std::string randomToken(std::size_t bytes);

}  // namespace text
}  // namespace qxpemu
