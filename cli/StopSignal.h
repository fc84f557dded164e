// StopSignal: Ctrl-C (SIGINT) and SIGTERM as a condition the tool's commands wait on. The
// signals are blocked in every thread and taken by one thread of the tool's own with sigwait,
// so no code runs in a signal handler. The first signal asks the running command to stop (it
// then cleans up: deletes its mailbox, unregisters its service); a second one ends the
// process at once with status 130.
//
// Commands wait with waitUntil on a predicate of their own; code that changes what such a
// predicate reads (a listener queuing mail) calls notify() afterwards.
#pragma once

#include <chrono>
#include <functional>

namespace tolva {

class StopSignal {
  public:
    // Blocks SIGINT and SIGTERM and starts the thread that waits for them. Call before any
    // other thread is started: threads inherit the blocked set.
    static void install();

    // Whether a stop was asked for.
    static bool requested();

    // Waits until `ready()` is true, a stop is asked for, or `deadline` passes; returns
    // ready()'s last value. `ready` is called with the signal's lock held; it may take locks
    // of its own that are never held while calling notify().
    static bool waitUntil(std::chrono::steady_clock::time_point deadline,
                          const std::function<bool()>& ready);

    // Wakes every waitUntil to check its predicate again. Any thread.
    static void notify();
};

}  // namespace tolva
