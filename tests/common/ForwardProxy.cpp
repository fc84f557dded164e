#include "ForwardProxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>

namespace TolvaTest {

namespace {

constexpr std::size_t kMaxHeadBytes = 64 * 1024;
constexpr std::size_t kReadChunk = 16 * 1024;
constexpr int kConnectTimeoutMs = 10000;

std::string errorText(int code) {
    char buffer[256];
    // The GNU strerror_r, which returns the text (not always in `buffer`).
    return ::strerror_r(code, buffer, sizeof buffer);
}

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

void setNoDelay(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// Waits until `fd` is ready for `events` or the proxy stops: 1 when ready, 0 when `timeoutMs`
// passed, -1 when the proxy stops or poll fails.
int waitFor(int fd, short events, int stopFd, int timeoutMs = -1) {
    pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(fds, 2, timeoutMs);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (ready == 0) {
            return 0;
        }
        return fds[1].revents != 0 ? -1 : 1;
    }
}

// Sends all of `data`; false when the peer is gone or the proxy stops.
bool sendAll(int fd, int stopFd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            data += sent;
            size -= static_cast<std::size_t>(sent);
        } else if (sent < 0 && errno == EINTR) {
            continue;
        } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (waitFor(fd, POLLOUT, stopFd) != 1) {
                return false;
            }
        } else {
            return false;
        }
    }
    return true;
}

bool sendAll(int fd, int stopFd, const std::string& data) {
    return sendAll(fd, stopFd, data.data(), data.size());
}

// Where the bytes of a body go; false stops the transfer.
using Sink = std::function<bool(const char*, std::size_t)>;

// Buffered reading from one socket; every wait also ends when the proxy stops.
class Reader {
  public:
    enum class Status {
        Ok,
        Closed,  // the peer closed (or failed) before sending a byte of the head
        Failed,
    };

    Reader(int fd, int stopFd) : fd_(fd), stopFd_(stopFd) {}

    // Reads a start line and header fields through the empty line that ends them; empty lines
    // before the start line are skipped.
    Status readHead(std::string& head) {
        for (;;) {
            while (buffer_.compare(0, 2, "\r\n") == 0) {
                buffer_.erase(0, 2);
            }
            const auto end = buffer_.find("\r\n\r\n");
            if (end != std::string::npos) {
                head = buffer_.substr(0, end + 4);
                buffer_.erase(0, end + 4);
                return Status::Ok;
            }
            if (buffer_.size() > kMaxHeadBytes) {
                return Status::Failed;
            }
            const bool nothingYet = buffer_.empty();
            if (!fill()) {
                return nothingYet ? Status::Closed : Status::Failed;
            }
        }
    }

    // Reads one line including its CRLF.
    bool readLine(std::string& line) {
        for (;;) {
            const auto end = buffer_.find("\r\n");
            if (end != std::string::npos) {
                line = buffer_.substr(0, end + 2);
                buffer_.erase(0, end + 2);
                return true;
            }
            if (buffer_.size() > kMaxHeadBytes || !fill()) {
                return false;
            }
        }
    }

    // Passes exactly `size` bytes to `sink`.
    bool transfer(std::uint64_t size, const Sink& sink) {
        while (size > 0) {
            if (buffer_.empty() && !fill()) {
                return false;
            }
            const auto count =
                static_cast<std::size_t>(std::min<std::uint64_t>(size, buffer_.size()));
            if (!sink(buffer_.data(), count)) {
                return false;
            }
            buffer_.erase(0, count);
            size -= count;
        }
        return true;
    }

    // Passes everything to `sink` until the peer closes; false when the transfer fails
    // otherwise.
    bool transferUntilClose(const Sink& sink) {
        for (;;) {
            if (!buffer_.empty()) {
                if (!sink(buffer_.data(), buffer_.size())) {
                    return false;
                }
                buffer_.clear();
            }
            if (!fill()) {
                return endOfStream_;
            }
        }
    }

    bool hasBuffered() const { return !buffer_.empty(); }

    std::string takeBuffered() {
        std::string taken;
        taken.swap(buffer_);
        return taken;
    }

  private:
    bool fill() {
        char data[kReadChunk];
        for (;;) {
            const ssize_t received = ::recv(fd_, data, sizeof data, MSG_DONTWAIT);
            if (received > 0) {
                buffer_.append(data, static_cast<std::size_t>(received));
                return true;
            }
            if (received == 0) {
                endOfStream_ = true;
                return false;
            }
            if (errno == EINTR) {
                continue;
            }
            if ((errno != EAGAIN && errno != EWOULDBLOCK) || waitFor(fd_, POLLIN, stopFd_) != 1) {
                return false;
            }
        }
    }

    int fd_;
    int stopFd_;
    std::string buffer_;
    bool endOfStream_ = false;
};

// Passes a chunked body (chunk lines, data, last chunk and trailer) to `sink` as received.
bool transferChunked(Reader& reader, const Sink& sink) {
    for (;;) {
        std::string line;
        if (!reader.readLine(line) || !sink(line.data(), line.size())) {
            return false;
        }
        std::uint64_t size = 0;
        std::size_t digits = 0;
        for (; digits < line.size() && std::isxdigit(static_cast<unsigned char>(line[digits]));
             ++digits) {
            if (size > (UINT64_MAX >> 8)) {
                return false;
            }
            const char c =
                static_cast<char>(std::tolower(static_cast<unsigned char>(line[digits])));
            size = size * 16 + static_cast<std::uint64_t>(c <= '9' ? c - '0' : c - 'a' + 10);
        }
        if (digits == 0) {
            return false;
        }
        if (size == 0) {
            break;
        }
        // The data and the CRLF after it.
        if (!reader.transfer(size + 2, sink)) {
            return false;
        }
    }
    for (;;) {
        std::string line;
        if (!reader.readLine(line) || !sink(line.data(), line.size())) {
            return false;
        }
        if (line == "\r\n") {
            return true;
        }
    }
}

// A start line and its header fields.
struct Head {
    struct Field {
        std::string line;  // as received, without its CRLF
        std::string name;
        std::string value;  // without the blanks around it
    };

    std::string startLine;
    std::vector<Field> fields;

    // Value of the first field named `name`; nullopt when there is none.
    std::optional<std::string> value(const std::string& name) const {
        for (const auto& field : fields) {
            if (equalsIgnoringCase(field.name, name)) {
                return field.value;
            }
        }
        return std::nullopt;
    }

    // Whether a field named `name` lists `token` (comma-separated, any case).
    bool hasToken(const std::string& name, const std::string& token) const {
        for (const auto& field : fields) {
            if (!equalsIgnoringCase(field.name, name)) {
                continue;
            }
            std::size_t start = 0;
            for (;;) {
                const auto comma = field.value.find(',', start);
                if (equalsIgnoringCase(trimmed(field.value.substr(start, comma - start)), token)) {
                    return true;
                }
                if (comma == std::string::npos) {
                    break;
                }
                start = comma + 1;
            }
        }
        return false;
    }
};

bool parseHead(const std::string& text, Head& head) {
    std::size_t start = 0;
    bool first = true;
    for (;;) {
        const auto end = text.find("\r\n", start);
        if (end == std::string::npos || end == start) {
            return !first;
        }
        std::string line = text.substr(start, end - start);
        start = end + 2;
        if (first) {
            head.startLine = std::move(line);
            first = false;
            continue;
        }
        const auto colon = line.find(':');
        if (colon == std::string::npos || colon == 0 || line.find_first_of(" \t") < colon) {
            return false;
        }
        Head::Field field;
        field.name = line.substr(0, colon);
        field.value = trimmed(line.substr(colon + 1));
        field.line = std::move(line);
        head.fields.push_back(std::move(field));
    }
}

struct RequestStart {
    std::string method;
    std::string target;
    std::string version;  // "HTTP/1.1"
};

bool parseRequestLine(const std::string& line, RequestStart& start) {
    const auto firstSpace = line.find(' ');
    const auto secondSpace = line.find(' ', firstSpace + 1);
    if (firstSpace == 0 || firstSpace == std::string::npos || secondSpace == std::string::npos ||
        secondSpace == firstSpace + 1) {
        return false;
    }
    start.method = line.substr(0, firstSpace);
    start.target = line.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    start.version = line.substr(secondSpace + 1);
    return start.version.size() > 5 && start.version.compare(0, 5, "HTTP/") == 0 &&
           start.target.find(' ') == std::string::npos;
}

// "HTTP/1.1 200 OK": the version and the status.
bool parseStatusLine(const std::string& line, std::string& version, int& status) {
    const auto space = line.find(' ');
    if (space == std::string::npos || line.compare(0, 5, "HTTP/") != 0 || line.size() < space + 4) {
        return false;
    }
    version = line.substr(0, space);
    status = 0;
    for (std::size_t i = space + 1; i < space + 4; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(line[i]))) {
            return false;
        }
        status = status * 10 + (line[i] - '0');
    }
    return line.size() == space + 4 || line[space + 4] == ' ';
}

// Whether the sender of `head` ends the connection after this message.
bool closesAfter(const Head& head, const std::string& version) {
    if (head.hasToken("Connection", "close") || head.hasToken("Proxy-Connection", "close")) {
        return true;
    }
    return version == "HTTP/1.0" && !head.hasToken("Connection", "keep-alive") &&
           !head.hasToken("Proxy-Connection", "keep-alive");
}

struct Endpoint {
    std::string host;
    unsigned short port = 0;
};

// "host", "host:port", "[v6]:port"; `defaultPort` 0 makes the port required.
bool parseAuthority(const std::string& authority, unsigned short defaultPort, Endpoint& endpoint) {
    std::string portText;
    if (!authority.empty() && authority[0] == '[') {
        const auto bracket = authority.find(']');
        if (bracket == std::string::npos) {
            return false;
        }
        endpoint.host = authority.substr(1, bracket - 1);
        const std::string rest = authority.substr(bracket + 1);
        if (!rest.empty()) {
            if (rest[0] != ':') {
                return false;
            }
            portText = rest.substr(1);
        }
    } else {
        const auto colon = authority.rfind(':');
        endpoint.host = authority.substr(0, colon);
        if (colon != std::string::npos) {
            portText = authority.substr(colon + 1);
        }
    }
    if (endpoint.host.empty()) {
        return false;
    }
    if (portText.empty()) {
        endpoint.port = defaultPort;
        return defaultPort != 0;
    }
    if (portText.size() > 5 || !std::all_of(portText.begin(), portText.end(), [](char c) {
            return std::isdigit(static_cast<unsigned char>(c)) != 0;
        })) {
        return false;
    }
    const unsigned long port = std::stoul(portText);
    if (port == 0 || port > 65535) {
        return false;
    }
    endpoint.port = static_cast<unsigned short>(port);
    return true;
}

// "http://host[:port][/path][?query]": the origin and the target in origin form.
bool parseAbsoluteTarget(const std::string& target, Endpoint& endpoint, std::string& originForm) {
    const std::string scheme = "http://";
    if (target.size() <= scheme.size() ||
        !equalsIgnoringCase(target.substr(0, scheme.size()), scheme)) {
        return false;
    }
    const std::string rest = target.substr(scheme.size());
    const auto pathStart = rest.find_first_of("/?#");
    std::string authority = rest.substr(0, pathStart);
    const auto at = authority.rfind('@');
    if (at != std::string::npos) {
        authority.erase(0, at + 1);
    }
    if (!parseAuthority(authority, 80, endpoint)) {
        return false;
    }
    std::string path = pathStart == std::string::npos ? std::string() : rest.substr(pathStart);
    path = path.substr(0, path.find('#'));
    originForm = path.empty() || path[0] != '/' ? "/" + path : path;
    return true;
}

// Connects to `endpoint` (any of its addresses); the socket, or -1 with `error` set.
int connectTo(const Endpoint& endpoint, int stopFd, std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int resolved =
        ::getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
    if (resolved != 0) {
        error = ::gai_strerror(resolved);
        return -1;
    }
    int connected = -1;
    for (addrinfo* address = found; address != nullptr && connected < 0;
         address = address->ai_next) {
        const int fd =
            ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
        if (fd < 0) {
            error = errorText(errno);
            continue;
        }
        // Connects without blocking, so that a slow origin cannot hold up the proxy's stop.
        const int flags = ::fcntl(fd, F_GETFL);
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
        int code = 0;
        if (::connect(fd, address->ai_addr, address->ai_addrlen) != 0) {
            code = errno;
            if (code == EINPROGRESS) {
                const int ready = waitFor(fd, POLLOUT, stopFd, kConnectTimeoutMs);
                socklen_t length = sizeof code;
                if (ready != 1) {
                    code = ready == 0 ? ETIMEDOUT : ECANCELED;
                } else if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &code, &length) != 0) {
                    code = errno;
                }
            }
        }
        if (code == 0) {
            ::fcntl(fd, F_SETFL, flags);
            setNoDelay(fd);
            connected = fd;
        } else {
            error = errorText(code);
            ::close(fd);
        }
    }
    ::freeaddrinfo(found);
    return connected;
}

// Relays bytes between two sockets until either side closes or the proxy stops.
void relayBothWays(int a, int b, int stopFd) {
    char data[kReadChunk];
    for (;;) {
        pollfd fds[3] = {{a, POLLIN, 0}, {b, POLLIN, 0}, {stopFd, POLLIN, 0}};
        if (::poll(fds, 3, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[2].revents != 0) {
            return;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            const ssize_t received = ::recv(fds[i].fd, data, sizeof data, MSG_DONTWAIT);
            if (received == 0) {
                return;
            }
            if (received < 0) {
                if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) {
                    continue;
                }
                return;
            }
            if (!sendAll(i == 0 ? b : a, stopFd, data, static_cast<std::size_t>(received))) {
                return;
            }
        }
    }
}

// One client connection: its requests one after the other, each passed on to its origin over
// the connection kept for the client, or a tunnel.
class ClientSession {
  public:
    struct Hooks {
        std::string viaName;
        int stopFd = -1;
        std::function<void(const std::string& method, const std::string& target)> requestLine;
        std::function<void()> originConnection;
    };

    ClientSession(int clientFd, Hooks hooks)
        : clientFd_(clientFd), hooks_(std::move(hooks)), client_(clientFd, hooks_.stopFd) {
        setNoDelay(clientFd_);
    }

    ~ClientSession() {
        closeOrigin();
        ::close(clientFd_);
    }

    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    void run() {
        for (;;) {
            std::string text;
            if (client_.readHead(text) != Reader::Status::Ok) {
                return;
            }
            Head request;
            RequestStart start;
            if (!parseHead(text, request) || !parseRequestLine(request.startLine, start)) {
                reply(400, "Bad Request", "malformed request\n", true);
                return;
            }
            hooks_.requestLine(start.method, start.target);
            const bool keepGoing =
                start.method == "CONNECT" ? tunnel(request, start) : forward(request, start);
            if (!keepGoing) {
                return;
            }
        }
    }

  private:
    // Each handler returns whether the client connection goes on with another request.

    bool tunnel(const Head& request, const RequestStart& start) {
        Endpoint endpoint;
        if (!parseAuthority(start.target, 0, endpoint)) {
            reply(400, "Bad Request", "CONNECT needs host:port\n", true);
            return false;
        }
        closeOrigin();
        std::string error;
        const int fd = connectTo(endpoint, hooks_.stopFd, error);
        if (fd < 0) {
            return badGateway(start.target, error, closesAfter(request, start.version));
        }
        hooks_.originConnection();
        if (sendAll(clientFd_, hooks_.stopFd, "HTTP/1.1 200 Connection established\r\n\r\n") &&
            sendAll(fd, hooks_.stopFd, client_.takeBuffered())) {
            relayBothWays(clientFd_, fd, hooks_.stopFd);
        }
        ::close(fd);
        return false;
    }

    bool forward(const Head& request, const RequestStart& start) {
        Endpoint endpoint;
        std::string originForm;
        if (!parseAbsoluteTarget(start.target, endpoint, originForm)) {
            reply(400, "Bad Request", "the proxy takes http:// targets in absolute form\n", true);
            return false;
        }
        const bool clientCloses = closesAfter(request, start.version);

        std::string message = start.method + " " + originForm + " " + start.version + "\r\n";
        for (const auto& field : request.fields) {
            if (!equalsIgnoringCase(field.name, "Proxy-Connection") &&
                !equalsIgnoringCase(field.name, "Proxy-Authorization")) {
                message += field.line + "\r\n";
            }
        }
        message += "Via: " + start.version.substr(5) + " " + hooks_.viaName + "\r\n\r\n";

        // The body is read whole before anything is sent, so that a request can be sent again
        // when a kept origin connection turns out closed.
        const Sink toMessage = [&message](const char* data, std::size_t size) {
            message.append(data, size);
            return true;
        };
        const auto length = request.value("Content-Length");
        if (request.hasToken("Transfer-Encoding", "chunked")) {
            if (!transferChunked(client_, toMessage)) {
                return false;
            }
        } else if (request.value("Transfer-Encoding")) {
            reply(501, "Not Implemented", "unsupported transfer coding\n", true);
            return false;
        } else if (length) {
            std::uint64_t size = 0;
            if (!parseLength(*length, size)) {
                reply(400, "Bad Request", "malformed Content-Length\n", true);
                return false;
            }
            if (!client_.transfer(size, toMessage)) {
                return false;
            }
        }
        return exchange(endpoint, start.target, message, start.method == "HEAD", clientCloses);
    }

    // Sends `message` to the origin and relays its response to the client.
    bool exchange(const Endpoint& endpoint, const std::string& target, const std::string& message,
                  bool headRequest, bool clientCloses) {
        for (int attempt = 0;; ++attempt) {
            const bool reused = originFd_ >= 0 && originEndpoint_.host == endpoint.host &&
                                originEndpoint_.port == endpoint.port && originIdle();
            if (!reused) {
                closeOrigin();
                std::string error;
                const int fd = connectTo(endpoint, hooks_.stopFd, error);
                if (fd < 0) {
                    return badGateway(target, error, clientCloses);
                }
                hooks_.originConnection();
                originFd_ = fd;
                originEndpoint_ = endpoint;
                origin_.emplace(fd, hooks_.stopFd);
            }
            std::string head;
            Reader::Status status = Reader::Status::Closed;
            if (sendAll(originFd_, hooks_.stopFd, message)) {
                status = origin_->readHead(head);
            }
            if (status == Reader::Status::Ok) {
                return relayResponse(head, target, headRequest, clientCloses);
            }
            closeOrigin();
            // A kept connection that the origin closed meanwhile: once more on a new one.
            if (!(reused && attempt == 0 && status == Reader::Status::Closed)) {
                return badGateway(target, "no response from the origin", clientCloses);
            }
        }
    }

    bool relayResponse(std::string text, const std::string& target, bool headRequest,
                       bool clientCloses) {
        for (bool headSent = false;; headSent = true) {
            Head response;
            std::string version;
            int status = 0;
            if (!parseHead(text, response) ||
                !parseStatusLine(response.startLine, version, status)) {
                closeOrigin();
                return !headSent && badGateway(target, "malformed response", clientCloses);
            }
            if (status >= 100 && status < 200 && status != 101) {
                // An interim response; the final one follows.
                if (!sendAll(clientFd_, hooks_.stopFd, text) ||
                    origin_->readHead(text) != Reader::Status::Ok) {
                    closeOrigin();
                    return false;
                }
                continue;
            }
            enum class Body { None, Length, Chunked, UntilClose } body = Body::UntilClose;
            std::uint64_t size = 0;
            const auto length = response.value("Content-Length");
            if (headRequest || status == 101 || status == 204 || status == 304) {
                body = Body::None;
            } else if (response.hasToken("Transfer-Encoding", "chunked")) {
                body = Body::Chunked;
            } else if (!response.value("Transfer-Encoding") && length) {
                if (!parseLength(*length, size)) {
                    closeOrigin();
                    return !headSent && badGateway(target, "malformed response", clientCloses);
                }
                body = Body::Length;
            }
            if (!sendAll(clientFd_, hooks_.stopFd, text)) {
                closeOrigin();
                return false;
            }
            if (status == 101) {
                // Switched protocols: from now on a tunnel.
                if (sendAll(originFd_, hooks_.stopFd, client_.takeBuffered()) &&
                    sendAll(clientFd_, hooks_.stopFd, origin_->takeBuffered())) {
                    relayBothWays(clientFd_, originFd_, hooks_.stopFd);
                }
                closeOrigin();
                return false;
            }
            const Sink toClient = [this](const char* data, std::size_t count) {
                return sendAll(clientFd_, hooks_.stopFd, data, count);
            };
            bool complete = true;
            switch (body) {
                case Body::None:
                    break;
                case Body::Length:
                    complete = origin_->transfer(size, toClient);
                    break;
                case Body::Chunked:
                    complete = transferChunked(*origin_, toClient);
                    break;
                case Body::UntilClose:
                    origin_->transferUntilClose(toClient);
                    closeOrigin();
                    return false;
            }
            if (!complete || closesAfter(response, version)) {
                closeOrigin();
                return false;
            }
            return !clientCloses;
        }
    }

    // Answers 502; returns whether the client connection goes on.
    bool badGateway(const std::string& target, const std::string& error, bool clientCloses) {
        return reply(502, "Bad Gateway", "cannot reach " + target + ": " + error + "\n",
                     clientCloses) &&
               !clientCloses;
    }

    bool reply(int status, const std::string& reason, const std::string& text, bool closing) {
        const std::string response =
            "HTTP/1.1 " + std::to_string(status) + " " + reason +
            "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(text.size()) +
            "\r\n" + (closing ? "Connection: close\r\n" : "") + "\r\n" + text;
        return sendAll(clientFd_, hooks_.stopFd, response);
    }

    static bool parseLength(const std::string& text, std::uint64_t& size) {
        if (text.empty() || text.size() > 18 || !std::all_of(text.begin(), text.end(), [](char c) {
                return std::isdigit(static_cast<unsigned char>(c)) != 0;
            })) {
            return false;
        }
        size = std::stoull(text);
        return true;
    }

    // Whether the kept origin connection is open with nothing unexpected to read.
    bool originIdle() const {
        if (origin_->hasBuffered()) {
            return false;
        }
        pollfd fd = {originFd_, POLLIN, 0};
        return ::poll(&fd, 1, 0) == 0;
    }

    void closeOrigin() {
        origin_.reset();
        if (originFd_ >= 0) {
            ::close(originFd_);
            originFd_ = -1;
        }
    }

    const int clientFd_;
    const Hooks hooks_;
    Reader client_;
    int originFd_ = -1;
    Endpoint originEndpoint_;
    std::optional<Reader> origin_;
};

}  // namespace

ForwardProxy::ForwardProxy(std::string name) : name_(std::move(name)) {
    if (::pipe2(stopPipe_, O_CLOEXEC) != 0) {
        throw std::runtime_error("ForwardProxy: pipe failed: " + errorText(errno));
    }
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (listenFd_ < 0 ||
        ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, SOMAXCONN) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int code = errno;
        closeDescriptors();
        throw std::runtime_error("ForwardProxy: cannot listen on 127.0.0.1: " + errorText(code));
    }
    port_ = ntohs(address.sin_port);
    try {
        acceptor_ = std::thread([this] { acceptLoop(); });
    } catch (...) {
        closeDescriptors();
        throw;
    }
}

ForwardProxy::~ForwardProxy() {
    const char stop = 's';
    while (::write(stopPipe_[1], &stop, 1) < 0 && errno == EINTR) {
    }
    acceptor_.join();
    ::close(listenFd_);
    listenFd_ = -1;
    for (auto& connection : connections_) {
        connection->thread.join();
    }
    connections_.clear();
    closeDescriptors();
}

std::string ForwardProxy::url() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

std::vector<ForwardProxy::RequestLine> ForwardProxy::requestLines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requestLines_;
}

std::size_t ForwardProxy::originConnectionCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return originConnections_;
}

void ForwardProxy::acceptLoop() {
    while (waitFor(listenFd_, POLLIN, stopPipe_[0]) == 1) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Out of resources: wait a little rather than spin on the pending connection.
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            continue;
        }
        reapFinishedConnections();
        try {
            auto connection = std::make_unique<Connection>();
            Connection& started = *connection;
            connections_.push_back(std::move(connection));
            try {
                started.thread = std::thread([this, fd, &started] {
                    serve(fd);
                    started.finished.store(true, std::memory_order_release);
                });
            } catch (...) {
                connections_.pop_back();
                throw;
            }
        } catch (...) {
            ::close(fd);
        }
    }
}

void ForwardProxy::serve(int clientFd) {
    try {
        ClientSession::Hooks hooks;
        hooks.viaName = name_;
        hooks.stopFd = stopPipe_[0];
        hooks.requestLine = [this](const std::string& method, const std::string& target) {
            std::lock_guard<std::mutex> lock(mutex_);
            requestLines_.push_back({method, target});
        };
        hooks.originConnection = [this] {
            std::lock_guard<std::mutex> lock(mutex_);
            ++originConnections_;
        };
        ClientSession session(clientFd, std::move(hooks));
        clientFd = -1;
        session.run();
    } catch (...) {
        // Out of memory: the connection ends.
    }
    if (clientFd >= 0) {
        ::close(clientFd);
    }
}

void ForwardProxy::reapFinishedConnections() {
    for (auto it = connections_.begin(); it != connections_.end();) {
        if ((*it)->finished.load(std::memory_order_acquire)) {
            (*it)->thread.join();
            it = connections_.erase(it);
        } else {
            ++it;
        }
    }
}

void ForwardProxy::closeDescriptors() {
    for (int* fd : {&listenFd_, &stopPipe_[0], &stopPipe_[1]}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
}

}  // namespace TolvaTest
