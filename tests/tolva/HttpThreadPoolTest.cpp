// The HTTP library's thread pool as the library sizes it: the host's call, the environment
// variable, the default, the log lines when it is too late, and request/reply between two API
// objects with a pool of one thread and with the default. Each test runs in a process of its
// own, so each may size the pool afresh.
#include "MailTestSupport.h"

#include <TolvaCore/WebUtils.h>

#include <ZuCore/InvalidArgumentException.h>

#include <condition_variable>
#include <deque>
#include <fstream>
#include <thread>

#include <pplx/threadpool.h>

namespace TolvaRestTest {
namespace {

using TolvaTest::threadsNamed;

using Varkel::Tolva::WebUtils::setHttpThreadPoolSize;
using Clock = std::chrono::steady_clock;

// Threads that carry the process's own name. The HTTP library's pool threads have no name of
// their own; the library's threads all have one.
std::size_t unnamedThreads() {
    std::ifstream comm("/proc/self/comm");
    std::string name;
    std::getline(comm, name);
    return threadsNamed(name);
}

// The pool threads that settling the pool makes now (the fixture's emulator runs already).
std::size_t poolThreadsMadeBySettling() {
    const std::size_t before = unnamedThreads();
    Varkel::Tolva::WebUtils::settleHttpThreadPool();
    return unnamedThreads() - before;
}

bool hasRecord(const LogRecords& records, const std::string& level, const std::wstring& text) {
    for (const auto& record : records.records()) {
        if (record.logger == "TolvaCore.WebUtil" && record.level == level &&
            record.message == text) {
            return true;
        }
    }
    return false;
}

// Answers every request "pong to <content>" on replyTopic from a thread of its own, so that
// the listener itself returns at once.
class QueuedResponder : public MailboxListener {
  public:
    QueuedResponder(std::shared_ptr<QxPlatformApi> api, std::wstring replyTopic)
        : api_(std::move(api)), replyTopic_(std::move(replyTopic)), worker_([this] { run(); }) {}
    ~QueuedResponder() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        changed_.notify_all();
        worker_.join();
    }
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(content);
        changed_.notify_all();
    }

  private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [&] { return stop_ || !requests_.empty(); });
            if (stop_) {
                return;
            }
            const std::wstring content = requests_.front();
            requests_.pop_front();
            lock.unlock();
            api_->postNotification(replyTopic_, L"pong to " + content, 0);
            lock.lock();
        }
    }
    std::shared_ptr<QxPlatformApi> api_;
    std::wstring replyTopic_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::wstring> requests_;
    bool stop_ = false;
    std::thread worker_;
};

// Answers from inside the listener: it holds its delivery thread for the post.
class DirectResponder : public MailboxListener {
  public:
    DirectResponder(std::shared_ptr<QxPlatformApi> api, std::wstring replyTopic)
        : api_(std::move(api)), replyTopic_(std::move(replyTopic)) {}
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        api_->postNotification(replyTopic_, L"pong to " + content, 0);
    }

  private:
    std::shared_ptr<QxPlatformApi> api_;
    std::wstring replyTopic_;
};

// Answers by asking another service first (request/reply from inside the listener).
class RelayResponder : public MailboxListener {
  public:
    RelayResponder(std::shared_ptr<QxPlatformApi> api, std::wstring replyTopic)
        : api_(std::move(api)), replyTopic_(std::move(replyTopic)) {}
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        const std::wstring inner = api_->postNotificationAndWaitForReply(
            L"inner/requests", content, L"inner/replies", Clock::now() + std::chrono::seconds(20));
        api_->postNotification(replyTopic_, L"relayed " + inner, 0);
    }

  private:
    std::shared_ptr<QxPlatformApi> api_;
    std::wstring replyTopic_;
};

class HttpThreadPoolTest : public MailTest {
  protected:
    // A mailbox of `api` on requestTopic with `listener` attached, polled once.
    template <class Listener>
    std::shared_ptr<Mailbox> serve(const std::shared_ptr<QxPlatformApi>& api,
                                   const std::wstring& requestTopic,
                                   const std::shared_ptr<Listener>& listener) {
        auto inbox = newMailbox();
        inbox->addListener(listener);
        api->createMailbox(inbox, requestTopic);
        EXPECT_EQ(waitForPolls(*inbox, 1).size(), 1u);
        return inbox;
    }
};

TEST_F(HttpThreadPoolTest, APoolOfOneServesTwoApiObjectsWhoseListenersDoNotBlock) {
    ASSERT_TRUE(setHttpThreadPoolSize(1));
    std::shared_ptr<QxPlatformApi> responder = makeApi();
    const auto requester = makeApi();
    auto listener = std::make_shared<QueuedResponder>(responder, L"replies/one");
    auto inbox = serve(responder, L"service/requests", listener);

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(requester->postNotificationAndWaitForReply(
                      L"service/requests", L"ping" + std::to_wstring(i), L"replies/one",
                      Clock::now() + std::chrono::seconds(20)),
                  L"pong to ping" + std::to_wstring(i));
    }
    listener.reset();
    stopServing(std::move(responder), std::move(inbox));
}

TEST_F(HttpThreadPoolTest, TheDefaultPoolServesAListenerThatPostsItself) {
    auto responder = makeApi();
    const auto requester = makeApi();
    auto inbox =
        serve(responder, L"service/requests", std::make_shared<DirectResponder>(responder, L"r/2"));
    EXPECT_EQ(requester->postNotificationAndWaitForReply(L"service/requests", L"ping", L"r/2",
                                                         Clock::now() + std::chrono::seconds(20)),
              L"pong to ping");
    stopServing(std::move(responder), std::move(inbox));
}

TEST_F(HttpThreadPoolTest, TheDefaultPoolServesAListenerThatDoesRequestAndReplyItself) {
    auto inner = makeApi();
    auto relay = makeApi();
    const auto requester = makeApi();
    auto innerInbox =
        serve(inner, L"inner/requests", std::make_shared<DirectResponder>(inner, L"inner/replies"));
    auto relayInbox =
        serve(relay, L"outer/requests", std::make_shared<RelayResponder>(relay, L"outer/replies"));
    EXPECT_EQ(
        requester->postNotificationAndWaitForReply(L"outer/requests", L"ping", L"outer/replies",
                                                   Clock::now() + std::chrono::seconds(30)),
        L"relayed pong to ping");
    stopServing(std::move(relay), std::move(relayInbox));
    stopServing(std::move(inner), std::move(innerInbox));
}

TEST_F(HttpThreadPoolTest, TheHeartbeatRunsOnAThreadOfItsOwn) {
    ASSERT_TRUE(setHttpThreadPoolSize(1));
    const auto api = makeApi();
    // Linux keeps the first 15 bytes of a thread name.
    EXPECT_TRUE(
        waitUntil([] { return threadsNamed("QXP heartbeat t") != 0; }, std::chrono::seconds(10)));
    EXPECT_EQ(threadsNamed("QXP heartbeat t"), 1u);
    // With the only pool thread free, a post still goes through.
    EXPECT_NO_THROW(api->postNotification(L"t", L"c", 0));
}

TEST_F(HttpThreadPoolTest, TheDefaultSizeIsApplied) {
    EXPECT_EQ(poolThreadsMadeBySettling(), Varkel::Tolva::WebUtils::kDefaultHttpThreads);
    const auto api = makeApi();
    EXPECT_FALSE(api->getCurrentAccessToken().empty());
}

TEST_F(HttpThreadPoolTest, ASizeSetAfterTheFirstClientIsNotAppliedAndSaysSo) {
    const auto api = makeApi();
    // A new thread carries the process's name until it names itself: the object's heartbeat
    // thread is counted once it has, so that only the pool's threads count below.
    ASSERT_TRUE(
        waitUntil([] { return threadsNamed("QXP heartbeat t") != 0; }, std::chrono::seconds(10)));
    const LogRecords records;
    const std::size_t threads = unnamedThreads();
    EXPECT_FALSE(setHttpThreadPoolSize(3));
    EXPECT_EQ(poolThreadsMadeBySettling(), 0u);
    EXPECT_EQ(unnamedThreads(), threads);
    EXPECT_TRUE(hasRecord(records, "warn",
                          L"The HTTP thread pool is already running; 3 threads cannot be applied "
                          L"any more."));
}

TEST_F(HttpThreadPoolTest, APoolTheHostMadeIsKeptAndTheLibrarySaysSo) {
    const std::size_t before = unnamedThreads();
    crossplat::threadpool::initialize_with_threads(3);
    EXPECT_EQ(unnamedThreads() - before, 3u);
    const LogRecords records;
    EXPECT_EQ(poolThreadsMadeBySettling(), 0u);
    const auto api = makeApi();
    EXPECT_TRUE(hasRecord(records, "warn",
                          L"The HTTP thread pool was already running; its size is kept and " +
                              std::to_wstring(Varkel::Tolva::WebUtils::kDefaultHttpThreads) +
                              L" threads are not applied."));
    EXPECT_NO_THROW(api->postNotification(L"t", L"c", 0));
}

TEST_F(HttpThreadPoolTest, TheEnvironmentVariableSetsTheSize) {
    const ScopedEnv threads("TOLVA_HTTP_THREADS", std::string("3"));
    Varkel::Zu::Logger::configureLevels("TolvaCore.WebUtil=debug");
    const LogRecords records;
    EXPECT_EQ(poolThreadsMadeBySettling(), 3u);
    Varkel::Zu::Logger::reloadConfiguration();
    EXPECT_TRUE(hasRecord(records, "debug", L"HTTP thread pool: 3 threads."));
}

TEST_F(HttpThreadPoolTest, ABadEnvironmentValueFallsBackToTheDefault) {
    const ScopedEnv threads("TOLVA_HTTP_THREADS", std::string("many"));
    Varkel::Zu::Logger::configureLevels("TolvaCore.WebUtil=debug");
    const LogRecords records;
    EXPECT_EQ(poolThreadsMadeBySettling(), Varkel::Tolva::WebUtils::kDefaultHttpThreads);
    Varkel::Zu::Logger::reloadConfiguration();
    EXPECT_TRUE(hasRecord(records, "warn",
                          L"TOLVA_HTTP_THREADS is not a number from 1 to 256; the HTTP thread "
                          L"pool gets its default size."));
    EXPECT_TRUE(hasRecord(records, "debug",
                          L"HTTP thread pool: " +
                              std::to_wstring(Varkel::Tolva::WebUtils::kDefaultHttpThreads) +
                              L" threads."));
}

TEST_F(HttpThreadPoolTest, TheHostsCallWinsOverTheEnvironment) {
    const ScopedEnv threads("TOLVA_HTTP_THREADS", std::string("3"));
    ASSERT_TRUE(setHttpThreadPoolSize(5));
    Varkel::Zu::Logger::configureLevels("TolvaCore.WebUtil=debug");
    const LogRecords records;
    EXPECT_EQ(poolThreadsMadeBySettling(), 5u);
    Varkel::Zu::Logger::reloadConfiguration();
    EXPECT_TRUE(hasRecord(records, "debug", L"HTTP thread pool: 5 threads."));
}

TEST_F(HttpThreadPoolTest, ZeroThreadsIsRefused) {
    EXPECT_THROW(setHttpThreadPoolSize(0), Varkel::Zu::InvalidArgumentException);
    EXPECT_THROW(setHttpThreadPoolSize(257), Varkel::Zu::InvalidArgumentException);
}

}  // namespace
}  // namespace TolvaRestTest
