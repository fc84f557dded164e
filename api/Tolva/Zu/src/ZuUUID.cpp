#include <ZuCore/ZuUUID.h>

#include <boost/uuid/random_generator.hpp>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/ThrowException.h>

namespace Varkel {
namespace Zu {

namespace {

constexpr std::size_t kTextLength = 36;

bool isHyphenPosition(std::size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

int hexValue(wchar_t c) {
    if (c >= L'0' && c <= L'9') {
        return c - L'0';
    }
    if (c >= L'a' && c <= L'f') {
        return c - L'a' + 10;
    }
    if (c >= L'A' && c <= L'F') {
        return c - L'A' + 10;
    }
    return -1;
}

// Parses the 8-4-4-4-12 form; false for anything else.
bool parse(const std::wstring& text, boost::uuids::uuid& value) {
    if (text.size() != kTextLength) {
        return false;
    }
    std::size_t byte = 0;
    for (std::size_t i = 0; i < kTextLength;) {
        if (isHyphenPosition(i)) {
            if (text[i] != L'-') {
                return false;
            }
            ++i;
            continue;
        }
        const int high = hexValue(text[i]);
        const int low = hexValue(text[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        value.data[byte++] = static_cast<std::uint8_t>((high << 4) | low);
        i += 2;
    }
    return true;
}

boost::uuids::uuid parseOrThrow(const std::wstring& text) {
    boost::uuids::uuid value{};
    if (!parse(text, value)) {
        ZU_THROW(InvalidArgumentException, L"Invalid UUID text: \"" + text + L"\"");
    }
    return value;
}

}  // namespace

ZuUUID::ZuUUID() noexcept : value_() {}

ZuUUID::ZuUUID(const std::wstring& text) : value_(parseOrThrow(text)) {}

ZuUUID::ZuUUID(PrivateConstructorType, const std::wstring& text) : value_(parseOrThrow(text)) {}

ZuUUID::ZuUUID(const boost::uuids::uuid& value) noexcept : value_(value) {}

ZuUUID::~ZuUUID() = default;

ZuUUID ZuUUID::generateRandom() {
    boost::uuids::random_generator generator;
    return ZuUUID(generator());
}

bool ZuUUID::isValid(const std::wstring& text) noexcept {
    boost::uuids::uuid ignored{};
    return parse(text, ignored);
}

std::string ZuUUID::toString() const {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(kTextLength);
    for (std::size_t byte = 0; byte < 16; ++byte) {
        if (byte == 4 || byte == 6 || byte == 8 || byte == 10) {
            out.push_back('-');
        }
        out.push_back(kHex[value_.data[byte] >> 4]);
        out.push_back(kHex[value_.data[byte] & 0x0F]);
    }
    return out;
}

std::wstring ZuUUID::toWString() const {
    const std::string text = toString();
    return std::wstring(text.begin(), text.end());
}

}  // namespace Zu
}  // namespace Varkel
