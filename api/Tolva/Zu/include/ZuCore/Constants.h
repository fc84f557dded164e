/// @file
/// ZuCore constants.
#pragma once

#include <cstdint>

/// A time-out value meaning "wait without time limit".
inline constexpr std::uint32_t ZU_TIMEOUT_INFINITE = 0xFFFFFFFFu;
/// The largest unsigned 32-bit value; used as an unbounded capacity.
inline constexpr std::uint32_t ZU_MAXUINT32 = 0xFFFFFFFFu;

namespace Varkel {
namespace Zu {
/// Also reachable as Varkel::Zu::ZU_TIMEOUT_INFINITE and Varkel::Zu::ZU_MAXUINT32.
using ::ZU_MAXUINT32;
using ::ZU_TIMEOUT_INFINITE;
}  // namespace Zu
}  // namespace Varkel
