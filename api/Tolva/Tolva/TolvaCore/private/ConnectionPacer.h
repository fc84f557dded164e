// ConnectionPacer: how many long polls may be opening their connection at once.
//
// Every new HTTPS connection costs a TLS handshake, and for each one the HTTP library first
// loads the system's CA bundle (about 16 ms of CPU). Thousands of polls started together
// queue their handshakes on the HTTP pool's few threads beyond the client's time-out, fail,
// back off and come back into the same queue. The polling thread therefore takes a slot
// before it starts a poll; the poll gives the slot back once its request has been written
// (the connection is open: reused, or connected and through its handshake) or when it ends,
// whichever comes first. A poll on a kept-alive connection holds its slot for microseconds.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>

namespace Varkel {
namespace Tolva {
namespace Rest {

class ConnectionPacer : public std::enable_shared_from_this<ConnectionPacer> {
  public:
    // One poll's slot; given back once, by release() or by the destructor.
    class Slot {
      public:
        explicit Slot(std::shared_ptr<ConnectionPacer> pacer);
        ~Slot();
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;
        // Any thread, any number of times: only the first call counts.
        void release();

      private:
        std::mutex mutex_;
        std::shared_ptr<ConnectionPacer> pacer_;
    };

    explicit ConnectionPacer(std::size_t most);

    // Waits until fewer than `most` polls are opening and takes a slot; empty once stop() has
    // been called. Every slot comes back within a request's time limit, so the wait is bounded.
    std::shared_ptr<Slot> acquire();

    // Ends every wait, now and later. Any thread.
    void stop();

    // Polls opening their connection now.
    std::size_t opening() const;

    // How many slot waits found every slot taken.
    std::size_t waits() const;

  private:
    void giveBack();

    const std::size_t most_;
    mutable std::mutex mutex_;
    std::condition_variable freed_;
    std::size_t opening_ = 0;
    std::size_t waits_ = 0;
    bool stopped_ = false;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
