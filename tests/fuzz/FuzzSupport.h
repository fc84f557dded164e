// What every fuzz target shares: a quiet logging system (the code under test logs each throw,
// and a log line per input would drown the fuzzer) and a wide text from raw bytes.
#pragma once

#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace TolvaFuzz {

inline void quietLogging() {
    Varkel::Zu::Logger::setGlobalLevel(Varkel::Zu::Logger::getOffLevel());
    Varkel::Zu::Logger::setStderrEnabled(false);
}

inline std::string bytes(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// The input read as UTF-8 (malformed sequences become U+FFFD), as the library widens text.
inline std::wstring wide(const std::uint8_t* data, std::size_t size) {
    return Varkel::Zu::widen(bytes(data, size));
}

}  // namespace TolvaFuzz
