/// @class Varkel::Zu::detail::Thread
/// A named, interruptible worker thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <ZuCore/Named.h>
#include <ZuCore/ThreadEnum.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

namespace detail {
class InterruptState;
}

/// A named operating-system thread that runs one function, can be joined, and can be
/// interrupted: Thread::interrupt() makes ConditionVariableHelper::interruptibleWait (and so
/// ConditionVariable::waitUntil) on that thread return false.
///
/// Interrupt semantics: an interrupt request stays pending until an interruptible wait on
/// the thread reports it by returning false; that wait consumes it, so the request is not
/// sticky. A request made while the thread is busy elsewhere (or before it first waits)
/// ends the next wait at once.
///
/// An exception escaping the thread function is logged at error level on the logger
/// "ZuCore.Thread" and swallowed; the thread then ends normally.
class ZU_EXPORT Thread : public Named {
  public:
    /// What a thread runs: its name, function and priority. Shared between the Thread
    /// object and the running thread, so it outlives both.
    class ZU_EXPORT Context {
      public:
        /// A thread named `name` that will run `body` at `priority`.
        Context(const std::wstring& name, std::function<void()> body,
                ThreadEnum::Priority priority = ThreadEnum::Priority::Normal);
        ~Context();
        Context(const Context&) = delete;
        Context& operator=(const Context&) = delete;

        /// The current name of the thread (setName changes it). Any thread.
        std::wstring getName() const;
        /// The priority the thread was made with (recorded only; see ThreadEnum).
        ThreadEnum::Priority getPriority() const { return priority_; }

      private:
        friend class Thread;
        /// The running thread applies the name to itself when it starts, under this mutex,
        /// so that a rename racing with the start is never overwritten by the old name.
        mutable std::mutex nameMutex_;
        std::wstring name_;
        std::function<void()> body_;
        ThreadEnum::Priority priority_;
        std::shared_ptr<detail::InterruptState> interrupt_;
    };

    /// Makes and starts a thread named `name` that runs `body`. Throws
    /// InvalidArgumentException for an empty function and RuntimeErrorException when the
    /// system cannot create a thread. Any thread.
    static std::shared_ptr<Thread> create(
        const std::wstring& name, std::function<void()> body,
        ThreadEnum::Priority priority = ThreadEnum::Priority::Normal);

    /// Joins the thread when it was started and not yet joined (waiting for its function
    /// to return); when the last reference is dropped on the thread itself it is detached
    /// instead.
    ~Thread() override;

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Starts the thread. Throws IllegalStateException when it was already started and
    /// RuntimeErrorException when the system cannot create a thread. Any thread.
    virtual void start();

    /// Waits until the thread function has returned. Does nothing when the thread was never
    /// started or is already joined. Throws IllegalStateException when called on the
    /// thread itself. Any other thread; concurrent callers all wait.
    void join();

    /// Whether start() has been called.
    bool isStarted() const;

    /// Asks the thread to stop waiting: its current or next interruptible wait returns
    /// false (see the class comment). Harmless on a thread that has ended. Any thread.
    void interrupt();

    /// Whether an interrupt request is pending (made and not yet consumed by a wait).
    bool isInterruptRequested() const;

    /// Identifier of the running thread; a default id before start().
    std::thread::id getID() const;

    /// Identifier of the calling thread.
    static std::thread::id getCurrentID();

    /// Renames the thread; the operating-system name (first 15 UTF-8 bytes) follows when
    /// the thread is running. Any thread.
    void setName(const std::wstring& name) override;

    /// The priority the thread was made with (recorded only; see ThreadEnum).
    ThreadEnum::Priority getPriority() const { return context_->getPriority(); }

  protected:
    /// Prepares a thread from `context` without starting it (see start()). Throws
    /// InvalidArgumentException when context or its function is empty.
    explicit Thread(std::shared_ptr<Context> context);

  private:
    static void run(const std::shared_ptr<Context>& context);

    const std::shared_ptr<Context> context_;
    mutable std::mutex mutex_;  ///< guards the name and the fields below except thread_
    std::mutex joinMutex_;      ///< guards thread_ once started; serialises joiners
    std::thread thread_;
    std::thread::id id_;
    std::thread::native_handle_type handle_{};
    bool started_ = false;
    bool joining_ = false;
    bool joined_ = false;
};

}  // namespace Zu
}  // namespace Varkel
