#include "RequestDeadline.h"

#include <pplx/threadpool.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

std::shared_ptr<RequestDeadline> RequestDeadline::start(std::chrono::milliseconds limit,
                                                        const pplx::cancellation_token& caller) {
    std::shared_ptr<RequestDeadline> deadline(new RequestDeadline(limit, caller));
    deadline->arm();
    return deadline;
}

RequestDeadline::RequestDeadline(std::chrono::milliseconds limit,
                                 const pplx::cancellation_token& caller)
    : limit_(limit), caller_(caller), timer_(crossplat::threadpool::shared_instance().service()) {}

RequestDeadline::~RequestDeadline() {
    if (caller_.is_cancelable() && callerRegistration_ != pplx::cancellation_token_registration()) {
        caller_.deregister_callback(callerRegistration_);
    }
}

void RequestDeadline::arm() {
    // The caller's cancellation reaches the request through this deadline's own source (a
    // linked source would stay registered with the caller's token after the request ended).
    if (caller_.is_cancelable()) {
        const std::weak_ptr<RequestDeadline> weakCaller = shared_from_this();
        callerRegistration_ = caller_.register_callback([weakCaller] {
            if (const auto self = weakCaller.lock()) {
                self->source_.cancel();
            }
        });
    }
    const std::weak_ptr<RequestDeadline> weak = shared_from_this();
    std::lock_guard<std::mutex> lock(timerMutex_);
    timer_.expires_after(limit_);
    timer_.async_wait([weak](const boost::system::error_code& error) {
        if (error) {
            return;  // finished first
        }
        if (const auto self = weak.lock()) {
            self->expired_.store(true, std::memory_order_release);
            self->source_.cancel();
        }
    });
}

void RequestDeadline::finish() {
    std::lock_guard<std::mutex> lock(timerMutex_);
    if (finished_) {
        return;
    }
    finished_ = true;
    timer_.cancel();
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
