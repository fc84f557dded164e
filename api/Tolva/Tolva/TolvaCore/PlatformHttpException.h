/// @file PlatformHttpException.h
/// PlatformHttpException: the web::http::http_exception the library throws (and fails tasks
/// with) for a failed platform request, carrying the failure's kind (see RequestFailure).
/// what() and error_code() are what they have always been: for a status failure the answer's
/// body and the status; for a transport failure the HTTP library's text and error code.
#pragma once

#include <TolvaCore/RequestFailure.h>
#include <TolvaCore/TolvaExport.h>

#include <string>

#include <cpprest/http_msg.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

/// A web::http::http_exception that is also a RequestFailure.
class TOLVA_EXPORT PlatformHttpException : public web::http::http_exception, public RequestFailure {
  public:
    /// errorCode and text as web::http::http_exception(errorCode, text) takes them.
    PlatformHttpException(int errorCode, const std::string& text, Kind kind, int statusCode = 0,
                          std::string reasonPhrase = std::string());
    ~PlatformHttpException() override;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
