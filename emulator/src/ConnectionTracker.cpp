#include "ConnectionTracker.h"

#include <stdexcept>

namespace qxpemu {

ConnectionTracker::ConnectionTracker(const ConnectionPolicy& initial) : policy_(initial) {
    validate(initial);
}

void ConnectionTracker::validate(const ConnectionPolicy& policy) {
    if (policy.idleCloseMs < 0) {
        throw std::invalid_argument("idleCloseMs must not be negative");
    }
    if (policy.maxRequestsPerConnection < 0) {
        throw std::invalid_argument("maxRequestsPerConnection must not be negative");
    }
}

void ConnectionTracker::setPolicy(const ConnectionPolicy& policy) {
    validate(policy);
    std::lock_guard<std::mutex> lock(mutex_);
    policy_ = policy;
}

ConnectionPolicy ConnectionTracker::policy() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return policy_;
}

void ConnectionTracker::opened() {
    ++accepted_;
    ++open_;
}

void ConnectionTracker::closed() {
    --open_;
}

void ConnectionTracker::closedIdle() {
    ++closedIdle_;
}

void ConnectionTracker::closedAfterRequests() {
    ++closedAfterRequests_;
}

ConnectionCounts ConnectionTracker::counts() const {
    ConnectionCounts counts;
    counts.accepted = accepted_.load();
    counts.open = open_.load();
    counts.closedIdle = closedIdle_.load();
    counts.closedAfterRequests = closedAfterRequests_.load();
    return counts;
}

void ConnectionTracker::resetCounts() {
    accepted_ = 0;
    closedIdle_ = 0;
    closedAfterRequests_ = 0;
}

nlohmann::json ConnectionTracker::describe() const {
    const ConnectionPolicy current = policy();
    const ConnectionCounts now = counts();
    return {{"idleCloseMs", current.idleCloseMs},
            {"maxRequestsPerConnection", current.maxRequestsPerConnection},
            {"announceClose", current.announceClose},
            {"accepted", now.accepted},
            {"open", now.open},
            {"closedIdle", now.closedIdle},
            {"closedAfterRequests", now.closedAfterRequests}};
}

}  // namespace qxpemu
