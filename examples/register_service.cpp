// Registers a service, keeps it alive for <seconds> (the library sends a heartbeat every 5 s),
// reports a warning through its health object half way, then unregisters it.
//
//   register_service <seconds>
#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/ZuUUID.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

using Varkel::Tolva::Rest::QxPlatformApi;
using namespace Varkel::Tolva::Rest::Model;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <seconds>\n", argv[0]);
        return 2;
    }
    try {
        const auto api = QxPlatformApi::createFromEnvVar();
        if (!api) {
            std::fprintf(stderr, "set QX_PLATFORM_CONFIG first\n");
            return 2;
        }
        auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
        info->serviceId =
            std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
        info->serviceType = L"example-render";
        info->serviceInstance = L"example-render-01";
        info->serviceAddress = L"127.0.0.1";
        info->servicePort = 8443;
        info->reverseProxyPathRule = L"/example/";
        info->serviceTags = {L"example"};
        info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();  // OK
        api->registerService(info);  // throws unless the platform answers 201
        std::printf("registered %s\n", info->serviceId->toString().c_str());

        const auto half = std::chrono::milliseconds(std::atoi(argv[1]) * 500);
        std::this_thread::sleep_for(half);
        // Any thread, any time: the next heartbeat carries the new health.
        info->serviceHealth->setHealth(HealthState::Warning, L"disk 91% full");
        std::this_thread::sleep_for(half);

        api->unregisterAllServices();
        std::printf("unregistered\n");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "register failed: %s\n", e.what());
        return 1;
    }
    return 0;
}
