#include <ZuCore/Thread.h>

#include <exception>
#include <system_error>

#include <pthread.h>

#include <ZuCore/Exception.h>
#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>
#include <ZuCore/RuntimeErrorException.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

#include "WaitSupport.h"

namespace Varkel {
namespace Zu {

namespace {

const std::shared_ptr<Logger>& threadLogger() {
    static const std::shared_ptr<Logger> logger = Logger::getLogger("ZuCore.Thread");
    return logger;
}

// Linux keeps at most 15 bytes of a thread name; cut on a UTF-8 character boundary.
void setSystemThreadName(pthread_t handle, const std::wstring& name) {
    std::string narrowName = narrow(name);
    if (narrowName.size() > 15) {
        std::size_t cut = 15;
        while (cut > 0 && (static_cast<unsigned char>(narrowName[cut]) & 0xC0) == 0x80) {
            --cut;
        }
        narrowName.resize(cut);
    }
    pthread_setname_np(handle, narrowName.c_str());
}

}  // namespace

Thread::Context::Context(const std::wstring& name, std::function<void()> body,
                         ThreadEnum::Priority priority)
    : name_(name),
      body_(std::move(body)),
      priority_(priority),
      interrupt_(std::make_shared<detail::InterruptState>()) {}

Thread::Context::~Context() = default;

std::wstring Thread::Context::getName() const {
    std::lock_guard<std::mutex> guard(nameMutex_);
    return name_;
}

std::shared_ptr<Thread> Thread::create(const std::wstring& name, std::function<void()> body,
                                       ThreadEnum::Priority priority) {
    // The constructor is protected; a local subclass gives make_shared access to it.
    struct Created : Thread {
        explicit Created(std::shared_ptr<Context> context) : Thread(std::move(context)) {}
    };
    std::shared_ptr<Thread> thread =
        std::make_shared<Created>(std::make_shared<Context>(name, std::move(body), priority));
    thread->start();
    return thread;
}

Thread::Thread(std::shared_ptr<Context> context)
    : Named(context ? context->getName() : std::wstring()), context_(std::move(context)) {
    if (!context_ || !context_->body_) {
        ZU_THROW(InvalidArgumentException, L"A thread needs a function to run");
    }
}

Thread::~Thread() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!started_ || joined_) {
            return;
        }
        if (id_ == std::this_thread::get_id()) {
            // The last owner let go from inside the thread: it cannot wait for itself. The
            // running function keeps its Context alive, so detaching is safe.
            std::lock_guard<std::mutex> joinGuard(joinMutex_);
            thread_.detach();
            return;
        }
    }
    join();
}

void Thread::start() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (started_) {
        ZU_THROW(IllegalStateException, L"Thread " + Named::getName() + L" was already started");
    }
    try {
        std::shared_ptr<Context> context = context_;
        thread_ = std::thread([context] { run(context); });
    } catch (const std::system_error& error) {
        ZU_THROW(RuntimeErrorException,
                 L"Cannot start thread " + Named::getName() + L": " + widen(error.what()));
    }
    id_ = thread_.get_id();
    handle_ = thread_.native_handle();
    started_ = true;
}

void Thread::run(const std::shared_ptr<Context>& context) {
    detail::InterruptState::setCurrent(context->interrupt_.get());
    {
        std::lock_guard<std::mutex> guard(context->nameMutex_);
        setSystemThreadName(pthread_self(), context->name_);
    }
    try {
        context->body_();
    } catch (const Exception& error) {
        ZU_LOG_ERROR(threadLogger(), L"Thread " + context->getName() + L" ended by exception: " +
                                         getExceptionMessage(error));
    } catch (const std::exception& error) {
        ZU_LOG_ERROR(threadLogger(), L"Thread " + context->getName() + L" ended by exception: " +
                                         widen(error.what()));
    } catch (...) {
        ZU_LOG_ERROR(threadLogger(),
                     L"Thread " + context->getName() + L" ended by an unknown exception");
    }
    detail::InterruptState::setCurrent(nullptr);
}

void Thread::join() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!started_ || joined_) {
            return;
        }
        if (id_ == std::this_thread::get_id()) {
            ZU_THROW(IllegalStateException, L"Thread " + Named::getName() + L" cannot join itself");
        }
        // From here on setName leaves the system name alone: the handle may be reaped.
        joining_ = true;
    }
    {
        // After start() thread_ is only touched under joinMutex_; a concurrent joiner may
        // have finished while this one waited for it.
        std::lock_guard<std::mutex> joinGuard(joinMutex_);
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    std::lock_guard<std::mutex> guard(mutex_);
    joined_ = true;
}

bool Thread::isStarted() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return started_;
}

void Thread::interrupt() {
    context_->interrupt_->request();
}

bool Thread::isInterruptRequested() const {
    return context_->interrupt_->pending();
}

std::thread::id Thread::getID() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return id_;
}

std::thread::id Thread::getCurrentID() {
    return std::this_thread::get_id();
}

void Thread::setName(const std::wstring& name) {
    std::lock_guard<std::mutex> guard(mutex_);
    Named::setName(name);
    std::lock_guard<std::mutex> nameGuard(context_->nameMutex_);
    context_->name_ = name;
    if (started_ && !joining_) {
        setSystemThreadName(handle_, name);
    }
}

}  // namespace Zu
}  // namespace Varkel
