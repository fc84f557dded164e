/// @file PlatformRequestError.h
/// PlatformRequestError: the std::runtime_error that the token request, notification posting,
/// service registration and mailbox creation throw for a failed platform request, carrying
/// the failure's kind (see RequestFailure). what() is what it has always been: for a status
/// failure the answer's body (which may be empty: statusCode() still tells the status), for a
/// transport failure the HTTP library's text.
#pragma once

#include <TolvaCore/RequestFailure.h>
#include <TolvaCore/TolvaExport.h>

#include <stdexcept>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

/// A std::runtime_error that is also a RequestFailure.
class TOLVA_EXPORT PlatformRequestError : public std::runtime_error, public RequestFailure {
  public:
    /// text: what() (a status failure's body, a transport failure's text); kind, and for
    /// Kind::HttpStatus the status and reason phrase.
    PlatformRequestError(const std::string& text, Kind kind, int statusCode = 0,
                         std::string reasonPhrase = std::string());
    /// The same text and kind as failure.
    PlatformRequestError(const std::string& text, const RequestFailure& failure);
    ~PlatformRequestError() override;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
