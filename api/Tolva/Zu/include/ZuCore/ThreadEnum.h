/// @class Varkel::Zu::ThreadEnum
/// Scheduling priorities of core threads.
#pragma once

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Holds the priority values that Thread and MessageThread accept.
///
/// On Linux every core thread runs under the default time-sharing policy: an unprivileged
/// process cannot raise its threads above it, so the priority is recorded (and reported by
/// Thread::getPriority) but does not change scheduling.
class ZU_EXPORT ThreadEnum {
  public:
    /// Thread priorities, from lowest to time-critical.
    enum class Priority : int {
        Lowest = -2,
        BelowNormal = -1,
        Normal = 0,
        AboveNormal = 1,
        Highest = 2,
        TimeCritical = 15,
    };
};

}  // namespace Zu
}  // namespace Varkel
