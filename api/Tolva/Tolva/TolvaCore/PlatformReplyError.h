/// @file PlatformReplyError.h
/// PlatformReplyError: the web::json::json_exception thrown when an answer with an accepted
/// status cannot be read (its body is not JSON, or a member is missing or of the wrong type).
/// Its kind is always RequestFailure::Kind::BadReply; what() is the JSON library's text.
#pragma once

#include <TolvaCore/RequestFailure.h>
#include <TolvaCore/TolvaExport.h>

#include <string>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

/// A web::json::json_exception that is also a RequestFailure of kind BadReply.
class TOLVA_EXPORT PlatformReplyError : public web::json::json_exception, public RequestFailure {
  public:
    /// text: the JSON library's message.
    explicit PlatformReplyError(const std::string& text);
    ~PlatformReplyError() override;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
