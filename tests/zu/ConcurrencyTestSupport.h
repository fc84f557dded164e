// Helpers for the concurrency tests.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace ZuTest {

using Clock = std::chrono::steady_clock;

// Generous bound for anything that should happen "at once" on a loaded machine.
inline constexpr std::chrono::seconds kPromptly{5};

// Polls `condition` until it holds or `limit` passes; returns whether it held. Used only to
// observe that another thread has reached a blocking call (there is nothing to wait on
// for that), never to order work.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Milliseconds elapsed since `start`.
inline long long elapsedMs(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace ZuTest
