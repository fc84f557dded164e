// QxPlatformApi: service registration with the platform's discovery service, unregistration,
// and the heartbeat task that keeps every registered service alive.
#include <TolvaCore/QxPlatformApi.h>

#include "private/ApiDefaults.h"
#include "private/DeliveryThreads.h"
#include "private/EventDispatcher.h"
#include "private/RestCall.h"
#include "private/StatisticsRecorder.h"

#include <ZuCore/DebugLog.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

#include <boost/assert.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::DebugLog;
using Varkel::Zu::Logger;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::http::http_response;
using web::http::status_codes;
using web::json::value;

namespace {

// "/discovery/api/v1/service/<id>/<secret>", the path of a registered service.
std::string servicePath(const std::wstring& serviceId, const std::wstring& serviceSecret) {
    return std::string(ApiDefaults::kServicePath) + "/" + narrow(serviceId) + "/" +
           narrow(serviceSecret);
}

}  // namespace

void QxPlatformApi::registerService(
    const std::shared_ptr<Model::ModelServiceInfo>& inout_serviceInfo) {
    BOOST_ASSERT(inout_serviceInfo);
    if (!inout_serviceInfo) {
        // Reached only when an application's assertion handler returns: never send for a
        // null record.
        ZU_THROW(Varkel::Zu::InvalidArgumentException, L"The service record is null.");
    }
    ZU_LOG_DEBUG(logger_,
                 L"Registering service " +
                     (inout_serviceInfo->serviceId ? inout_serviceInfo->serviceId->toWString()
                                                   : std::wstring(L"<unknown id>")) +
                     L" to QXP...");
    inout_serviceInfo->validate();

    RestCall call = platformCall(web::http::methods::POST, ApiDefaults::kServicePath);
    call.header("Content-Type", RestCall::kJsonContentType)
        .header("User-Agent", RestCall::kUserAgent)
        .header("Authorization", requestAuthorization())
        .jsonBody(inout_serviceInfo->toJson())
        .accept({status_codes::Created})
        .failureText(L"QXP service registration failed: ");

    // The continuations capture this and the record: the calling thread waits for them.
    RestCall::translatingHttpFailure([&] {
        call.send(currentClient())
            .then([](http_response response) {
                ZU_LOG_DEBUG(logger_, L"QXP service registration successful.");
                // Read as JSON whatever its content type says.
                return response.extract_json(true);
            })
            .then([this, &inout_serviceInfo](const value& reply) {
                const std::wstring serviceId = widen(reply.at("serviceId").as_string());
                const std::wstring serviceSecret = widen(reply.at("serviceSecret").as_string());
                // Entered without the object lock, so registration never waits for a
                // heartbeat pass; the table's own leaf lock only orders the insertion with
                // the pass's copy.
                std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
                inout_serviceInfo->serviceSecret = serviceSecret;
                serviceTable_[serviceId] = inout_serviceInfo;
                statistics_->serviceRegistered(serviceId);
            })
            .get();
    });
}

void QxPlatformApi::unregisterService(const std::wstring& serviceId) {
    std::wstring serviceSecret;
    {
        std::lock_guard<std::mutex> lock(objectLock_);
        std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
        const auto entry = serviceTable_.find(serviceId);
        if (entry == serviceTable_.end()) {
            ZU_THROW(Varkel::Zu::InvalidArgumentException, L"Service not found");
        }
        serviceSecret = entry->second->serviceSecret;
        // Forgotten before the request leaves, whatever the platform answers.
        serviceTable_.erase(entry);
        lostServices_.erase(serviceId);
        statistics_->serviceUnregistered(serviceId);
    }

    try {
        RestCall call =
            platformCall(web::http::methods::DEL, servicePath(serviceId, serviceSecret));
        call.header("User-Agent", RestCall::kUserAgent)
            .header("Authorization", requestAuthorization())
            .accept({status_codes::NoContent})
            .failureText(L"QXP unregister service failed: ");
        call.send(currentClient())
            .then([serviceId](const http_response&) {
                ZU_LOG_DEBUG(logger_, L"QXP service unregistered: " + serviceId);
            })
            .get();
    } catch (const std::exception& e) {
        DebugLog::error(L"QXP unregister service failed: " + serviceId + L", " + widen(e.what()));
    }
}

void QxPlatformApi::unregisterAllServices() {
    std::vector<std::wstring> serviceIds;
    {
        std::lock_guard<std::mutex> lock(objectLock_);
        std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
        for (const auto& entry : serviceTable_) {
            serviceIds.push_back(entry.first);
        }
    }
    // unregisterService takes the object lock again for each entry; it is not recursive.
    for (const auto& serviceId : serviceIds) {
        try {
            unregisterService(serviceId);
        } catch (const std::exception& e) {
            // Only an entry another thread unregistered meanwhile gets here.
            DebugLog::error(L"QXP unregister service failed: " + serviceId + L", " +
                            widen(e.what()));
        }
    }
}

void QxPlatformApi::launchHeartbeatTask() {
    // The destructor joins this thread before any member goes, so the raw this stays valid
    // for the thread's whole life.
    heartbeatThread_ =
        Varkel::Zu::Thread::create(L"QXP heartbeat thread", [this] { heartbeatLoop(); });
}

void QxPlatformApi::heartbeatLoop() {
    while (running_) {
        try {
            // Held for the whole pass, the token renewal and every heartbeat included, so the
            // next 5-second wait starts only after the pass has finished.
            std::unique_lock<std::mutex> lock(objectLock_);
            if (!running_) {
                break;
            }
            heartbeatWakeUp_.waitUntil(
                lock, std::chrono::steady_clock::now() + ApiDefaults::kHeartbeatPeriod);
            if (!running_) {
                break;
            }
            heartbeatPass();
        } catch (const std::exception& e) {
            ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          widen(e.what()));
        }
    }
}

void QxPlatformApi::heartbeatPass() {
    validateToken();
    // One heartbeat at a time, in id order, each answered before the next leaves.
    for (const auto& service : copyServiceTable()) {
        const int status = sendHeartbeat(service.serviceId, service.serviceSecret);
        if (status == status_codes::NotFound) {
            serviceLost(service.serviceId, status);
        }
    }
}

void QxPlatformApi::serviceLost(const std::wstring& serviceId, int status) {
    bool tell = false;
    bool registerAgain = false;
    {
        std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
        tell = lostServices_.insert(serviceId).second;
        if (recoveryMode() == RecoveryMode::Resilient) {
            registerAgain = reregistering_.insert(serviceId).second;
        }
    }
    if (tell) {
        ApiEvent event;
        event.kind = ApiEvent::Kind::ServiceRegistrationLost;
        event.subject = serviceId;
        event.httpStatus = status;
        event.reason = L"a heartbeat was answered 404: the platform no longer knows the service";
        events_->publish(std::move(event));
    }
    if (registerAgain) {
        recovery_->post([this, serviceId] { registerServiceAgain(serviceId); });
    }
}

std::vector<QxPlatformApi::ServiceCredentials> QxPlatformApi::copyServiceTable() const {
    std::vector<ServiceCredentials> services;
    std::lock_guard<std::mutex> tableLock(serviceTableMutex_);
    services.reserve(serviceTable_.size());
    for (const auto& entry : serviceTable_) {
        services.push_back({entry.first, entry.second->serviceSecret});
    }
    return services;
}

int QxPlatformApi::sendHeartbeat(const std::wstring& serviceId, const std::wstring& serviceSecret) {
    int status = 0;
    try {
        RestCall call = platformCall(web::http::methods::PUT,
                                     servicePath(serviceId, serviceSecret) + "/health");
        call.header("User-Agent", RestCall::kUserAgent)
            .header("Authorization", requestAuthorization())
            .jsonBody(value::null());
        status = call.sendUnchecked(currentClient())
                     .then([serviceId](const http_response& response) {
                         const int answered = response.status_code();
                         if (answered == status_codes::NoContent) {
                             DebugLog::trace(L"Heartbeat sent for service " + serviceId);
                             return answered;
                         }
                         ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                                       L"Heartbeat failed: " + std::to_wstring(answered) + L" " +
                                           widen(response.reason_phrase()));
                         return answered;
                     })
                     .get();
    } catch (const std::exception& e) {
        // A failing service never stops the pass: the next one is sent all the same.
        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                      L"Heartbeat failed" + widen(e.what()));
    }
    statistics_->heartbeat(serviceId, status == status_codes::NoContent);
    return status;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
