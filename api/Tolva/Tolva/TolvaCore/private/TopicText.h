// How a topic is written before it reaches the platform: lower-cased character by character
// with the wide ctype of the current global locale.
#pragma once

#include <locale>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

inline std::wstring lowerCaseTopic(const std::wstring& topic) {
    const std::locale globalLocale;
    std::wstring lowered;
    lowered.reserve(topic.size());
    for (const wchar_t c : topic) {
        lowered.push_back(std::tolower(c, globalLocale));
    }
    return lowered;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
