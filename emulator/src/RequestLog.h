// The record of platform requests that tests read back.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <vector>

#include <qxpemu/RecordedRequest.h>

namespace qxpemu {

class RequestLog {
  public:
    explicit RequestLog(std::size_t capacity);

    // Appends a record, dropping the oldest when full, and wakes waiters.
    void add(RecordedRequest request);
    std::vector<RecordedRequest> all() const;
    std::size_t size() const;
    std::vector<RecordedRequest> waitFor(std::size_t count,
                                         std::chrono::milliseconds timeout) const;
    void clear();

  private:
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    mutable std::condition_variable added_;
    std::deque<RecordedRequest> records_;
};

}  // namespace qxpemu
