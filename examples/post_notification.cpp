// Posts one notification to the platform named by QX_PLATFORM_CONFIG.
//
//   post_notification <topic> <content>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/StringConversion.h>

#include <cstdio>
#include <exception>

using Varkel::Tolva::Rest::QxPlatformApi;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <topic> <content>\n", argv[0]);
        return 2;
    }
    try {
        // {"url": ..., "logging": {"credentials": <API key>}}; empty when the variable is unset.
        const std::shared_ptr<QxPlatformApi> api = QxPlatformApi::createFromEnvVar();
        if (!api) {
            std::fprintf(stderr, "set QX_PLATFORM_CONFIG first\n");
            return 2;
        }
        // Blocks until the platform answered; throws on any failure. 60: time to live in s.
        api->postNotification(Varkel::Zu::widen(argv[1]), Varkel::Zu::widen(argv[2]), 60);
        std::printf("posted to %s\n", argv[1]);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "post failed: %s\n", e.what());
        return 1;
    }
    return 0;
}
