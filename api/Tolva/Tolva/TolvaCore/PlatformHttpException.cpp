#include <TolvaCore/PlatformHttpException.h>

#include <utility>

namespace Varkel {
namespace Tolva {
namespace Rest {

PlatformHttpException::PlatformHttpException(int errorCode, const std::string& text, Kind kind,
                                             int statusCode, std::string reasonPhrase)
    : web::http::http_exception(errorCode, text),
      RequestFailure(kind, statusCode, std::move(reasonPhrase)) {}

PlatformHttpException::~PlatformHttpException() = default;

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
