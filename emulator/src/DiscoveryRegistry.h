// Registered services, their secrets and heartbeats, and the health derived from them.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace qxpemu {

class DiscoveryRegistry {
  public:
    using Clock = std::chrono::steady_clock;
    enum class Outcome { Done, UnknownService, WrongSecret };

    DiscoveryRegistry(int heartbeatIntervalMs, int missedBeatsForCritical);

    // "" when `record` is a complete service record; otherwise what is wrong with it.
    static std::string validate(const nlohmann::json& record);

    // Registers (or re-registers, replacing record and secret) the service under the
    // record's "serviceId"; returns the new secret.
    std::string add(const nlohmann::json& record);
    Outcome heartbeat(const std::string& id, const std::string& secret);
    Outcome remove(const std::string& id, const std::string& secret);

    // Every service: its record plus "status" ("passing"/"critical"),
    // "lastHeartbeatAgeMs" and "heartbeats".
    nlohmann::json list() const;
    void clear();

    // Every service's record, secret, heartbeat count and heartbeat age, for a state file.
    nlohmann::json snapshot() const;
    // Replaces every service with those of a snapshot, heartbeat ages as saved. Throws
    // nlohmann::json::exception for a malformed snapshot (nothing is changed then).
    void restore(const nlohmann::json& snapshot);

  private:
    struct Service {
        nlohmann::json record;
        std::string secret;
        Clock::time_point lastBeat;
        unsigned long long beats = 0;
    };

    using Services = std::map<std::string, Service>;

    // With mutex_ held: finds the service `id` and checks its secret; `found` is set only
    // when the outcome is Done.
    Outcome findAuthorised(const std::string& id, const std::string& secret,
                           Services::iterator& found);

    const Clock::duration criticalAfter_;
    mutable std::mutex mutex_;
    Services services_;
};

}  // namespace qxpemu
