#include "RawConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <strings.h>
#include <cerrno>

namespace EmulatorTest {

int RawConnection::Response::status() const {
    const auto space = head.find(' ');
    if (space == std::string::npos || head.size() < space + 4) {
        return 0;
    }
    return std::stoi(head.substr(space + 1, 3));
}

std::string RawConnection::Response::header(const std::string& name) const {
    std::size_t start = head.find("\r\n");
    while (start != std::string::npos) {
        start += 2;
        const auto end = head.find("\r\n", start);
        if (end == std::string::npos || end == start) {
            break;
        }
        const std::string line = head.substr(start, end - start);
        const auto colon = line.find(':');
        if (colon == name.size() && ::strncasecmp(line.c_str(), name.c_str(), colon) == 0) {
            const auto value = line.find_first_not_of(" \t", colon + 1);
            return value == std::string::npos ? "" : line.substr(value);
        }
        start = end;
    }
    return "";
}

RawConnection::RawConnection(unsigned short port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    fd_ = fd;
}

RawConnection::~RawConnection() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool RawConnection::send(const std::string& bytes) {
    std::size_t done = 0;
    while (fd_ >= 0 && done < bytes.size()) {
        const ssize_t sent = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        done += std::size_t(sent);
    }
    return fd_ >= 0;
}

bool RawConnection::fill(Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left < 0) {
            return false;
        }
        pollfd ready{fd_, POLLIN, 0};
        const int polled = ::poll(&ready, 1, int(left));
        if (polled < 0 && errno == EINTR) {
            continue;
        }
        if (polled <= 0) {
            return false;
        }
        char data[4096];
        const ssize_t received = ::recv(fd_, data, sizeof data, 0);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received <= 0) {
            return false;
        }
        buffer_.append(data, std::size_t(received));
        return true;
    }
}

bool RawConnection::readLine(std::string& line, Clock::time_point deadline) {
    for (;;) {
        const auto end = buffer_.find("\r\n");
        if (end != std::string::npos) {
            line = buffer_.substr(0, end);
            buffer_.erase(0, end + 2);
            return true;
        }
        if (!fill(deadline)) {
            return false;
        }
    }
}

bool RawConnection::readBytes(std::size_t count, std::string& out, Clock::time_point deadline) {
    while (buffer_.size() < count) {
        if (!fill(deadline)) {
            return false;
        }
    }
    out.append(buffer_, 0, count);
    buffer_.erase(0, count);
    return true;
}

RawConnection::Response RawConnection::readResponse(std::chrono::milliseconds timeout) {
    Response response;
    if (fd_ < 0) {
        return response;
    }
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto end = buffer_.find("\r\n\r\n");
        if (end != std::string::npos) {
            response.head = buffer_.substr(0, end + 4);
            buffer_.erase(0, end + 4);
            response.headArrived = Clock::now();
            break;
        }
        if (!fill(deadline)) {
            return response;
        }
    }
    const std::string coding = response.header("Transfer-Encoding");
    if (::strcasecmp(coding.c_str(), "chunked") == 0) {
        for (;;) {
            std::string sizeLine;
            if (!readLine(sizeLine, deadline)) {
                return response;
            }
            const std::size_t size = std::stoul(sizeLine, nullptr, 16);
            if (size == 0) {
                std::string trailer;
                while (readLine(trailer, deadline) && !trailer.empty()) {
                }
                response.complete = trailer.empty();
                return response;
            }
            std::string crlf;
            if (!readBytes(size, response.body, deadline) || !readBytes(2, crlf, deadline)) {
                return response;
            }
            response.chunks.emplace_back(size, Clock::now());
        }
    }
    const std::string length = response.header("Content-Length");
    if (!length.empty()) {
        response.complete = readBytes(std::stoul(length), response.body, deadline);
        return response;
    }
    response.complete = true;
    return response;
}

bool RawConnection::waitForClose(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left < 0 || !buffer_.empty()) {
            return false;
        }
        pollfd ready{fd_, POLLIN, 0};
        const int polled = ::poll(&ready, 1, int(left));
        if (polled < 0 && errno == EINTR) {
            continue;
        }
        if (polled <= 0) {
            return false;
        }
        char data[4096];
        const ssize_t received = ::recv(fd_, data, sizeof data, 0);
        if (received == 0 || (received < 0 && errno != EINTR)) {
            return true;
        }
        if (received > 0) {
            return false;
        }
    }
}

}  // namespace EmulatorTest
