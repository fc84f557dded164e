#include "EmulatorCore.h"

#include <stdexcept>

namespace qxpemu {
namespace {

// The default client's API key must exceed 100 characters (the facade ignores shorter
// keys), so its id and secret are long; fixed, so a printed configuration stays valid
// across restarts.
constexpr char kDefaultClientId[] = "qxp-emulator-default-client";
constexpr char kDefaultClientSecret[] =
    "emulator-only-secret-7f3c9a2e4b6d8f10a1c3e5b7d9f2a4c6e8b0d2f4a6c8e0b2";
constexpr char kDefaultAccount[] = "emulator-account";

}  // namespace

EmulatorOptions withDefaults(EmulatorOptions options) {
    if (options.clients.empty()) {
        options.clients.push_back({kDefaultClientId, kDefaultClientSecret, kDefaultAccount});
    }
    if (options.threads == 0) {
        options.threads = 1;
    }
    if (options.maxPollSeconds < 0) {
        options.maxPollSeconds = 0;
    }
    return options;
}

EmulatorCore::EmulatorCore(EmulatorOptions emulatorOptions)
    : options(withDefaults(std::move(emulatorOptions))),
      keys(options.signingKeyPemFile, options.rsaKeyBits),
      identity(keys, options.clients, options.tokenLifetimeSeconds),
      hub(options.maxQueuedPerMailbox),
      discovery(options.heartbeatIntervalMs, options.missedHeartbeatsForCritical),
      log(options.maxRecordedRequests),
      connections(options.connections) {}

nlohmann::json EmulatorCore::state() const {
    nlohmann::json keyList = nlohmann::json::array();
    const auto ids = keys.keyIds();
    for (std::size_t i = 0; i < ids.size(); ++i) {
        keyList.push_back({{"kid", ids[i]}, {"current", i + 1 == ids.size()}});
    }
    nlohmann::json clients = nlohmann::json::array();
    for (const auto& client : identity.clients()) {
        clients.push_back({{"clientId", client.clientId}, {"account", client.account}});
    }
    return {{"mailboxes", hub.describe()},
            {"services", discovery.list()},
            {"keys", std::move(keyList)},
            {"clients", std::move(clients)},
            {"tokenLifetimeSeconds", identity.lifetime()},
            {"maxPollSeconds", options.maxPollSeconds},
            {"recordedRequests", log.size()},
            {"faultRules", faults.rules().size()},
            {"connections", connections.describe()}};
}

void EmulatorCore::reset() {
    hub.clear();
    discovery.clear();
    log.clear();
    recent.clear();
    faults.clear();
    identity.setLifetime(options.tokenLifetimeSeconds);
    connections.setPolicy(options.connections);
    connections.resetCounts();
    keys.dropRetired();
}

nlohmann::json EmulatorCore::snapshot() const {
    return {{"format", "qxp-emulator-state/1"},
            {"mailboxes", hub.snapshot()},
            {"services", discovery.snapshot()}};
}

void EmulatorCore::restore(const nlohmann::json& snapshot) {
    if (snapshot.at("format").get<std::string>() != "qxp-emulator-state/1") {
        throw std::invalid_argument("not a qxp-emulator state file");
    }
    // Both parts are checked before either is replaced, so a bad file changes nothing.
    NotificationHub checkedHub(options.maxQueuedPerMailbox);
    checkedHub.restore(snapshot.at("mailboxes"));
    DiscoveryRegistry checkedDiscovery(options.heartbeatIntervalMs,
                                       options.missedHeartbeatsForCritical);
    checkedDiscovery.restore(snapshot.at("services"));
    hub.restore(snapshot.at("mailboxes"));
    discovery.restore(snapshot.at("services"));
}

}  // namespace qxpemu
