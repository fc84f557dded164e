#include <ZuCore/Base64.h>

#include <array>
#include <vector>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

namespace Varkel {
namespace Zu {

namespace {

const char kStandardAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kUrlAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr signed char kInvalid = -1;
constexpr signed char kSkip = -2;

// The lenient table takes both alphabets ("+" and "-" are 62, "/" and "_" are 63) and skips
// white space; the URL-safe table takes only "-" and "_" and refuses white space, as a JWT
// verifier must.
std::array<signed char, 256> makeDecodeTable(bool urlSafeOnly) {
    std::array<signed char, 256> table{};
    table.fill(kInvalid);
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kUrlAlphabet[i])] = static_cast<signed char>(i);
        if (!urlSafeOnly) {
            table[static_cast<unsigned char>(kStandardAlphabet[i])] = static_cast<signed char>(i);
        }
    }
    if (!urlSafeOnly) {
        for (unsigned char space : {' ', '\t', '\r', '\n', '\f', '\v'}) {
            table[space] = kSkip;
        }
    }
    return table;
}

std::string encodeWith(const char* alphabet, bool pad, const unsigned char* data,
                       std::size_t size) {
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const unsigned group =
            (unsigned(data[i]) << 16) | (unsigned(data[i + 1]) << 8) | data[i + 2];
        out.push_back(alphabet[(group >> 18) & 0x3F]);
        out.push_back(alphabet[(group >> 12) & 0x3F]);
        out.push_back(alphabet[(group >> 6) & 0x3F]);
        out.push_back(alphabet[group & 0x3F]);
    }
    const std::size_t rest = size - i;
    if (rest > 0) {
        unsigned group = unsigned(data[i]) << 16;
        if (rest == 2) {
            group |= unsigned(data[i + 1]) << 8;
        }
        out.push_back(alphabet[(group >> 18) & 0x3F]);
        out.push_back(alphabet[(group >> 12) & 0x3F]);
        if (rest == 2) {
            out.push_back(alphabet[(group >> 6) & 0x3F]);
        }
        if (pad) {
            out.append(rest == 1 ? "==" : "=");
        }
    }
    return out;
}

std::shared_ptr<MemoryBuffer> decodeWith(const std::array<signed char, 256>& table,
                                         const std::string& text) {
    std::vector<unsigned char> bytes;
    bytes.reserve(text.size() / 4 * 3 + 3);
    unsigned group = 0;
    std::size_t symbols = 0;  // Alphabet characters seen.
    std::size_t padding = 0;  // "=" seen; only white space and more "=" may follow one.
    for (const char c : text) {
        if (c == '=') {
            ++padding;
            continue;
        }
        const signed char value = table[static_cast<unsigned char>(c)];
        if (value == kSkip) {
            continue;
        }
        if (value == kInvalid) {
            ZU_THROW(InvalidArgumentException, L"Invalid Base64 text: unexpected character '" +
                                                   widen(std::string(1, c)) + L"'");
        }
        if (padding > 0) {
            ZU_THROW(InvalidArgumentException, L"Invalid Base64 text: '=' before the end");
        }
        group = (group << 6) | static_cast<unsigned>(value);
        ++symbols;
        if (symbols % 4 == 0) {
            bytes.push_back(static_cast<unsigned char>(group >> 16));
            bytes.push_back(static_cast<unsigned char>(group >> 8));
            bytes.push_back(static_cast<unsigned char>(group));
            group = 0;
        }
    }
    const std::size_t tail = symbols % 4;
    if (tail == 1) {
        ZU_THROW(InvalidArgumentException, L"Invalid Base64 text: truncated group");
    }
    // Padding is optional, but when present it has to complete the last group exactly.
    if (padding > 0 && (tail == 0 || tail + padding != 4)) {
        ZU_THROW(InvalidArgumentException, L"Invalid Base64 text: wrong padding");
    }
    if (tail == 2) {
        bytes.push_back(static_cast<unsigned char>(group >> 4));
    } else if (tail == 3) {
        bytes.push_back(static_cast<unsigned char>(group >> 10));
        bytes.push_back(static_cast<unsigned char>(group >> 2));
    }
    return std::make_shared<MemoryBuffer>(std::move(bytes));
}

}  // namespace

std::shared_ptr<MemoryBuffer> Base64::decode(const std::string& text) {
    static const std::array<signed char, 256> lenientTable = makeDecodeTable(false);
    return decodeWith(lenientTable, text);
}

std::shared_ptr<MemoryBuffer> Base64::decode_url(const std::string& text) {
    static const std::array<signed char, 256> urlSafeTable = makeDecodeTable(true);
    return decodeWith(urlSafeTable, text);
}

std::string Base64::encode(const unsigned char* data, std::size_t size) {
    return encodeWith(kStandardAlphabet, true, data, size);
}

std::string Base64::encode(const std::string& bytes) {
    return encode(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string Base64::encode(const MemoryBuffer& buffer) {
    return encode(buffer.getData(), buffer.getSize());
}

std::string Base64::encode_url(const unsigned char* data, std::size_t size) {
    return encodeWith(kUrlAlphabet, false, data, size);
}

std::string Base64::encode_url(const std::string& bytes) {
    return encode_url(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string Base64::encode_url(const MemoryBuffer& buffer) {
    return encode_url(buffer.getData(), buffer.getSize());
}

}  // namespace Zu
}  // namespace Varkel
