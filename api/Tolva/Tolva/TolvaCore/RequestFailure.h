/// @file RequestFailure.h
/// RequestFailure: what kind of failure ended a platform request. Every exception the
/// library throws for a failed request also derives from this class, beside the standard type
/// the call has always thrown (see PlatformHttpException, PlatformRequestError and
/// PlatformReplyError), so existing catch sites and their texts keep working while a host that
/// wants to react to the kind catches this class:
///
///     try {
///         api->postNotification(topic, content);
///     } catch (const Varkel::Tolva::Rest::RequestFailure& failure) {
///         if (failure.kind() == Varkel::Tolva::Rest::RequestFailure::Kind::HttpStatus &&
///             failure.statusCode() == 503) { /* try later */ }
///     }
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

/// The kind, and for a status failure the status, of a failed platform request.
class TOLVA_EXPORT RequestFailure {
  public:
    /// What went wrong.
    enum class Kind {
        /// No answer: the connection could not be opened, or broke (refused, reset, closed
        /// before an answer, a proxy that could not be reached).
        Transport,
        /// No complete answer in time: a step of the request exceeded the client's time-out,
        /// or the whole request (its body included) exceeded its overall bound (see
        /// docs/threads.md, "Time limits").
        TimedOut,
        /// An answer with a status the operation does not accept; statusCode() and
        /// reasonPhrase() say which.
        HttpStatus,
        /// The TLS handshake failed (an untrusted certificate, a wrong host name, a protocol
        /// mismatch).
        Tls,
        /// An accepted status whose body is not what the operation reads (not JSON, a member
        /// missing or of the wrong type).
        BadReply
    };

    virtual ~RequestFailure();

    /// The kind of the failure.
    Kind kind() const noexcept { return kind_; }

    /// The answer's status for Kind::HttpStatus; 0 for the other kinds.
    int statusCode() const noexcept { return statusCode_; }

    /// The answer's reason phrase for Kind::HttpStatus (for instance "Service Unavailable");
    /// empty for the other kinds.
    const std::string& reasonPhrase() const noexcept { return reasonPhrase_; }

    /// One line that names the kind and, for a status, the status and reason phrase, for
    /// instance "HTTP status 503 Service Unavailable" or "timed out". Never holds a body.
    std::string summary() const;

  protected:
    /// A failure of `kind`; statusCode and reasonPhrase for Kind::HttpStatus (0 and empty
    /// otherwise).
    RequestFailure(Kind kind, int statusCode, std::string reasonPhrase);
    /// Copies kind, status and reason phrase.
    RequestFailure(const RequestFailure&) = default;
    /// Copies kind, status and reason phrase.
    RequestFailure& operator=(const RequestFailure&) = default;

  private:
    Kind kind_;
    int statusCode_;
    std::string reasonPhrase_;
};

/// "transport", "timed out", "HTTP status", "TLS" or "bad reply".
TOLVA_EXPORT const char* requestFailureKindName(RequestFailure::Kind kind);

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
