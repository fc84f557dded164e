// The latest platform activity the dashboard shows: the last notifications posted (with how
// many mailboxes each reached) and the last requests answered (with their status). Bounded;
// the oldest entries go first.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace qxpemu {

class RecentActivity {
  public:
    static constexpr std::size_t kKept = 100;

    struct Notification {
        std::chrono::system_clock::time_point time;
        std::string topic;
        std::string content;
        std::size_t deliveredTo = 0;
    };

    struct Exchange {
        std::chrono::system_clock::time_point time;
        std::string method;
        std::string target;   // as received; mask before showing (see DashboardView)
        unsigned status = 0;  // 0: the connection was closed without an answer
        long long durationMs = 0;
    };

    void addNotification(Notification notification);
    void addExchange(Exchange exchange);
    // Newest first.
    std::vector<Notification> notifications() const;
    std::vector<Exchange> exchanges() const;
    void clear();

  private:
    mutable std::mutex mutex_;
    std::deque<Notification> notifications_;
    std::deque<Exchange> exchanges_;
};

}  // namespace qxpemu
