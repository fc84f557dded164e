#include "RequestLog.h"

namespace qxpemu {

RequestLog::RequestLog(std::size_t capacity) : capacity_(capacity == 0 ? 1 : capacity) {}

void RequestLog::add(RecordedRequest request) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (records_.size() >= capacity_) {
            records_.pop_front();
        }
        records_.push_back(std::move(request));
    }
    added_.notify_all();
}

std::vector<RecordedRequest> RequestLog::all() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return {records_.begin(), records_.end()};
}

std::size_t RequestLog::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_.size();
}

std::vector<RecordedRequest> RequestLog::waitFor(std::size_t count,
                                                 std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    added_.wait_for(lock, timeout, [&] { return records_.size() >= count; });
    return {records_.begin(), records_.end()};
}

void RequestLog::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

}  // namespace qxpemu
