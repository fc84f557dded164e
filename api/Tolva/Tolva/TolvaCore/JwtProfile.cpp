#include <TolvaCore/JwtProfile.h>

#include <ZuCore/Env.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>

#include <boost/algorithm/string/predicate.hpp>

namespace Varkel {
namespace Tolva {

const wchar_t* jwtProfileName(JwtProfile profile) {
    return profile == JwtProfile::Rfc9068 ? L"rfc9068" : L"platform";
}

JwtProfile jwtProfileFromEnvironment() {
    try {
        const std::wstring value = Varkel::Zu::Env::getVar(std::wstring(L"TOLVA_JWT_PROFILE"), L"");
        if (boost::iequals(value, L"rfc9068")) {
            return JwtProfile::Rfc9068;
        }
        if (!value.empty() && !boost::iequals(value, L"platform")) {
            ZU_LOG_WARN(Varkel::Zu::Logger::getLogger("TolvaCore.JWTUtils"),
                        L"TOLVA_JWT_PROFILE is neither \"platform\" nor \"rfc9068\"; using "
                        L"platform.");
        }
    } catch (...) {
        // An unreadable environment leaves the default.
    }
    return JwtProfile::Platform;
}

}  // namespace Tolva
}  // namespace Varkel
