// What the emulator counted about its TCP connections, for tests to assert on.
#pragma once

#include <cstddef>

namespace qxpemu {

// Counted since the emulator was constructed or last reset (`open` is never reset).
struct ConnectionCounts {
    std::size_t accepted = 0;  // TCP connections accepted
    std::size_t open = 0;      // connections open now
    // Closed by the emulator because they waited ConnectionPolicy::idleCloseMs (or the
    // built-in 300 s) for a request.
    std::size_t closedIdle = 0;
    // Closed by the emulator after ConnectionPolicy::maxRequestsPerConnection requests.
    std::size_t closedAfterRequests = 0;
};

}  // namespace qxpemu
