// One HTTP request as the emulator received it, kept for tests to inspect.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace qxpemu {

// A request recorded by the emulator. Requests to the control interface ("/_emulator/...")
// are not recorded; every other request is, in arrival order, before fault rules apply (so
// a request answered by a fault, or dropped, is still in the record).
struct RecordedRequest {
    std::string method;  // "GET", "POST", ...
    std::string target;  // path + query exactly as received
    // Every header field in the order received, names as the client spelled them.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // When the emulator had read the whole request (before any fault rule's delay).
    std::chrono::steady_clock::time_point received{};

    // Value of the first header field whose name equals `name` (ASCII case-insensitive);
    // empty when there is none. Never throws. Any thread.
    std::string header(const std::string& name) const;
};

}  // namespace qxpemu
