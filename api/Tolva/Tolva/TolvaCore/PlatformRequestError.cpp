#include <TolvaCore/PlatformRequestError.h>

#include <utility>

namespace Varkel {
namespace Tolva {
namespace Rest {

PlatformRequestError::PlatformRequestError(const std::string& text, Kind kind, int statusCode,
                                           std::string reasonPhrase)
    : std::runtime_error(text), RequestFailure(kind, statusCode, std::move(reasonPhrase)) {}

PlatformRequestError::PlatformRequestError(const std::string& text, const RequestFailure& failure)
    : std::runtime_error(text), RequestFailure(failure) {}

PlatformRequestError::~PlatformRequestError() = default;

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
