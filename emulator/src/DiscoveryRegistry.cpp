#include "DiscoveryRegistry.h"

#include <stdexcept>

#include "Text.h"

namespace qxpemu {

DiscoveryRegistry::DiscoveryRegistry(int heartbeatIntervalMs, int missedBeatsForCritical)
    : criticalAfter_(std::chrono::milliseconds(static_cast<long long>(heartbeatIntervalMs) *
                                               missedBeatsForCritical)) {}

std::string DiscoveryRegistry::validate(const nlohmann::json& record) {
    if (!record.is_object()) {
        return "the service record must be a JSON object";
    }
    const auto id = record.find("serviceId");
    if (id == record.end() || !id->is_string() || !text::isUuid(id->get<std::string>())) {
        return "\"serviceId\" must be a UUID string";
    }
    for (const char* name :
         {"serviceType", "serviceInstance", "serviceAddress", "reverseProxyPathRule"}) {
        const auto member = record.find(name);
        if (member == record.end() || !member->is_string() || member->get<std::string>().empty()) {
            return std::string("\"") + name + "\" must be a non-empty string";
        }
    }
    const auto port = record.find("servicePort");
    if (port == record.end() || !port->is_number_integer() || port->get<long long>() < 1 ||
        port->get<long long>() > 65535) {
        return "\"servicePort\" must be an integer from 1 to 65535";
    }
    const auto tags = record.find("serviceTags");
    if (tags != record.end()) {
        if (!tags->is_array()) {
            return "\"serviceTags\" must be an array of strings";
        }
        for (const auto& tag : *tags) {
            if (!tag.is_string()) {
                return "\"serviceTags\" must be an array of strings";
            }
        }
    }
    const auto health = record.find("serviceHealth");
    if (health == record.end() || !health->is_object()) {
        return "\"serviceHealth\" must be an object";
    }
    const auto state = health->find("health");
    if (state == health->end() || !state->is_string() ||
        !(text::equalsIgnoreCase(state->get<std::string>(), "OK") ||
          text::equalsIgnoreCase(state->get<std::string>(), "Warning") ||
          text::equalsIgnoreCase(state->get<std::string>(), "Error"))) {
        return "\"serviceHealth\".\"health\" must be \"OK\", \"Warning\" or \"Error\"";
    }
    const auto healthText = health->find("healthText");
    if (healthText == health->end() || !healthText->is_string()) {
        return "\"serviceHealth\".\"healthText\" must be a string";
    }
    return "";
}

std::string DiscoveryRegistry::add(const nlohmann::json& record) {
    Service service;
    service.record = record;
    service.secret = text::randomToken(24);
    service.lastBeat = Clock::now();
    const std::string id = record.at("serviceId").get<std::string>();
    std::lock_guard<std::mutex> lock(mutex_);
    services_[id] = service;
    return service.secret;
}

DiscoveryRegistry::Outcome DiscoveryRegistry::findAuthorised(const std::string& id,
                                                             const std::string& secret,
                                                             Services::iterator& found) {
    auto it = services_.find(id);
    if (it == services_.end()) {
        return Outcome::UnknownService;
    }
    if (it->second.secret != secret) {
        return Outcome::WrongSecret;
    }
    found = it;
    return Outcome::Done;
}

DiscoveryRegistry::Outcome DiscoveryRegistry::heartbeat(const std::string& id,
                                                        const std::string& secret) {
    std::lock_guard<std::mutex> lock(mutex_);
    Services::iterator it;
    const Outcome outcome = findAuthorised(id, secret, it);
    if (outcome == Outcome::Done) {
        it->second.lastBeat = Clock::now();
        ++it->second.beats;
    }
    return outcome;
}

DiscoveryRegistry::Outcome DiscoveryRegistry::remove(const std::string& id,
                                                     const std::string& secret) {
    std::lock_guard<std::mutex> lock(mutex_);
    Services::iterator it;
    const Outcome outcome = findAuthorised(id, secret, it);
    if (outcome == Outcome::Done) {
        services_.erase(it);
    }
    return outcome;
}

nlohmann::json DiscoveryRegistry::list() const {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    nlohmann::json out = nlohmann::json::array();
    for (const auto& entry : services_) {
        nlohmann::json item = entry.second.record;
        const auto age = now - entry.second.lastBeat;
        item["status"] = age > criticalAfter_ ? "critical" : "passing";
        item["lastHeartbeatAgeMs"] =
            std::chrono::duration_cast<std::chrono::milliseconds>(age).count();
        item["heartbeats"] = entry.second.beats;
        out.push_back(std::move(item));
    }
    return out;
}

void DiscoveryRegistry::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    services_.clear();
}

nlohmann::json DiscoveryRegistry::snapshot() const {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    nlohmann::json out = nlohmann::json::array();
    for (const auto& entry : services_) {
        out.push_back({{"record", entry.second.record},
                       {"secret", entry.second.secret},
                       {"heartbeats", entry.second.beats},
                       {"lastHeartbeatAgeMs", std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  now - entry.second.lastBeat)
                                                  .count()}});
    }
    return out;
}

void DiscoveryRegistry::restore(const nlohmann::json& snapshot) {
    const auto now = Clock::now();
    Services services;
    for (const auto& saved : snapshot) {
        Service service;
        service.record = saved.at("record");
        if (!validate(service.record).empty()) {
            throw std::invalid_argument("a saved service record is malformed");
        }
        service.secret = saved.at("secret").get<std::string>();
        service.beats = saved.at("heartbeats").get<unsigned long long>();
        service.lastBeat =
            now - std::chrono::milliseconds(saved.at("lastHeartbeatAgeMs").get<long long>());
        services[service.record.at("serviceId").get<std::string>()] = std::move(service);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    services_ = std::move(services);
}

}  // namespace qxpemu
