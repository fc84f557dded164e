#include <ZuCore/ConditionVariableHelper.h>

#include <string>

#include <ZuCore/Constants.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/ThrowException.h>

#include "WaitSupport.h"

namespace Varkel {
namespace Zu {

namespace detail {

namespace {
thread_local InterruptState* currentInterruptState = nullptr;
}

InterruptState* InterruptState::current() {
    return currentInterruptState;
}

void InterruptState::setCurrent(InterruptState* state) {
    currentInterruptState = state;
}

void InterruptState::request() {
    requested_.store(true);
    std::shared_ptr<SemaphoreState> semaphore;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        semaphore = waitingOn_;
    }
    if (semaphore) {
        // Taking the semaphore's mutex orders this notify after the waiter's check of the
        // request, so the waiter is either past the check with the request seen or asleep.
        std::lock_guard<std::mutex> guard(semaphore->mutex);
        semaphore->available.notify_all();
    }
}

void InterruptState::beginWait(const std::shared_ptr<SemaphoreState>& semaphore) {
    std::lock_guard<std::mutex> guard(mutex_);
    waitingOn_ = semaphore;
}

void InterruptState::endWait() {
    std::lock_guard<std::mutex> guard(mutex_);
    waitingOn_.reset();
}

}  // namespace detail

namespace {

using Clock = std::chrono::steady_clock;

// Waits for and takes one token; `interrupt` is null for uninterruptible waits.
bool takeToken(detail::SemaphoreState& semaphore, const Clock::time_point& deadline,
               detail::InterruptState* interrupt) {
    std::unique_lock<std::mutex> lock(semaphore.mutex);
    for (;;) {
        if (interrupt != nullptr && interrupt->consume()) {
            return false;
        }
        if (semaphore.count > 0) {
            --semaphore.count;
            return true;
        }
        if (deadline == Clock::time_point::max()) {
            semaphore.available.wait(lock);
        } else {
            if (Clock::now() >= deadline) {
                return false;
            }
            semaphore.available.wait_until(lock, deadline);
        }
    }
}

}  // namespace

ConditionVariableHelper::Handle ConditionVariableHelper::createAnonymousSemaphore(int initial,
                                                                                  int maximum) {
    if (maximum <= 0 || initial < 0 || initial > maximum) {
        ZU_THROW(InvalidArgumentException, L"Invalid semaphore counts: initial " +
                                               std::to_wstring(initial) + L", maximum " +
                                               std::to_wstring(maximum));
    }
    return new ZuSemaphoreObject(std::make_shared<detail::SemaphoreState>(initial, maximum));
}

bool ConditionVariableHelper::releaseSemaphore(Handle handle, unsigned int count) {
    if (handle == nullptr) {
        return false;
    }
    detail::SemaphoreState& semaphore = *handle->state;
    std::lock_guard<std::mutex> guard(semaphore.mutex);
    if (static_cast<unsigned long>(semaphore.maximum - semaphore.count) < count) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    semaphore.count += static_cast<long>(count);
    semaphore.available.notify_all();
    return true;
}

unsigned int ConditionVariableHelper::waitForSingleObject(Handle handle,
                                                          unsigned int milliseconds) {
    if (handle == nullptr) {
        return WaitFailed;
    }
    const std::shared_ptr<detail::SemaphoreState> semaphore = handle->state;
    const Clock::time_point deadline = milliseconds == ZU_TIMEOUT_INFINITE
                                           ? Clock::time_point::max()
                                           : Clock::now() + std::chrono::milliseconds(milliseconds);
    return takeToken(*semaphore, deadline, nullptr) ? WaitObject0 : WaitTimeout;
}

bool ConditionVariableHelper::interruptibleWait(Handle handle, const Clock::time_point& deadline) {
    if (handle == nullptr) {
        return false;
    }
    const std::shared_ptr<detail::SemaphoreState> semaphore = handle->state;
    detail::InterruptState* interrupt = detail::InterruptState::current();
    if (interrupt == nullptr) {
        return takeToken(*semaphore, deadline, nullptr);
    }
    interrupt->beginWait(semaphore);
    const bool taken = takeToken(*semaphore, deadline, interrupt);
    interrupt->endWait();
    return taken;
}

void ConditionVariableHelper::deleteHandle(Handle* handle) {
    if (handle == nullptr) {
        return;
    }
    delete *handle;
    *handle = nullptr;
}

}  // namespace Zu
}  // namespace Varkel
