// A TCP connection to a loopback port driven byte by byte, for tests that look at what the
// emulator does on the wire: when each chunk of an answer arrives, whether it closes the
// connection, and when.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace EmulatorTest {

class RawConnection {
  public:
    using Clock = std::chrono::steady_clock;

    // One answer as it arrived.
    struct Response {
        std::string head;  // status line and header fields through the empty line; "" when none
        std::string body;  // decoded (chunked coding removed)
        Clock::time_point headArrived{};
        // For a chunked body: each data chunk's size and when it was complete, in order.
        std::vector<std::pair<std::size_t, Clock::time_point>> chunks;
        bool complete = false;  // the whole body arrived

        int status() const;
        // Value of the first field named `name` (any case); "" when none.
        std::string header(const std::string& name) const;
    };

    // Connects to 127.0.0.1:port; connected() tells whether that worked.
    explicit RawConnection(unsigned short port);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool connected() const { return fd_ >= 0; }
    bool send(const std::string& bytes);
    // Reads one answer whose body is delimited by Content-Length, chunked coding or neither
    // (no body), giving up after `timeout`.
    Response readResponse(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Waits until the peer closes the connection (end of stream or reset); false when it is
    // still open after `timeout` or sent more bytes.
    bool waitForClose(std::chrono::milliseconds timeout);

  private:
    // Appends what arrives before `deadline` to the buffer; false at the end of the stream,
    // on an error or at the deadline.
    bool fill(Clock::time_point deadline);
    bool readLine(std::string& line, Clock::time_point deadline);
    bool readBytes(std::size_t count, std::string& out, Clock::time_point deadline);

    int fd_ = -1;
    std::string buffer_;
};

}  // namespace EmulatorTest
