// A tiny blocking HTTP/1.1 client for driving the emulator in tests, independent of the
// platform library. One connection per client object, reopened when the server closed it.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace EmulatorTest {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct HttpResponse {
    int status = 0;     // 0 when no answer arrived (connection dropped, time-out)
    std::string error;  // why there was no answer
    std::string reason;
    HeaderList headers;
    std::string body;

    // First header named `name` (case-insensitive), "" when absent.
    std::string header(const std::string& name) const;
};

class HttpTestClient {
  public:
    explicit HttpTestClient(unsigned short port,
                            std::chrono::milliseconds timeout = std::chrono::seconds(30));
    ~HttpTestClient();
    HttpTestClient(const HttpTestClient&) = delete;
    HttpTestClient& operator=(const HttpTestClient&) = delete;

    // Sends one request with the given headers, in this order, after "Host" (and
    // "Content-Length" when there is a body), and waits for the answer.
    HttpResponse request(const std::string& method, const std::string& target,
                         const std::string& body = "", const HeaderList& headers = {});

    // Sends `bytes` as they are on a fresh connection and returns everything the server
    // writes back until it closes the connection or `timeout` passes.
    static std::string rawExchange(unsigned short port, const std::string& bytes,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

  private:
    class Connection;
    unsigned short port_;
    std::chrono::milliseconds timeout_;
    std::unique_ptr<Connection> connection_;
};

}  // namespace EmulatorTest
