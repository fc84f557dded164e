/// @class Varkel::Zu::Message
/// A unit of work that a MessageThread runs and that its poster can wait on.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include <ZuCore/Constants.h>
#include <ZuCore/Named.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

class MessageThread;

/// Base of the messages posted to a MessageThread. Subclasses implement process(); the
/// worker thread runs it and then signals completion, which releases every
/// waitForCompletion() caller. A message whose thread is stopped with stop(true) before it
/// ran is completed without being processed (wasProcessed() is then false).
///
/// A message is meant to be posted once; completion is final.
class ZU_EXPORT Message : public Named {
  public:
    ~Message() override;

    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    /// Waits until the message is completed, at most `timeoutMs` milliseconds
    /// (ZU_TIMEOUT_INFINITE: no limit). Returns whether it is completed. Any thread except
    /// the worker that is to run it (which would wait for itself).
    virtual bool waitForCompletion(unsigned int timeoutMs = ZU_TIMEOUT_INFINITE);

    /// The work. Runs on the worker thread of the MessageThread the message was posted to;
    /// an exception it throws is logged by the worker and the message still completes.
    virtual void process() = 0;

    /// Whether completion has been signalled. Any thread.
    bool isCompleted() const;

    /// Whether process() was run (to its end or to an exception). Meaningful once
    /// completed. Any thread.
    bool wasProcessed() const;

  protected:
    /// A message named `name`.
    explicit Message(const std::wstring& name);

  private:
    friend class MessageThread;

    /// Marks the message completed and wakes its waiters. Called once by the worker (after
    /// process(), or when discarding the message).
    virtual void signalCompletion();

    void setProcessed();

    mutable std::mutex mutex_;
    std::condition_variable completedCondition_;
    bool completed_ = false;
    bool processed_ = false;
};

}  // namespace Zu
}  // namespace Varkel
