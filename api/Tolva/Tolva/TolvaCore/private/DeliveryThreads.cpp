#include "DeliveryThreads.h"

#include "ApiDefaults.h"
#include "CountText.h"

#include <ZuCore/Env.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::Logger;

namespace {

constexpr std::size_t kMostDeliveryThreads = 4096;

const std::shared_ptr<Logger>& deliveryLogger() {
    static const std::shared_ptr<Logger> logger = Logger::getLogger("TolvaCore.QxPlatformApi");
    return logger;
}

// The delivery threads' shared state the calling thread belongs to, if any.
thread_local const void* currentDeliveryState = nullptr;

}  // namespace

struct DeliveryThreads::State {
    State(std::size_t threadLimit, std::chrono::milliseconds idleSpell, std::string threadName)
        : limit(threadLimit), idleTime(idleSpell), name(std::move(threadName)) {}

    const std::size_t limit;
    const std::chrono::milliseconds idleTime;
    // At most 15 characters, the system's limit for a thread's name.
    const std::string name;
    mutable std::mutex mutex;
    // Jobs were queued, or stopping began.
    std::condition_variable work;
    // A thread ended.
    std::condition_variable ended;
    std::deque<std::function<void()>> jobs;
    std::size_t threads = 0;
    std::size_t idle = 0;
    std::size_t busy = 0;
    bool stopping = false;
};

std::size_t DeliveryThreads::limitFromEnvironment() {
    const std::wstring text = Varkel::Zu::Env::getVar(std::wstring(L"TOLVA_DELIVERY_THREADS"), L"");
    if (text.empty()) {
        return kDefaultLimit;
    }
    const std::optional<std::size_t> value = countFromText(text, kMostDeliveryThreads);
    if (!value) {
        ZU_LOG_WARN(deliveryLogger(),
                    L"TOLVA_DELIVERY_THREADS is not a number from 1 to 4096; "
                    L"mail is delivered on at most " +
                        std::to_wstring(kDefaultLimit) + L" threads.");
        return kDefaultLimit;
    }
    return *value;
}

DeliveryThreads::DeliveryThreads(std::size_t limit, std::chrono::milliseconds idleTime,
                                 const char* threadName)
    : state_(std::make_shared<State>(limit == 0 ? 1 : limit, idleTime,
                                     std::string(threadName).substr(0, 15))) {}

DeliveryThreads::~DeliveryThreads() {
    stop();
}

bool DeliveryThreads::post(std::function<void()> job) {
    bool spawn = false;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->stopping) {
            return false;
        }
        state_->jobs.push_back(std::move(job));
        // Every idle thread takes one job; a job beyond those gets a new thread while the
        // limit allows, and otherwise waits for the first thread to come free.
        if (state_->jobs.size() > state_->idle && state_->threads < state_->limit) {
            ++state_->threads;
            spawn = true;
        } else {
            state_->work.notify_one();
        }
    }
    if (spawn) {
        try {
            std::thread(&DeliveryThreads::run, state_).detach();
        } catch (const std::system_error& e) {
            std::size_t left = 0;
            {
                std::lock_guard<std::mutex> lock(state_->mutex);
                --state_->threads;
                left = state_->threads;
                state_->ended.notify_all();
            }
            // The job stays queued: a running thread takes it when it comes free, or the
            // next post tries to start a thread again.
            ZU_LOG_CAPPED(deliveryLogger(), Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          L"Cannot start a mail delivery thread (" + std::to_wstring(left) +
                              L" running): " + Varkel::Zu::widen(e.what()));
        }
    }
    return true;
}

void DeliveryThreads::run(const std::shared_ptr<State>& state) {
    currentDeliveryState = state.get();
    pthread_setname_np(pthread_self(), state->name.c_str());
    std::unique_lock<std::mutex> lock(state->mutex);
    while (!state->stopping) {
        if (state->jobs.empty()) {
            ++state->idle;
            const bool woken = state->work.wait_for(
                lock, state->idleTime, [&] { return state->stopping || !state->jobs.empty(); });
            --state->idle;
            if (!woken) {
                break;  // idle for a whole spell: this thread retires
            }
            continue;
        }
        std::function<void()> job = std::move(state->jobs.front());
        state->jobs.pop_front();
        ++state->busy;
        lock.unlock();
        try {
            job();
        } catch (const std::exception& e) {
            ZU_LOG_CAPPED(deliveryLogger(), Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          L"Mail delivery failed: " + Varkel::Zu::widen(e.what()));
        } catch (...) {
            ZU_LOG_CAPPED(deliveryLogger(), Logger::getErrorLevel(), ApiDefaults::kLogCapMs,
                          L"Mail delivery failed.");
        }
        // What the job held goes here, outside the lock: it may be the last reference to a
        // mailbox whose listener holds the API object, whose destructor then stops these
        // threads from this one.
        job = nullptr;
        lock.lock();
        --state->busy;
    }
    --state->threads;
    state->ended.notify_all();
    // The state lives on through this function's argument until the thread has returned.
}

void DeliveryThreads::stop() {
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->stopping = true;
        dropped.swap(state_->jobs);
        state_->work.notify_all();
    }
    // Jobs not started are dropped; what they hold goes here, outside the lock.
    dropped.clear();
    const bool onOwnThread = isDeliveryThread();
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->ended.wait(lock, [&] { return state_->threads == (onOwnThread ? 1u : 0u); });
}

std::size_t DeliveryThreads::threadCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->threads;
}

std::size_t DeliveryThreads::busyCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->busy;
}

std::size_t DeliveryThreads::queuedCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->jobs.size();
}

bool DeliveryThreads::isDeliveryThread() const {
    return currentDeliveryState == state_.get();
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
