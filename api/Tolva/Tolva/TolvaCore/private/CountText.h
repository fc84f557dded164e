// Reading a count (a number of threads, say) from the text of an environment variable.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace Varkel {
namespace Tolva {

// The whole number `text` spells, when it is one from 1 to `most` written in decimal digits
// only; otherwise nothing.
inline std::optional<std::size_t> countFromText(const std::wstring& text, std::size_t most) {
    if (text.empty() || text.size() > std::to_string(most).size()) {
        return std::nullopt;
    }
    std::size_t value = 0;
    for (const wchar_t c : text) {
        if (c < L'0' || c > L'9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<std::size_t>(c - L'0');
    }
    if (value == 0 || value > most) {
        return std::nullopt;
    }
    return value;
}

}  // namespace Tolva
}  // namespace Varkel
