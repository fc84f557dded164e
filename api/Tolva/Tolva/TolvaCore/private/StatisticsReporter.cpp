#include "StatisticsReporter.h"

#include "ApiDefaults.h"
#include "StatisticsRecorder.h"

#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include <pthread.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::Logger;

namespace {

const std::shared_ptr<Logger>& statisticsLogger() {
    static const std::shared_ptr<Logger> logger = Logger::getLogger("TolvaCore.Statistics");
    return logger;
}

}  // namespace

struct StatisticsReporter::State {
    std::shared_ptr<const StatisticsRecorder> recorder;
    std::chrono::milliseconds interval;
    Callback callback;
    std::mutex mutex;
    std::condition_variable wakeUp;
    std::thread::id reportingThread;
    bool stopping = false;
    bool ended = false;
};

StatisticsReporter::StatisticsReporter(std::shared_ptr<const StatisticsRecorder> recorder,
                                       std::chrono::milliseconds interval, Callback callback)
    : state_(std::make_shared<State>()) {
    state_->recorder = std::move(recorder);
    state_->interval = interval;
    state_->callback = std::move(callback);
    // Reports run until stop(); the thread is detached so that stop() can also be called on
    // it, and it holds the state, never this object.
    std::thread(&StatisticsReporter::run, state_).detach();
}

StatisticsReporter::~StatisticsReporter() {
    stop();
}

void StatisticsReporter::run(const std::shared_ptr<State>& state) {
    pthread_setname_np(pthread_self(), "QXP statistics");
    std::unique_lock<std::mutex> lock(state->mutex);
    // Known before any callback runs, so that stop() from inside one does not wait for
    // itself.
    state->reportingThread = std::this_thread::get_id();
    auto next = std::chrono::steady_clock::now() + state->interval;
    while (!state->wakeUp.wait_until(lock, next, [&] { return state->stopping; })) {
        next += state->interval;
        lock.unlock();
        const std::wstring json = state->recorder->snapshot().toJson();
        try {
            if (state->callback) {
                state->callback(json);
            } else {
                ZU_LOG_INFO(statisticsLogger(), json);
            }
        } catch (...) {
            ZU_LOG_CAPPED(statisticsLogger(), Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          L"The statistics callback threw; reports go on.");
        }
        lock.lock();
        // A callback slower than the interval skips the reports it missed.
        const auto now = std::chrono::steady_clock::now();
        if (next < now) {
            next = now + state->interval;
        }
    }
    // The host's callback goes here, outside the lock, before stop() is told that the
    // thread is done with it.
    Callback callback = std::move(state->callback);
    lock.unlock();
    callback = nullptr;
    lock.lock();
    state->ended = true;
    state->wakeUp.notify_all();
}

void StatisticsReporter::stop() {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    state_->wakeUp.notify_all();
    if (state_->reportingThread == std::this_thread::get_id()) {
        return;
    }
    state_->wakeUp.wait(lock, [this] { return state_->ended; });
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
