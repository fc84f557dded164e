// tolva register: register a service, keep it alive until Ctrl-C, unregister it.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "PlatformConnection.h"
#include "StatisticsPrinter.h"
#include "StopSignal.h"
#include "UsageError.h"

#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ZuUUID.h>

#include <atomic>
#include <chrono>
#include <memory>

namespace tolva {

namespace {

using namespace Varkel::Tolva::Rest::Model;

std::shared_ptr<ModelServiceInfo> describeService(const Arguments& arguments) {
    for (const char* required : {"type", "instance", "address", "port", "path-rule"}) {
        if (!arguments.has(required)) {
            throw UsageError(std::string("\"register\" needs --") + required);
        }
    }
    auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    info->serviceId = std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
    info->serviceType = Varkel::Zu::widen(arguments.value("type"));
    info->serviceInstance = Varkel::Zu::widen(arguments.value("instance"));
    info->serviceAddress = Varkel::Zu::widen(arguments.value("address"));
    info->servicePort = static_cast<std::uint16_t>(arguments.number("port", 0, 0, 65535));
    info->reverseProxyPathRule = Varkel::Zu::widen(arguments.value("path-rule"));
    for (const auto& tag : arguments.values("tag")) {
        info->serviceTags.push_back(Varkel::Zu::widen(tag));
    }
    info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
    if (arguments.has("health")) {
        HealthState state;
        try {
            state = healthStateFromString(Varkel::Zu::widen(arguments.value("health")));
        } catch (const std::exception&) {
            throw UsageError("--health needs OK, Warning or Error, got \"" +
                             arguments.value("health") + "\"");
        }
        info->serviceHealth->setHealth(state, Varkel::Zu::widen(arguments.value("health-text")));
    }
    try {
        info->validate();
    } catch (const std::exception& e) {
        throw UsageError(std::string("the service description is incomplete: ") + e.what());
    }
    return info;
}

}  // namespace

int runRegister(const Arguments& arguments) {
    const auto info = describeService(arguments);
    const long long duration = arguments.number("duration", 0, 1, 365LL * 24 * 3600);
    const StatisticsPrinter statistics(arguments);
    const PlatformConnection connection(arguments);
    const auto api = connection.connect();
    statistics.start(api);
    api->registerService(info);
    const std::string id = info->serviceId->toString();
    if (arguments.has("json")) {
        auto out = web::json::value::object();
        out["registered"] = web::json::value::boolean(true);
        out["serviceId"] = jsonText(id);
        Console::out(out.serialize());
    } else {
        Console::out("registered service " + id);
    }
    Console::err("heartbeats every 5 s; " +
                 (duration > 0 ? "unregistering after " + std::to_string(duration) + " s"
                               : std::string("Ctrl-C to unregister")));

    // A platform that lost the registration (restarted, say) answers the heartbeat 404, which
    // the library logs; the service is then registered again. The record arrives on the
    // heartbeat thread during a pass, so it only raises a flag for this thread.
    const auto lost = std::make_shared<std::atomic<bool>>(false);
    const std::size_t observer = Varkel::Zu::Logger::addRecordObserver(
        [lost](const Varkel::Zu::Logger&, const Varkel::Zu::Logger::Level&,
               const std::wstring& message, const Varkel::Zu::LoggerLocationInfo&) {
            if (message.rfind(L"Heartbeat failed: 404", 0) == 0) {
                lost->store(true);
                StopSignal::notify();
            }
        });
    const auto deadline = duration > 0
                              ? std::chrono::steady_clock::now() + std::chrono::seconds(duration)
                              : std::chrono::steady_clock::time_point::max();
    bool registerAgain = false;
    while (!StopSignal::requested() && std::chrono::steady_clock::now() < deadline) {
        StopSignal::waitUntil(
            std::min(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(1)),
            [&lost] { return lost->load(); });
        if (lost->exchange(false)) {
            Console::err("tolva: the platform lost the registration; registering again");
            registerAgain = true;
        }
        if (registerAgain) {
            try {
                api->registerService(info);
                registerAgain = false;
                Console::err("registered service " + id + " again");
            } catch (const std::exception& e) {
                // Tried again a second later.
                Console::err(std::string("tolva: registering again failed: ") + e.what());
            }
        }
    }
    Varkel::Zu::Logger::removeRecordObserver(observer);
    api->unregisterAllServices();
    statistics.finish(*api);
    if (arguments.has("json")) {
        auto out = web::json::value::object();
        out["unregistered"] = web::json::value::boolean(true);
        out["serviceId"] = jsonText(id);
        Console::out(out.serialize());
    } else {
        Console::out("unregistered service " + id);
    }
    return kExitOk;
}

}  // namespace tolva
