#include "RecentActivity.h"

namespace qxpemu {

namespace {

template <class T>
void keepLatest(std::deque<T>& entries, T entry) {
    entries.push_back(std::move(entry));
    while (entries.size() > RecentActivity::kKept) {
        entries.pop_front();
    }
}

template <class T>
std::vector<T> newestFirst(const std::deque<T>& entries) {
    return std::vector<T>(entries.rbegin(), entries.rend());
}

}  // namespace

void RecentActivity::addNotification(Notification notification) {
    std::lock_guard<std::mutex> lock(mutex_);
    keepLatest(notifications_, std::move(notification));
}

void RecentActivity::addExchange(Exchange exchange) {
    std::lock_guard<std::mutex> lock(mutex_);
    keepLatest(exchanges_, std::move(exchange));
}

std::vector<RecentActivity::Notification> RecentActivity::notifications() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return newestFirst(notifications_);
}

std::vector<RecentActivity::Exchange> RecentActivity::exchanges() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return newestFirst(exchanges_);
}

void RecentActivity::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    notifications_.clear();
    exchanges_.clear();
}

}  // namespace qxpemu
