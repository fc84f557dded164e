#include <ZuCore/Message.h>

#include <chrono>

namespace Varkel {
namespace Zu {

Message::Message(const std::wstring& name) : Named(name) {}

Message::~Message() = default;

bool Message::waitForCompletion(unsigned int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (timeoutMs == ZU_TIMEOUT_INFINITE) {
        completedCondition_.wait(lock, [this] { return completed_; });
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    return completedCondition_.wait_until(lock, deadline, [this] { return completed_; });
}

bool Message::isCompleted() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return completed_;
}

bool Message::wasProcessed() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return processed_;
}

void Message::signalCompletion() {
    std::lock_guard<std::mutex> guard(mutex_);
    completed_ = true;
    completedCondition_.notify_all();
}

void Message::setProcessed() {
    std::lock_guard<std::mutex> guard(mutex_);
    processed_ = true;
}

}  // namespace Zu
}  // namespace Varkel
