// tolva register: register a service, keep it alive until Ctrl-C, unregister it. The API
// object registers the service again itself when the platform loses it, and its events are
// printed on standard error.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "EventPrinter.h"
#include "PlatformConnection.h"
#include "StatisticsPrinter.h"
#include "StopSignal.h"
#include "UsageError.h"

#include <TolvaCore/ApiEvent.h>
#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ZuUUID.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

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

// The id the platform knows the service by: the one it returned at registration, then the
// one of each registration made again after the platform lost it. Told on the library's event
// thread, read on the main thread.
class ServiceIdentity {
  public:
    explicit ServiceIdentity(std::string id) : id_(std::move(id)) {}

    void see(const Varkel::Tolva::Rest::ApiEvent& event) {
        using Kind = Varkel::Tolva::Rest::ApiEvent::Kind;
        if (event.kind != Kind::ServiceRegisteredAgain || event.newId.empty()) {
            return;
        }
        // The object holds this one service only.
        std::lock_guard<std::mutex> lock(mutex_);
        id_ = Varkel::Zu::narrow(event.newId);
    }

    std::string id() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return id_;
    }

  private:
    mutable std::mutex mutex_;
    std::string id_;
};

}  // namespace

int runRegister(const Arguments& arguments) {
    const auto info = describeService(arguments);
    const long long duration = arguments.number("duration", 0, 1, 365LL * 24 * 3600);
    const StatisticsPrinter statistics(arguments);
    const EventPrinter events(arguments);
    const PlatformConnection connection(arguments);
    const auto api = connection.connectResilient();
    const auto identity = std::make_shared<ServiceIdentity>(info->serviceId->toString());
    events.start(*api,
                 [identity](const Varkel::Tolva::Rest::ApiEvent& event) { identity->see(event); });
    statistics.start(api);
    api->registerService(info);
    const std::string id = identity->id();
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

    // Nothing to do meanwhile: the library sends the heartbeats and, when the platform lost
    // the registration (restarted, say), registers the service again.
    const auto deadline = duration > 0
                              ? std::chrono::steady_clock::now() + std::chrono::seconds(duration)
                              : std::chrono::steady_clock::time_point::max();
    StopSignal::waitUntil(deadline, [] { return false; });
    api->unregisterAllServices();
    statistics.finish(*api);
    const std::string last = identity->id();
    if (arguments.has("json")) {
        auto out = web::json::value::object();
        out["unregistered"] = web::json::value::boolean(true);
        out["serviceId"] = jsonText(last);
        Console::out(out.serialize());
    } else {
        Console::out("unregistered service " + last);
    }
    return kExitOk;
}

}  // namespace tolva
