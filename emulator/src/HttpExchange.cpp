#include "HttpExchange.h"

#include "Text.h"

namespace qxpemu {

std::string IncomingRequest::header(const std::string& name) const {
    for (const auto& field : headers) {
        if (text::equalsIgnoreCase(field.first, name)) {
            return field.second;
        }
    }
    return "";
}

bool IncomingRequest::queryParameter(const std::string& name, std::string& value) const {
    std::size_t start = 0;
    while (start <= query.size()) {
        std::size_t end = query.find('&', start);
        if (end == std::string::npos) {
            end = query.size();
        }
        const std::string pair = query.substr(start, end - start);
        const auto equals = pair.find('=');
        if (pair.substr(0, equals) == name) {
            value = equals == std::string::npos ? "" : pair.substr(equals + 1);
            return true;
        }
        start = end + 1;
    }
    return false;
}

HttpReply HttpReply::json(unsigned status, std::string body) {
    HttpReply reply;
    reply.status = status;
    reply.contentType = "application/json";
    reply.body = std::move(body);
    return reply;
}

HttpReply HttpReply::text(unsigned status, std::string body) {
    HttpReply reply;
    reply.status = status;
    reply.contentType = "text/plain; charset=utf-8";
    reply.body = std::move(body);
    return reply;
}

HttpReply HttpReply::empty(unsigned status) {
    HttpReply reply;
    reply.status = status;
    return reply;
}

}  // namespace qxpemu
