// The UTC text form of a system-clock instant that the library's JSON documents use,
// "2026-11-24T10:15:30.123Z" (milliseconds, always a "Z").
#pragma once

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

inline std::string isoUtc(std::chrono::system_clock::time_point when) {
    const auto sinceEpoch = when.time_since_epoch();
    const std::time_t seconds =
        std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
    const long millis = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    // Room for any year an int holds, so the text is never cut.
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
    return text;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
