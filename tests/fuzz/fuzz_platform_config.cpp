// QxPlatformApi::createFromQXPlatformConfig on fuzzed configuration text. A bad document is
// reported as Varkel::Zu::InvalidArgumentException and nothing else; a good one makes an API
// object, which must start and stop cleanly. Every request goes to a proxy on a closed
// loopback port, so no input reaches the network.
#include "FuzzSupport.h"

#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/InvalidArgumentException.h>

#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TolvaFuzz::quietLogging();
    ::setenv("http_proxy", "http://127.0.0.1:1", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        auto api = Varkel::Tolva::Rest::QxPlatformApi::createFromQXPlatformConfig(
            TolvaFuzz::wide(data, size));
        if (!api) {
            std::abort();
        }
    } catch (const Varkel::Zu::InvalidArgumentException&) {
    }
    return 0;
}
