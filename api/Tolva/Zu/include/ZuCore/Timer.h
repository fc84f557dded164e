/// @class Varkel::Zu::Timer
/// Timer: measures elapsed time on the steady clock.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// A stopwatch. Runs from construction unless made with START_STOPPED.
/// Not synchronised: one thread may change it (start/stop/reset) while no other reads it;
/// concurrent reads alone are safe.
class ZU_EXPORT Timer {
  public:
    /// Construction flags, combined with |.
    using Flags = unsigned int;
    /// Start counting at construction.
    static constexpr Flags NONE = 0;
    /// Do not run until start() is called.
    static constexpr Flags START_STOPPED = 1;

    /// flags: see above. initialElapsedMs: milliseconds already counted at construction
    /// (0 for a plain stopwatch).
    explicit Timer(Flags flags = NONE, std::size_t initialElapsedMs = 0);
    /// A copy counts on from the same state.
    Timer(const Timer&) = default;
    /// Takes the other timer's state.
    Timer& operator=(const Timer&) = default;
    virtual ~Timer();

    /// Elapsed time counted so far (while running, up to now).
    std::uint64_t getMilliseconds() const;
    /// Elapsed time counted so far, in microseconds.
    std::uint64_t getMicroseconds() const;

    /// Starts (or resumes) counting; no effect while running.
    void start();
    /// Stops counting, keeping the elapsed time; no effect while stopped.
    void stop();
    /// Sets the elapsed time to zero; a running timer keeps running.
    void reset();
    /// Whether the timer is counting.
    bool isRunning() const noexcept { return running_; }

  private:
    std::chrono::steady_clock::duration elapsedBefore_;
    std::chrono::steady_clock::time_point startedAt_;
    bool running_;
};

}  // namespace Zu
}  // namespace Varkel
