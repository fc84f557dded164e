// Everything an emulator instance serves, independent of the transport: the options and
// the identity, notification and discovery state, the request record and the fault rules.
#pragma once

#include <string>

#include <qxpemu/EmulatorOptions.h>

#include "ConnectionTracker.h"
#include "DiscoveryRegistry.h"
#include "FaultTable.h"
#include "IdentityService.h"
#include "KeyStore.h"
#include "NotificationHub.h"
#include "RecentActivity.h"
#include "RequestLog.h"

namespace qxpemu {

struct EmulatorCore {
    explicit EmulatorCore(EmulatorOptions emulatorOptions);

    // The state document of the control interface.
    nlohmann::json state() const;
    // Fresh state (see Emulator::reset).
    void reset();
    // The mailboxes and services as a state file holds them (see EmulatorOptions::stateFile).
    nlohmann::json snapshot() const;
    // Replaces mailboxes and services with those of a snapshot; throws std::exception
    // (nlohmann::json::exception, std::invalid_argument) when it is malformed, and then
    // changes nothing.
    void restore(const nlohmann::json& snapshot);

    const EmulatorOptions options;
    KeyStore keys;
    IdentityService identity;
    NotificationHub hub;
    DiscoveryRegistry discovery;
    RequestLog log;
    RecentActivity recent;
    FaultTable faults;
    ConnectionTracker connections;
};

// Fills in the default client when `options` names none.
EmulatorOptions withDefaults(EmulatorOptions options);

}  // namespace qxpemu
