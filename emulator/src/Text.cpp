#include "Text.h"

#include <openssl/rand.h>

#include <array>
#include <cstdint>
#include <stdexcept>

namespace qxpemu {
namespace text {
namespace {

constexpr char kStandardAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUrlAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string encodeWith(std::string_view bytes, const char* alphabet, bool pad) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const std::uint32_t n = (std::uint32_t(std::uint8_t(bytes[i])) << 16) |
                                (std::uint32_t(std::uint8_t(bytes[i + 1])) << 8) |
                                std::uint32_t(std::uint8_t(bytes[i + 2]));
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        out += alphabet[(n >> 6) & 63];
        out += alphabet[n & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t n = std::uint32_t(std::uint8_t(bytes[i])) << 16;
        if (rest == 2) {
            n |= std::uint32_t(std::uint8_t(bytes[i + 1])) << 8;
        }
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        if (rest == 2) {
            out += alphabet[(n >> 6) & 63];
        } else if (pad) {
            out += '=';
        }
        if (pad) {
            out += '=';
        }
    }
    return out;
}

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+' || c == '-')
        return 62;
    if (c == '/' || c == '_')
        return 63;
    return -1;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (count > 0 && RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), int(count)) != 1) {
        throw std::runtime_error("the random generator failed");
    }
    return bytes;
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
    return encodeWith(bytes, kStandardAlphabet, true);
}

std::string base64UrlEncode(std::string_view bytes) {
    return encodeWith(bytes, kUrlAlphabet, false);
}

std::optional<std::string> base64Decode(std::string_view textIn) {
    while (!textIn.empty() && textIn.back() == '=') {
        textIn.remove_suffix(1);
    }
    if (textIn.size() % 4 == 1) {
        return std::nullopt;
    }
    std::string out;
    out.reserve(textIn.size() * 3 / 4);
    std::uint32_t accumulator = 0;
    int bits = 0;
    for (char c : textIn) {
        const int value = base64Value(c);
        if (value < 0) {
            return std::nullopt;
        }
        accumulator = (accumulator << 6) | std::uint32_t(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += char((accumulator >> bits) & 0xFF);
        }
    }
    return out;
}

std::optional<std::string> percentDecode(std::string_view textIn) {
    std::string out;
    out.reserve(textIn.size());
    for (std::size_t i = 0; i < textIn.size(); ++i) {
        if (textIn[i] != '%') {
            out += textIn[i];
            continue;
        }
        if (i + 2 >= textIn.size()) {
            return std::nullopt;
        }
        const int high = hexValue(textIn[i + 1]);
        const int low = hexValue(textIn[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        out += char(high * 16 + low);
        i += 2;
    }
    return out;
}

std::string toLowerAscii(std::string_view textIn) {
    std::string out(textIn);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = char(c - 'A' + 'a');
        }
    }
    return out;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && toLowerAscii(a) == toLowerAscii(b);
}

bool isValidUtf8(std::string_view textIn) {
    std::size_t i = 0;
    const std::size_t n = textIn.size();
    while (i < n) {
        const auto c = std::uint8_t(textIn[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        std::uint32_t codePoint = 0;
        if ((c & 0xE0) == 0xC0) {
            length = 2;
            codePoint = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3;
            codePoint = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4;
            codePoint = c & 0x07;
        } else {
            return false;
        }
        if (i + length > n) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = std::uint8_t(textIn[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if ((length == 2 && codePoint < 0x80) || (length == 3 && codePoint < 0x800) ||
            (length == 4 && codePoint < 0x10000) || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

bool isUuid(std::string_view textIn) {
    if (textIn.size() != 36) {
        return false;
    }
    for (std::size_t i = 0; i < textIn.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? textIn[i] != '-' : hexValue(textIn[i]) < 0) {
            return false;
        }
    }
    return true;
}

std::string randomUuid() {
    std::string bytes = randomBytes(16);
    bytes[6] = char((std::uint8_t(bytes[6]) & 0x0F) | 0x40);
    bytes[8] = char((std::uint8_t(bytes[8]) & 0x3F) | 0x80);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            out += '-';
        }
        out += kHex[std::uint8_t(bytes[i]) >> 4];
        out += kHex[std::uint8_t(bytes[i]) & 15];
    }
    return out;
}

std::string randomToken(std::size_t bytes) {
    return base64UrlEncode(randomBytes(bytes));
}

}  // namespace text
}  // namespace qxpemu
