// The emulator's transport-neutral view of one request and one answer.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qxpemu {

struct IncomingRequest {
    std::string method;
    std::string target;  // path + query as received
    std::string path;    // target up to "?"
    std::string query;   // after "?", "" when none
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // First header named `name` (ASCII case-insensitive), "" when absent.
    std::string header(const std::string& name) const;
    // Value of query parameter `name` (not decoded); false when absent.
    bool queryParameter(const std::string& name, std::string& value) const;
};

struct HttpReply {
    unsigned status = 200;
    std::string reason;  // "" = standard phrase
    std::string contentType;
    std::string body;
    std::vector<std::pair<std::string, std::string>> extraHeaders;

    static HttpReply json(unsigned status, std::string body);
    static HttpReply text(unsigned status, std::string body);
    static HttpReply empty(unsigned status);
};

}  // namespace qxpemu
