// RequestDeadline: the overall time limit of one request, from the moment it is sent until its
// answer's body has been read (a retry on a new connection included). The HTTP library's own
// time-out restarts with every step and every chunk of a body, so a body that trickles in a
// byte at a time would otherwise never end. When the limit passes, the deadline cancels its
// token; the HTTP library then closes the connection and fails the request, which the caller
// tells apart from its own cancellation with expired().
//
// The timer runs on the HTTP library's own I/O service: its handler only sets a flag and
// cancels a token, so it never waits on a pool thread.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

#include <pplx/pplxtasks.h>
#include <boost/asio/steady_timer.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

class RequestDeadline : public std::enable_shared_from_this<RequestDeadline> {
  public:
    // Starts the clock. The token of the request is cancelled when either the caller's token
    // is or the limit passes.
    static std::shared_ptr<RequestDeadline> start(std::chrono::milliseconds limit,
                                                  const pplx::cancellation_token& caller);

    ~RequestDeadline();

    RequestDeadline(const RequestDeadline&) = delete;
    RequestDeadline& operator=(const RequestDeadline&) = delete;

    // The token to send the request with.
    pplx::cancellation_token token() const { return source_.get_token(); }

    // True once the limit has passed before finish().
    bool expired() const noexcept { return expired_.load(std::memory_order_acquire); }

    // True when the caller's own token was cancelled.
    bool cancelledByCaller() const { return caller_.is_canceled(); }

    std::chrono::milliseconds limit() const noexcept { return limit_; }

    // Stops the clock (the request has ended one way or another). Any thread, any number of
    // times.
    void finish();

  private:
    RequestDeadline(std::chrono::milliseconds limit, const pplx::cancellation_token& caller);
    void arm();

    const std::chrono::milliseconds limit_;
    const pplx::cancellation_token caller_;
    pplx::cancellation_token_source source_;
    pplx::cancellation_token_registration callerRegistration_;
    std::atomic<bool> expired_{false};
    // The timer is touched by arm() and finish() only, never by its handler: these calls may
    // come from different threads, so they take the lock.
    std::mutex timerMutex_;
    boost::asio::steady_timer timer_;
    bool finished_ = false;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
