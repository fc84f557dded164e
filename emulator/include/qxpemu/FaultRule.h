// A rule that makes the emulator misbehave on purpose for matching requests.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qxpemu {

// Applies to platform requests (never to the control interface). Rules are tried in the
// order they were added; the first rule that matches and has uses left applies, and one use
// is consumed. What it does, in this order: wait `delayMs`; then close the connection
// without answering when `drop` is set; otherwise answer `status` (with `reason`, `body`,
// `contentType` and the fields of `headers`, a redirect's "Location" say) when `status` is
// not 0; otherwise handle the request normally (a pure delay).
//
// With `trickleChunkBytes` above 0 the answer, canned or normal (a long poll's too), is sent
// with "Transfer-Encoding: chunked": the head at once, then one chunk of at most
// `trickleChunkBytes` bytes of the body every `trickleIntervalMs`, then the last chunk right
// after the final data. An answer that has no body (204, 304, 1xx, or HEAD) is sent as
// usual.
struct FaultRule {
    std::string method;       // "" matches any method; otherwise compared exactly ("POST")
    std::string pathPattern;  // ECMAScript regex that must match the whole path (no query)
    int status = 0;           // 0: no canned answer; else 200..999
    std::string reason;       // reason phrase; "" = the standard phrase of `status`
    std::string body;
    std::string contentType = "text/plain";
    int delayMs = 0;
    bool drop = false;          // close the connection without answering
    int times = 1;              // matches left; -1 = every match
    int trickleChunkBytes = 0;  // 0: the body in one piece; else the size of each chunk
    int trickleIntervalMs = 0;  // pause before each chunk of a trickled body
    // Further header fields of a canned answer, in this order.
    std::vector<std::pair<std::string, std::string>> headers;
};

}  // namespace qxpemu
