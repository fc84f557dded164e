// How the library reads a JSON number as a whole number: integers as they are, floating-point
// values truncated toward zero; a floating-point value outside the signed 64-bit range is
// refused with web::json::json_exception (converting it would be undefined).
#pragma once

#include <cmath>
#include <cstdint>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {

inline std::int64_t truncatedInt64(const web::json::value& number) {
    const web::json::number& n = number.as_number();
    if (n.is_integral()) {
        return n.to_int64();
    }
    const double truncated = std::trunc(n.to_double());
    if (!(truncated >= -9223372036854775808.0 && truncated < 9223372036854775808.0)) {
        throw web::json::json_exception("Number out of range");
    }
    return static_cast<std::int64_t>(truncated);
}

}  // namespace Tolva
}  // namespace Varkel
