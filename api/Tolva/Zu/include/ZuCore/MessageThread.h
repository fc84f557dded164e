/// @class Varkel::Zu::MessageThread
/// A worker thread that runs posted messages one after another.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include <ZuCore/MakeShared.h>
#include <ZuCore/Message.h>
#include <ZuCore/Thread.h>
#include <ZuCore/ThreadEnum.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// A named Thread with a FIFO message queue: postMessage() queues a Message, the worker runs
/// each message's process() in posting order and then signals its completion.
///
/// Life cycle: construct, start(), post, stop(). Messages may be posted before start(); they
/// run once the worker starts.
///
/// stop(false) (graceful): no new messages are accepted; the worker runs every message
/// already queued, then ends; stop waits for it and returns null.
///
/// stop(true) (immediate): no new messages are accepted; queued messages that have not
/// started are discarded - each is completed without being processed
/// (Message::wasProcessed() is false) so that no waitForCompletion() caller hangs; the
/// worker is interrupted (Thread::interrupt) so that a running message blocked in an
/// interruptible wait can end early; stop waits for the running message to finish and
/// returns it (null when none was running).
///
/// The destructor performs stop(true) when stop was not called. A MessageThread must not be
/// destroyed from its own worker (by process() dropping the last reference).
class ZU_EXPORT MessageThread : public Thread {
  public:
    /// A worker named `name` (not started) whose queue holds at most `maxQueuedMessages`
    /// messages (0: no limit; ZU_MAXUINT32 is in practice unbounded). The priority is
    /// recorded (see ThreadEnum). Made through MakeShared::create<MessageThread>(...).
    MessageThread(MakeShared::PrivateConstructorType, const std::wstring& name,
                  const ThreadEnum::Priority& priority, std::size_t maxQueuedMessages);

    /// Stops as stop(true) unless stopped already, and waits for the worker.
    ~MessageThread() override;

    /// Starts the worker. Throws IllegalStateException when already started or stopped.
    /// Any thread.
    void start() override;

    /// Queues `message` behind the messages already queued. Waits while the queue is full.
    /// Throws InvalidArgumentException for a null message and IllegalStateException when
    /// the thread has been stopped (the message is then neither queued nor completed). Any
    /// thread; with a bounded queue not the worker itself, which would wait for itself.
    void postMessage(const std::shared_ptr<Message>& message);

    /// Stops the worker (see the class comment for `immediate`) and waits for it to end,
    /// except when called from the worker itself (from a process()), where it only arranges
    /// for the worker to end after the current message. Calling it again is harmless;
    /// stop(true) after stop(false) discards what is still queued. Returns the message that
    /// was running when stop(true) was called, else null. Before start() every queued
    /// message is discarded as by stop(true). Any thread.
    std::shared_ptr<Message> stop(bool immediate);

    /// Number of messages queued and not yet started. Any thread.
    std::size_t getQueuedCount() const;

  private:
    void workerLoop();
    void discard(std::deque<std::shared_ptr<Message>>& messages);

    const std::size_t maxQueuedMessages_;
    mutable std::mutex queueMutex_;         ///< guards the fields below
    std::condition_variable queueChanged_;  ///< messages arrived, room freed, or stopping
    std::deque<std::shared_ptr<Message>> queue_;
    std::shared_ptr<Message> current_;
    bool workerStarted_ = false;
    bool accepting_ = true;
};

}  // namespace Zu
}  // namespace Varkel
