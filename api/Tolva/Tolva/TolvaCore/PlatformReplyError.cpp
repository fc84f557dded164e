#include <TolvaCore/PlatformReplyError.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

PlatformReplyError::PlatformReplyError(const std::string& text)
    : web::json::json_exception(text.c_str()), RequestFailure(Kind::BadReply, 0, std::string()) {}

PlatformReplyError::~PlatformReplyError() = default;

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
