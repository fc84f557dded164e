#include "StopSignal.h"

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

#include <pthread.h>
#include <unistd.h>

namespace tolva {

namespace {

std::mutex g_mutex;
std::condition_variable g_changed;
bool g_requested = false;

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
            {
                std::lock_guard<std::mutex> lock(g_mutex);
                if (g_requested) {
                    static const char kText[] = "\ntolva: stopped\n";
                    (void)!::write(STDERR_FILENO, kText, sizeof kText - 1);
                    ::_exit(130);
                }
                g_requested = true;
            }
            g_changed.notify_all();
        }
    }).detach();
}

bool StopSignal::requested() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_requested;
}

bool StopSignal::waitUntil(std::chrono::steady_clock::time_point deadline,
                           const std::function<bool()>& ready) {
    std::unique_lock<std::mutex> lock(g_mutex);
    g_changed.wait_until(lock, deadline, [&ready] { return g_requested || ready(); });
    return ready();
}

void StopSignal::notify() {
    // Taking the lock orders this wake-up after a waiter's check of its predicate.
    { std::lock_guard<std::mutex> lock(g_mutex); }
    g_changed.notify_all();
}

}  // namespace tolva
