// The connection policy in force and the connection counts, shared by every session.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>

#include <nlohmann/json.hpp>

#include <qxpemu/ConnectionCounts.h>
#include <qxpemu/ConnectionPolicy.h>

namespace qxpemu {

class ConnectionTracker {
  public:
    explicit ConnectionTracker(const ConnectionPolicy& initial);

    // Throws std::invalid_argument for a negative value.
    static void validate(const ConnectionPolicy& policy);
    void setPolicy(const ConnectionPolicy& policy);
    ConnectionPolicy policy() const;

    void opened();
    void closed();
    void closedIdle();
    void closedAfterRequests();
    ConnectionCounts counts() const;
    // Zeroes every count but the open connections.
    void resetCounts();
    // {"idleCloseMs","maxRequestsPerConnection","announceClose","accepted","open",
    //  "closedIdle","closedAfterRequests"}: the control interface's document.
    nlohmann::json describe() const;

  private:
    mutable std::mutex mutex_;
    ConnectionPolicy policy_;
    std::atomic<std::size_t> accepted_{0};
    std::atomic<std::size_t> open_{0};
    std::atomic<std::size_t> closedIdle_{0};
    std::atomic<std::size_t> closedAfterRequests_{0};
};

}  // namespace qxpemu
