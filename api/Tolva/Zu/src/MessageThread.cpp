#include <ZuCore/MessageThread.h>

#include <exception>

#include <ZuCore/Exception.h>
#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

namespace Varkel {
namespace Zu {

namespace {

const std::shared_ptr<Logger>& messageThreadLogger() {
    static const std::shared_ptr<Logger> logger = Logger::getLogger("ZuCore.MessageThread");
    return logger;
}

}  // namespace

MessageThread::MessageThread(MakeShared::PrivateConstructorType, const std::wstring& name,
                             const ThreadEnum::Priority& priority, std::size_t maxQueuedMessages)
    // The worker body refers to this object; it only runs between start() and the join in
    // stop(), both of which happen while the object is alive.
    : Thread(std::make_shared<Context>(
          name, [this] { workerLoop(); }, priority)),
      maxQueuedMessages_(maxQueuedMessages) {}

MessageThread::~MessageThread() {
    stop(true);
}

void MessageThread::start() {
    {
        std::lock_guard<std::mutex> guard(queueMutex_);
        if (!accepting_) {
            ZU_THROW(IllegalStateException,
                     L"MessageThread " + getName() + L" cannot start: it was stopped");
        }
        workerStarted_ = true;
    }
    Thread::start();
}

void MessageThread::postMessage(const std::shared_ptr<Message>& message) {
    if (!message) {
        ZU_THROW(InvalidArgumentException, L"Cannot post a null message");
    }
    std::unique_lock<std::mutex> lock(queueMutex_);
    queueChanged_.wait(lock, [this] {
        return !accepting_ || maxQueuedMessages_ == 0 || queue_.size() < maxQueuedMessages_;
    });
    if (!accepting_) {
        lock.unlock();
        ZU_THROW(IllegalStateException,
                 L"MessageThread " + getName() + L" does not accept messages: it was stopped");
    }
    queue_.push_back(message);
    queueChanged_.notify_all();
}

std::shared_ptr<Message> MessageThread::stop(bool immediate) {
    std::deque<std::shared_ptr<Message>> discarded;
    std::shared_ptr<Message> running;
    {
        std::lock_guard<std::mutex> guard(queueMutex_);
        accepting_ = false;
        if (immediate) {
            running = current_;
        }
        if (immediate || !workerStarted_) {
            discarded.swap(queue_);
        }
        queueChanged_.notify_all();
    }
    // Completing outside the lock: a waiter woken here may post or stop again.
    discard(discarded);
    if (immediate) {
        interrupt();
    }
    if (getID() != Thread::getCurrentID()) {
        join();
    }
    return running;
}

std::size_t MessageThread::getQueuedCount() const {
    std::lock_guard<std::mutex> guard(queueMutex_);
    return queue_.size();
}

void MessageThread::discard(std::deque<std::shared_ptr<Message>>& messages) {
    for (const std::shared_ptr<Message>& message : messages) {
        message->signalCompletion();
    }
    messages.clear();
}

void MessageThread::workerLoop() {
    for (;;) {
        std::shared_ptr<Message> message;
        {
            std::unique_lock<std::mutex> lock(queueMutex_);
            queueChanged_.wait(lock, [this] { return !queue_.empty() || !accepting_; });
            if (queue_.empty()) {
                return;  // stopped, and nothing left to run
            }
            message = queue_.front();
            queue_.pop_front();
            current_ = message;
            queueChanged_.notify_all();  // room for a waiting poster
        }
        try {
            message->process();
        } catch (const Exception& error) {
            ZU_LOG_ERROR(messageThreadLogger(), L"Message " + message->getName() + L" on " +
                                                    getName() + L" threw: " +
                                                    getExceptionMessage(error));
        } catch (const std::exception& error) {
            ZU_LOG_ERROR(messageThreadLogger(), L"Message " + message->getName() + L" on " +
                                                    getName() + L" threw: " + widen(error.what()));
        } catch (...) {
            ZU_LOG_ERROR(messageThreadLogger(), L"Message " + message->getName() + L" on " +
                                                    getName() + L" threw an unknown exception");
        }
        {
            // Cleared before completion is signalled, so that once a waiter sees the
            // message completed, stop(true) no longer reports it as running.
            std::lock_guard<std::mutex> guard(queueMutex_);
            current_.reset();
        }
        message->setProcessed();
        message->signalCompletion();
    }
}

}  // namespace Zu
}  // namespace Varkel
