// Pins the signatures of the ZuCore services that the library calls: a changed parameter
// or result type breaks the build here before it breaks a caller.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

#include <ZuCore/Base64.h>
#include <ZuCore/BlockingQueue.h>
#include <ZuCore/CommonUtil.h>
#include <ZuCore/ConditionVariable.h>
#include <ZuCore/ConditionVariableHelper.h>
#include <ZuCore/Env.h>
#include <ZuCore/Exception.h>
#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogCappedData.h>
#include <ZuCore/Logger.h>
#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/LogicErrorException.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/MemoryBuffer.h>
#include <ZuCore/Message.h>
#include <ZuCore/MessageThread.h>
#include <ZuCore/Named.h>
#include <ZuCore/Rational.h>
#include <ZuCore/RuntimeErrorException.h>
#include <ZuCore/SafeStaticThreadYield.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/StringHolder.h>
#include <ZuCore/Thread.h>
#include <ZuCore/ThreadEnum.h>
#include <ZuCore/Timer.h>
#include <ZuCore/ZuUUID.h>

namespace Zu = Varkel::Zu;

namespace {

using Zu::Logger;
using Zu::LoggerLocationInfo;
using SteadyPoint = std::chrono::steady_clock::time_point;

// Picks the overload of type `Type`; does not compile when there is none.
template <class Type>
constexpr bool hasOverload(Type) {
    return true;
}

// Logging.
static_assert(
    std::is_same_v<decltype(&Logger::getLogger), std::shared_ptr<Logger> (*)(const std::string&)>);
static_assert(std::is_same_v<decltype(&Logger::getRootLogger), std::shared_ptr<Logger> (*)()>);
static_assert(
    std::is_same_v<decltype(&Logger::getTraceLevel), const Logger::Level& (*)() noexcept>);
static_assert(
    std::is_same_v<decltype(&Logger::getDebugLevel), const Logger::Level& (*)() noexcept>);
static_assert(std::is_same_v<decltype(&Logger::getWarnLevel), const Logger::Level& (*)() noexcept>);
static_assert(
    std::is_same_v<decltype(&Logger::getErrorLevel), const Logger::Level& (*)() noexcept>);
static_assert(std::is_same_v<decltype(&Logger::isEnabledFor),
                             bool (Logger::*)(const Logger::Level&) const noexcept>);
static_assert(std::is_same_v<decltype(&Logger::log),
                             void (Logger::*)(const std::wstring&, const LoggerLocationInfo&,
                                              const Logger::Level&) const noexcept>);
static_assert(std::is_constructible_v<LoggerLocationInfo, const char*, const char*, int>);
static_assert(std::is_default_constructible_v<Zu::LogCappedData>);
static_assert(
    std::is_same_v<decltype(&Zu::LogCappedData::logCappedAtLevel),
                   void (Zu::LogCappedData::*)(const std::shared_ptr<Logger>&,
                                               const LoggerLocationInfo&, const Logger::Level&,
                                               unsigned int, const std::wstring&) noexcept>);

// Threads and messages.
static_assert(std::is_default_constructible_v<Zu::Named>);
static_assert(std::is_constructible_v<Zu::Named, const std::wstring&>);
static_assert(std::has_virtual_destructor_v<Zu::Named>);
static_assert(std::is_same_v<decltype(&Zu::Named::getName), std::wstring (Zu::Named::*)() const>);
static_assert(
    std::is_same_v<decltype(&Zu::Named::setName), void (Zu::Named::*)(const std::wstring&)>);

// The constructor from a context is for derived classes only.
class ThreadProbe : public Zu::Thread {
  public:
    explicit ThreadProbe(std::shared_ptr<Context> context) : Thread(std::move(context)) {}
    // Overriding proves setName virtual.
    void setName(const std::wstring& name) override { Thread::setName(name); }
};
static_assert(!std::is_constructible_v<Zu::Thread, std::shared_ptr<Zu::Thread::Context>>);
static_assert(std::is_constructible_v<ThreadProbe, std::shared_ptr<Zu::Thread::Context>>);
static_assert(std::has_virtual_destructor_v<Zu::Thread>);
static_assert(std::is_same_v<decltype(&Zu::Thread::join), void (Zu::Thread::*)()>);
static_assert(std::is_same_v<decltype(&Zu::Thread::getCurrentID), std::thread::id (*)()>);

static_assert(
    std::is_constructible_v<Zu::MessageThread, Zu::MakeShared::PrivateConstructorType,
                            const std::wstring&, const Zu::ThreadEnum::Priority&, std::size_t>);
static_assert(std::has_virtual_destructor_v<Zu::MessageThread>);
static_assert(std::is_same_v<decltype(&Zu::MessageThread::start), void (Zu::MessageThread::*)()>);
static_assert(std::is_same_v<decltype(&Zu::MessageThread::postMessage),
                             void (Zu::MessageThread::*)(const std::shared_ptr<Zu::Message>&)>);
static_assert(std::is_same_v<decltype(&Zu::MessageThread::stop),
                             std::shared_ptr<Zu::Message> (Zu::MessageThread::*)(bool)>);

// A message is made by derived classes from a wide name; overriding proves the virtuals.
class MessageProbe : public Zu::Message {
  public:
    explicit MessageProbe(const std::wstring& name) : Message(name) {}
    std::wstring getName() const override { return Message::getName(); }
    void setName(const std::wstring& name) override { Message::setName(name); }
    bool waitForCompletion(unsigned int timeoutMs) override {
        return Message::waitForCompletion(timeoutMs);
    }
    void process() override {}
};
static_assert(std::is_abstract_v<Zu::Message>);
static_assert(std::has_virtual_destructor_v<Zu::Message>);
static_assert(std::is_constructible_v<MessageProbe, const std::wstring&>);

static_assert(std::is_same_v<decltype(&Zu::SafeStaticThreadYield), void (*)()>);

// Waiting primitives.
using Helper = Zu::ConditionVariableHelper;
static_assert(
    std::is_same_v<decltype(&Helper::createAnonymousSemaphore), Helper::Handle (*)(int, int)>);
static_assert(hasOverload<void (*)(Helper::Handle*)>(&Helper::deleteHandle));
static_assert(std::is_same_v<decltype(&Helper::waitForSingleObject),
                             unsigned int (*)(Helper::Handle, unsigned int)>);
static_assert(std::is_same_v<decltype(&Helper::interruptibleWait),
                             bool (*)(Helper::Handle, const SteadyPoint&)>);
static_assert(
    std::is_invocable_v<decltype(&Helper::releaseSemaphore), Helper::Handle, unsigned int>);
static_assert(std::is_same_v<decltype(&Zu::CommonUtil::msDelayToTimePoint),
                             SteadyPoint (*)(unsigned int) noexcept>);

// Environment, text and data.
static_assert(hasOverload<std::wstring (*)(const std::wstring&, std::wstring)>(&Zu::Env::getVar));
static_assert(std::is_same_v<decltype(&Zu::widen), std::wstring (*)(const std::string&)>);
static_assert(std::is_same_v<decltype(&Zu::narrow), std::string (*)(const std::wstring&)>);
static_assert(std::is_same_v<decltype(&Zu::Base64::decode),
                             std::shared_ptr<Zu::MemoryBuffer> (*)(const std::string&)>);
static_assert(std::is_same_v<decltype(&Zu::Base64::decode_url),
                             std::shared_ptr<Zu::MemoryBuffer> (*)(const std::string&)>);
static_assert(std::is_same_v<decltype(&Zu::MemoryBuffer::getSize),
                             std::size_t (Zu::MemoryBuffer::*)() const noexcept>);
static_assert(std::is_same_v<decltype(&Zu::CommonUtil::encodeUnsafeURLCharacters),
                             std::wstring (*)(const std::wstring&)>);
static_assert(hasOverload<std::string (*)(std::string, bool)>(&Zu::CommonUtil::getNiceTypeName));
static_assert(std::is_constructible_v<Zu::Timer, Zu::Timer::Flags, std::size_t>);
static_assert(std::has_virtual_destructor_v<Zu::Timer>);
static_assert(
    std::is_same_v<decltype(&Zu::Timer::getMilliseconds), std::uint64_t (Zu::Timer::*)() const>);
static_assert(std::is_constructible_v<Zu::ZuUUID, const std::wstring&>);
static_assert(std::is_constructible_v<Zu::ZuUUID, Zu::MakeShared::PrivateConstructorType,
                                      const std::wstring&>);
static_assert(std::has_virtual_destructor_v<Zu::ZuUUID>);
static_assert(
    std::is_same_v<decltype(&Zu::ZuUUID::toWString), std::wstring (Zu::ZuUUID::*)() const>);
static_assert(std::is_constructible_v<Zu::Rational, std::int64_t, std::int64_t>);

// Exceptions.
static_assert(std::is_constructible_v<Zu::StringHolder, const wchar_t*>);
static_assert(std::is_constructible_v<Zu::StringHolder, const std::wstring&>);
static_assert(std::is_copy_constructible_v<Zu::StringHolder>);
static_assert(std::is_nothrow_move_constructible_v<Zu::StringHolder>);
static_assert(
    hasOverload<std::ostream& (*)(std::ostream&, const Zu::StringHolder&)>(&Zu::operator<<));
static_assert(
    hasOverload<std::wostream& (*)(std::wostream&, const Zu::Exception&)>(&Zu::operator<<));
static_assert(
    std::is_same_v<decltype(&Zu::getExceptionMessage), std::wstring (*)(const Zu::Exception&)>);
static_assert(std::is_copy_constructible_v<Zu::Exception>);

// The queue's operations are virtual: overriding each one compiles only then.
using Queue = Zu::BlockingQueue<int, int, Logger>;
class QueueProbe : public Queue {
  public:
    using Queue::Queue;
    PutResult putObjectNoLock(Lock& lock, const int& obj, const TimePoint& deadline,
                              const int& epoch) override {
        return Queue::putObjectNoLock(lock, obj, deadline, epoch);
    }
    PutResult tryPutObjectNoLock(Lock& lock, const int& obj, const int& epoch) override {
        ++tryPuts;
        return Queue::tryPutObjectNoLock(lock, obj, epoch);
    }
    PutResult tryPutObjectDropFrontNoLock(Lock& lock, const int& obj, const int& epoch) override {
        return Queue::tryPutObjectDropFrontNoLock(lock, obj, epoch);
    }
    PutResult putObjectIgnorePauseNoLock(Lock& lock, const int& obj, const TimePoint& deadline,
                                         const int& epoch) override {
        return Queue::putObjectIgnorePauseNoLock(lock, obj, deadline, epoch);
    }
    int getEpoch() override { return Queue::getEpoch(); }
    void setEpoch(const int& epoch) override { Queue::setEpoch(epoch); }
    void nextEpoch() override { Queue::nextEpoch(); }
    void clearAndNextEpoch() override { Queue::clearAndNextEpoch(); }
    GetResult getObjectNoLock(Lock& lock, int& out, const TimePoint& deadline, const int& epoch,
                              bool peek) override {
        return Queue::getObjectNoLock(lock, out, deadline, epoch, peek);
    }
    GetResult tryGetObjectNoLock(int& out, const int& epoch, bool peek) override {
        return Queue::tryGetObjectNoLock(out, epoch, peek);
    }
    bool keepNewestNoLock(Lock& lock, int& out, bool reput) override {
        return Queue::keepNewestNoLock(lock, out, reput);
    }
    bool dequeueObjectNoLock(const int& obj, bool all) override {
        return Queue::dequeueObjectNoLock(obj, all);
    }
    bool isEnabled() override { return Queue::isEnabled(); }
    void setEnabled(bool enabled) override { Queue::setEnabled(enabled); }
    bool isInterrupted() override { return Queue::isInterrupted(); }
    void setInterrupted(bool interrupted) override { Queue::setInterrupted(interrupted); }
    bool empty() override { return Queue::empty(); }
    std::size_t size() override { return Queue::size(); }
    PauseResult setPaused(bool paused) override { return Queue::setPaused(paused); }
    bool isPaused() override { return Queue::isPaused(); }
    void clear() override { Queue::clear(); }

    int tryPuts = 0;
};

static_assert(
    hasOverload<bool (Zu::ConditionVariable::*)(std::unique_lock<std::mutex>&, const SteadyPoint&)>(
        &Zu::ConditionVariable::waitUntil));
static_assert(std::is_same_v<
              decltype(&Zu::ConditionVariableBase::getWaitEntry),
              std::shared_ptr<Zu::ConditionVariableBase::Entry> (Zu::ConditionVariableBase::*)()>);
static_assert(std::is_same_v<decltype(&Zu::ConditionVariableBase::notifyAll),
                             void (Zu::ConditionVariableBase::*)()>);

}  // namespace

TEST(CoreInterfaceTest, KeepNewestPutsTheElementBackThroughTheVirtualTryPut) {
    QueueProbe queue(4);
    queue.putObject(1, 0);
    queue.putObject(2, 0);
    std::unique_lock<std::mutex> lock(queue.getMutex());
    const int putsBefore = queue.tryPuts;
    int out = 0;
    EXPECT_TRUE(queue.keepNewestNoLock(lock, out, true));
    EXPECT_EQ(out, 2);
    EXPECT_EQ(queue.tryPuts, putsBefore + 1);
    EXPECT_EQ(queue.size(), 1u);
    out = 0;
    EXPECT_TRUE(queue.keepNewestNoLock(lock, out, false));
    EXPECT_EQ(out, 2);
    EXPECT_EQ(queue.tryPuts, putsBefore + 1);  // no put without reput
    EXPECT_TRUE(queue.empty());
}

TEST(CoreInterfaceTest, TimerMadeWithFlagsZeroAndZeroRunsFromConstruction) {
    const Zu::Timer timer(0, 0);
    EXPECT_TRUE(timer.isRunning());
    EXPECT_LT(timer.getMilliseconds(), 60000u);
}

TEST(CoreInterfaceTest, ThreadMadeFromAContextRunsWhenStartedAndJoins) {
    bool ran = false;
    auto context = std::make_shared<Zu::Thread::Context>(L"probe", [&ran] { ran = true; });
    ThreadProbe thread(context);
    thread.start();
    thread.join();
    EXPECT_TRUE(ran);
    EXPECT_EQ(thread.getName(), L"probe");
}
