#include <ZuCore/StringConversion.h>

#include <cstdint>
#include <type_traits>

namespace Varkel {
namespace Zu {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        cp = kReplacement;
    }
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

std::wstring widen(const std::string& utf8) {
    static_assert(sizeof(wchar_t) >= 4 || sizeof(wchar_t) == 2, "unexpected wchar_t");
    std::wstring out;
    out.reserve(utf8.size());
    const std::size_t size = utf8.size();
    std::size_t i = 0;
    while (i < size) {
        const unsigned char lead = static_cast<unsigned char>(utf8[i]);
        if (lead < 0x80) {
            out.push_back(static_cast<wchar_t>(lead));
            ++i;
            continue;
        }
        std::size_t length = 0;
        char32_t cp = 0;
        char32_t minimum = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            cp = lead & 0x1F;
            minimum = 0x80;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            cp = lead & 0x0F;
            minimum = 0x800;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            cp = lead & 0x07;
            minimum = 0x10000;
        } else {
            out.push_back(static_cast<wchar_t>(kReplacement));
            ++i;
            continue;
        }
        // Consume continuation bytes as long as they are valid; a broken sequence becomes
        // one replacement character and decoding resumes at the offending byte.
        std::size_t consumed = 1;
        bool valid = true;
        while (consumed < length) {
            if (i + consumed >= size ||
                !isContinuation(static_cast<unsigned char>(utf8[i + consumed]))) {
                valid = false;
                break;
            }
            cp = (cp << 6) | (static_cast<unsigned char>(utf8[i + consumed]) & 0x3F);
            ++consumed;
        }
        if (valid && (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) {
            valid = false;
        }
        if (!valid) {
            out.push_back(static_cast<wchar_t>(kReplacement));
        } else if (sizeof(wchar_t) == 2 && cp >= 0x10000) {
            const char32_t v = cp - 0x10000;
            out.push_back(static_cast<wchar_t>(0xD800 + (v >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + (v & 0x3FF)));
        } else {
            out.push_back(static_cast<wchar_t>(cp));
        }
        i += consumed;
    }
    return out;
}

std::string narrow(const std::wstring& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t cp = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(text[i]));
        if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size()) {
            const char32_t low =
                static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(text[i + 1]));
            if (low >= 0xDC00 && low <= 0xDFFF) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        appendUtf8(out, cp);
    }
    return out;
}

}  // namespace Zu
}  // namespace Varkel
