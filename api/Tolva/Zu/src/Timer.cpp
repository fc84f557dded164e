#include <ZuCore/Timer.h>

namespace Varkel {
namespace Zu {

Timer::Timer(Flags flags, std::size_t initialElapsedMs)
    : elapsedBefore_(std::chrono::milliseconds(initialElapsedMs)),
      startedAt_(std::chrono::steady_clock::now()),
      running_((flags & START_STOPPED) == 0) {}

Timer::~Timer() = default;

std::uint64_t Timer::getMilliseconds() const {
    return getMicroseconds() / 1000;
}

std::uint64_t Timer::getMicroseconds() const {
    auto elapsed = elapsedBefore_;
    if (running_) {
        elapsed += std::chrono::steady_clock::now() - startedAt_;
    }
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count());
}

void Timer::start() {
    if (!running_) {
        startedAt_ = std::chrono::steady_clock::now();
        running_ = true;
    }
}

void Timer::stop() {
    if (running_) {
        elapsedBefore_ += std::chrono::steady_clock::now() - startedAt_;
        running_ = false;
    }
}

void Timer::reset() {
    elapsedBefore_ = std::chrono::steady_clock::duration::zero();
    startedAt_ = std::chrono::steady_clock::now();
}

}  // namespace Zu
}  // namespace Varkel
