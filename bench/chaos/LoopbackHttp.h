// LoopbackHttp: one blocking HTTP/1.1 exchange with a server on 127.0.0.1, on a connection of
// its own ("Connection: close"). The chaos bench talks to the emulator's control interface and
// lists services through it, outside the library under test and outside the HTTP library's
// thread pool, so that what it measures (threads, descriptors, the pool's work) stays the
// library's.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace ChaosBench {

struct HttpAnswer {
    int status = 0;     // 0: no answer (refused, reset, timed out)
    std::string error;  // why there was no answer
    std::string body;
};

namespace detail {

inline std::string dechunk(const std::string& chunked) {
    std::string body;
    std::size_t at = 0;
    while (at < chunked.size()) {
        const std::size_t lineEnd = chunked.find("\r\n", at);
        if (lineEnd == std::string::npos) {
            break;
        }
        const std::size_t size = std::strtoul(chunked.c_str() + at, nullptr, 16);
        if (size == 0) {
            break;
        }
        body.append(chunked, lineEnd + 2, size);
        at = lineEnd + 2 + size + 2;
    }
    return body;
}

}  // namespace detail

// Sends `method target` with `body` (as JSON when not empty) and the extra header lines, and
// reads the answer until the server closes the connection or `timeoutMs` passes on a read.
inline HttpAnswer httpCall(unsigned short port, const std::string& method,
                           const std::string& target, const std::string& body = "",
                           const std::vector<std::pair<std::string, std::string>>& headers = {},
                           int timeoutMs = 10000) {
    HttpAnswer answer;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        answer.error = std::strerror(errno);
        return answer;
    }
    timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        answer.error = std::string("connect: ") + std::strerror(errno);
        ::close(fd);
        return answer;
    }
    std::string request = method + " " + target +
                          " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
                          "User-Agent: chaos-bench\r\n";
    for (const auto& header : headers) {
        request += header.first + ": " + header.second + "\r\n";
    }
    if (!body.empty() || method == "POST" || method == "PUT") {
        request +=
            "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\n";
    }
    request += "\r\n" + body;
    for (std::size_t sent = 0; sent < request.size();) {
        const ssize_t wrote =
            ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (wrote <= 0) {
            answer.error = std::string("send: ") + std::strerror(errno);
            ::close(fd);
            return answer;
        }
        sent += std::size_t(wrote);
    }
    std::string reply;
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got > 0) {
            reply.append(buffer, std::size_t(got));
            continue;
        }
        if (got < 0) {
            answer.error = std::string("recv: ") + std::strerror(errno);
        }
        break;
    }
    ::close(fd);
    const std::size_t headerEnd = reply.find("\r\n\r\n");
    if (reply.rfind("HTTP/1.", 0) != 0 || headerEnd == std::string::npos) {
        if (answer.error.empty()) {
            answer.error = "no answer";
        }
        return answer;
    }
    answer.status = std::atoi(reply.c_str() + reply.find(' ') + 1);
    answer.error.clear();
    std::string head = reply.substr(0, headerEnd);
    for (char& c : head) {
        c = char(std::tolower(static_cast<unsigned char>(c)));
    }
    answer.body = reply.substr(headerEnd + 4);
    if (head.find("transfer-encoding: chunked") != std::string::npos) {
        answer.body = detail::dechunk(answer.body);
    }
    return answer;
}

}  // namespace ChaosBench
