#include <TolvaCore/RequestFailure.h>

#include <utility>

namespace Varkel {
namespace Tolva {
namespace Rest {

RequestFailure::RequestFailure(Kind kind, int statusCode, std::string reasonPhrase)
    : kind_(kind), statusCode_(statusCode), reasonPhrase_(std::move(reasonPhrase)) {}

RequestFailure::~RequestFailure() = default;

std::string RequestFailure::summary() const {
    if (kind_ != Kind::HttpStatus) {
        return requestFailureKindName(kind_);
    }
    std::string text = "HTTP status " + std::to_string(statusCode_);
    if (!reasonPhrase_.empty()) {
        text += " " + reasonPhrase_;
    }
    return text;
}

const char* requestFailureKindName(RequestFailure::Kind kind) {
    switch (kind) {
        case RequestFailure::Kind::Transport:
            return "transport";
        case RequestFailure::Kind::TimedOut:
            return "timed out";
        case RequestFailure::Kind::HttpStatus:
            return "HTTP status";
        case RequestFailure::Kind::Tls:
            return "TLS";
        case RequestFailure::Kind::BadReply:
            return "bad reply";
    }
    return "transport";
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
