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

namespace {
HttpReply withBody(unsigned status, const char* contentType, std::string body) {
    HttpReply reply;
    reply.status = status;
    reply.contentType = contentType;
    reply.body = std::move(body);
    return reply;
}
}  // namespace

HttpReply HttpReply::json(unsigned status, std::string body) {
    return withBody(status, "application/json", std::move(body));
}

HttpReply HttpReply::text(unsigned status, std::string body) {
    return withBody(status, "text/plain; charset=utf-8", std::move(body));
}

HttpReply HttpReply::empty(unsigned status) {
    HttpReply reply;
    reply.status = status;
    return reply;
}

}  // namespace qxpemu
