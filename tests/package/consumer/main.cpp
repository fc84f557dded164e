// A program outside the source tree that uses the installed package.
#include <TolvaCore/CTolvaPlatform.h>
#include <TolvaCore/QxPlatformApi.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>

#include <cstdio>
#include <cstdlib>

int main() {
    ::unsetenv("QX_PLATFORM_CONFIG");
    auto logger = Varkel::Zu::Logger::getLogger("Consumer");
    if (!logger) return 1;
    if (Varkel::Zu::widen("\xC3\xA9") != std::wstring(1, L'\u00E9')) return 2;
    if (CTolvaPlatform::getInstance() != nullptr) return 3;
    if (Varkel::Tolva::Rest::QxPlatformApi::createFromEnvVar()) return 4;
    std::printf("consumer ok\n");
    return 0;
}
