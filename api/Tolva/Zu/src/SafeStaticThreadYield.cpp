#include <ZuCore/SafeStaticThreadYield.h>

#include <thread>

namespace Varkel {
namespace Zu {

void SafeStaticThreadYield() {
    std::this_thread::yield();
}

}  // namespace Zu
}  // namespace Varkel
