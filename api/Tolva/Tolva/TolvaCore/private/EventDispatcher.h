// EventDispatcher: hands an API object's events to its host. On a thread of the dispatcher's
// own ("QXP events"), one event at a time and in the order published, every event is logged on
// "TolvaCore.Events" and handed to the host's callback, if one is set. Publishing only queues,
// so it may be done from an HTTP continuation or under a leaf lock: no host code (a callback,
// a logger's record observer) runs on the publishing thread.
//
// Shared by the API object with whatever may outlive it (delivery jobs); after stop() events
// are dropped.
#pragma once

#include <TolvaCore/ApiEvent.h>

#include <functional>
#include <memory>
#include <mutex>

namespace Varkel {
namespace Tolva {
namespace Rest {

class DeliveryThreads;

class EventDispatcher {
  public:
    using Callback = std::function<void(const ApiEvent&)>;

    EventDispatcher();
    ~EventDispatcher();
    EventDispatcher(const EventDispatcher&) = delete;
    EventDispatcher& operator=(const EventDispatcher&) = delete;

    // Replaces the callback (an empty one removes it). Events already published keep the
    // callback they were published with.
    void setCallback(Callback callback);

    // Queues the event for the log and the callback. `at` is filled in when unset. Never
    // throws except std::bad_alloc.
    void publish(ApiEvent event);

    // Drops events not handed over yet and waits for a callback under way, unless called
    // from the dispatcher's own thread. Any thread; later calls do nothing more.
    void stop();

  private:
    std::mutex mutex_;
    std::shared_ptr<const Callback> callback_;
    // One thread keeps the events in order.
    std::shared_ptr<DeliveryThreads> thread_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
