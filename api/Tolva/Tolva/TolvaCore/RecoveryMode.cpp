#include <TolvaCore/RecoveryMode.h>

#include <ZuCore/Env.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>

#include <boost/algorithm/string/predicate.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

const wchar_t* recoveryModeName(RecoveryMode mode) {
    return mode == RecoveryMode::Resilient ? L"resilient" : L"strict";
}

RecoveryMode recoveryModeFromEnvironment() {
    try {
        const std::wstring value = Varkel::Zu::Env::getVar(std::wstring(L"TOLVA_RECOVERY"), L"");
        if (boost::iequals(value, L"resilient")) {
            return RecoveryMode::Resilient;
        }
        if (!value.empty() && !boost::iequals(value, L"strict")) {
            ZU_LOG_WARN(Varkel::Zu::Logger::getLogger("TolvaCore.QxPlatformApi"),
                        L"TOLVA_RECOVERY is neither \"strict\" nor \"resilient\"; using strict.");
        }
    } catch (...) {
        // An unreadable environment leaves the default.
    }
    return RecoveryMode::Strict;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
