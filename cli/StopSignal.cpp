#include "StopSignal.h"

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

#include <pthread.h>
#include <unistd.h>

namespace tolva {

namespace {

// Made once and never destroyed: the signal thread and the HTTP library's threads (through
// notify) may still use it while the process runs its exit handlers.
struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool requested = false;
};

State& state() {
    static State* const made = new State;
    return *made;
}

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void StopSignal::install() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // Lives until the process ends; it only ever blocks in sigwait.
    std::thread([] {
        const sigset_t waited = stopSignals();
        for (;;) {
            int signal = 0;
            if (sigwait(&waited, &signal) != 0) {
                continue;
            }
            std::lock_guard<std::mutex> lock(state().mutex);
            if (state().requested) {
                static const char kText[] = "\ntolva: stopped\n";
                (void)!::write(STDERR_FILENO, kText, sizeof kText - 1);
                ::_exit(130);
            }
            state().requested = true;
            state().changed.notify_all();
        }
    }).detach();
}

bool StopSignal::requested() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().requested;
}

bool StopSignal::waitUntil(std::chrono::steady_clock::time_point deadline,
                           const std::function<bool()>& ready) {
    std::unique_lock<std::mutex> lock(state().mutex);
    state().changed.wait_until(lock, deadline, [&ready] { return state().requested || ready(); });
    return ready();
}

void StopSignal::notify() {
    // Under the lock: ordered after a waiter's check of its predicate.
    std::lock_guard<std::mutex> lock(state().mutex);
    state().changed.notify_all();
}

}  // namespace tolva
