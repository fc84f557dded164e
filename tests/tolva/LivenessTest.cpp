// Liveness: the library never freezes its host. Heartbeats held by a slow platform while polls
// fail (dropped connections, 500 answers), a slow token renewal inside the heartbeat pass,
// listeners that post, wait for replies, block, delete their own mailbox or let go of the last
// reference to the API object, and destruction with many polls outstanding. Each case checks
// what the platform received, not only that nothing hung.
//
// Every case runs its scenario on a thread of its own under a watchdog: a scenario that has not
// ended after kWatchdogBound prints which case hung, at which step, and the end of the debug
// log, and ends the process at once, so a hang fails that case instead of stopping the run.
//
// Every case runs with HTTP thread pools of 1, 2 (the library's default) and 4 threads;
// each case is a process of its own, so the size set at its start applies.
#include "MailTestSupport.h"
#include "ModelTestSupport.h"

#include <TolvaCore/WebUtils.h>

#include <ZuCore/CommonUtil.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <cpprest/json.h>

namespace TolvaRestTest {
namespace {

using Clock = std::chrono::steady_clock;
using Varkel::Tolva::WebUtils::setHttpThreadPoolSize;
using Varkel::Zu::narrow;

// A scenario that has not ended by then is taken as hung (the plain build needs under 30 s for
// each; the sanitizer builds on two shared cores need more).
constexpr std::chrono::seconds kWatchdogBound(90);
// A signal that comes promptly when nothing is stuck.
constexpr std::chrono::seconds kPrompt(20);
// A heartbeat: the 5-second period, a held pass and a loaded machine.
constexpr std::chrono::seconds kBeatWait(25);
// A call that may wait for a heartbeat pass under way (unregistration, destruction).
constexpr std::chrono::seconds kCallBound(20);
// How long a held heartbeat request (or token renewal) is kept waiting by the platform: well
// beyond what the failing polls need to go round while it is held.
constexpr int kHoldMs = 10000;

constexpr const char* kServicePath = "/discovery/api/v1/service";
constexpr const char* kItTook = "TRACE: It took ";

// ---------------------------------------------------------------------------------------------
// Small synchronisation helpers for listeners and the scenario thread.

// Opens once; waiters wake when it does.
class Latch {
  public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

// Counts events; waiters wake when the count reaches theirs.
class Counter {
  public:
    void add() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
    }
    std::size_t value() {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t count_ = 0;
};

// Lets `parties` listeners go on at the same instant: each waits until all have arrived, but no
// longer than `patience` after the first arrival, so a library that runs them one after the
// other is delayed once, not stopped.
class StartGate {
  public:
    StartGate(std::size_t parties, std::chrono::milliseconds patience)
        : parties_(parties), patience_(patience) {}
    void arriveAndWait() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (arrived_++ == 0) {
            deadline_ = Clock::now() + patience_;
        }
        changed_.notify_all();
        changed_.wait_until(lock, deadline_, [&] { return arrived_ >= parties_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    const std::size_t parties_;
    const std::chrono::milliseconds patience_;
    std::size_t arrived_ = 0;
    Clock::time_point deadline_;
};

// Runs `action` when the scope ends, however it ends (a failed ASSERT returns early): used to
// release listeners that a scenario holds, so that the API object's destruction never waits for
// a listener nobody will release.
class OnScopeExit {
  public:
    explicit OnScopeExit(std::function<void()> action) : action_(std::move(action)) {}
    ~OnScopeExit() { action_(); }
    OnScopeExit(const OnScopeExit&) = delete;
    OnScopeExit& operator=(const OnScopeExit&) = delete;

  private:
    std::function<void()> action_;
};

// Failures seen on listener threads, reported by the scenario.
class Failures {
  public:
    void add(const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        texts_.push_back(text);
    }
    std::vector<std::string> texts() {
        std::lock_guard<std::mutex> lock(mutex_);
        return texts_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> texts_;
};

// ---------------------------------------------------------------------------------------------
// Listeners.

// Posts "echo <index>" on liveness/echo for every mail, all of them at the same instant.
class EchoListener : public MailboxListener {
  public:
    struct Shared {
        explicit Shared(std::size_t parties) : gate(parties, std::chrono::seconds(5)) {}
        StartGate gate;
        Counter posted;
        Failures failures;
    };
    EchoListener(std::weak_ptr<QxPlatformApi> api, int index, std::shared_ptr<Shared> shared)
        : api_(std::move(api)), index_(index), shared_(std::move(shared)) {}
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        shared_->gate.arriveAndWait();
        const auto api = api_.lock();
        if (!api) {
            shared_->failures.add("echo " + std::to_string(index_) + ": the API object is gone");
            return;
        }
        try {
            api->postNotification(L"liveness/echo", L"echo " + std::to_wstring(index_), 0);
            shared_->posted.add();
        } catch (const std::exception& e) {
            shared_->failures.add("echo " + std::to_string(index_) + ": " + e.what());
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
    int index_;
    std::shared_ptr<Shared> shared_;
};

// For every mail, asks "<index>" on liveness/request and waits for the reply on
// liveness/reply/<index>, all of them at the same instant.
class RequesterListener : public MailboxListener {
  public:
    struct Shared {
        explicit Shared(std::size_t parties) : gate(parties, std::chrono::seconds(5)) {}
        StartGate gate;
        Counter answered;
        Failures failures;
        std::mutex mutex;
        std::map<int, std::wstring> replies;
    };
    RequesterListener(std::weak_ptr<QxPlatformApi> api, int index, std::shared_ptr<Shared> shared)
        : api_(std::move(api)), index_(index), shared_(std::move(shared)) {}
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        shared_->gate.arriveAndWait();
        const auto api = api_.lock();
        if (!api) {
            shared_->failures.add("request " + std::to_string(index_) + ": the API is gone");
            return;
        }
        try {
            const std::wstring reply =
                api->postNotificationAndWaitForReply(L"liveness/request", std::to_wstring(index_),
                                                     L"liveness/reply/" + std::to_wstring(index_),
                                                     Clock::now() + std::chrono::seconds(30));
            {
                std::lock_guard<std::mutex> lock(shared_->mutex);
                shared_->replies[index_] = reply;
            }
            shared_->answered.add();
        } catch (const std::exception& e) {
            shared_->failures.add("request " + std::to_string(index_) + ": " + e.what());
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
    int index_;
    std::shared_ptr<Shared> shared_;
};

// Answers "<index>" with "answer <index>" on liveness/reply/<index>, from inside the listener.
class ResponderListener : public MailboxListener {
  public:
    ResponderListener(std::weak_ptr<QxPlatformApi> api, std::shared_ptr<Failures> failures)
        : api_(std::move(api)), failures_(std::move(failures)) {}
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        const auto api = api_.lock();
        if (!api) {
            failures_->add("responder: the API object is gone");
            return;
        }
        try {
            api->postNotification(L"liveness/reply/" + content, L"answer " + content, 0);
        } catch (const std::exception& e) {
            failures_->add(std::string("responder: ") + e.what());
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
    std::shared_ptr<Failures> failures_;
};

// Records every mail; on the mail "block" it blocks until released (at most 60 s).
class BlockingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            mail_.push_back(content);
        }
        received_.add();
        if (content == L"block") {
            entered_.open();
            if (!release_.wait(std::chrono::seconds(60))) {
                gaveUp_ = true;
            }
        }
    }
    bool waitEntered(std::chrono::milliseconds timeout) { return entered_.wait(timeout); }
    bool waitForMail(std::size_t count, std::chrono::milliseconds timeout) {
        return received_.waitFor(count, timeout);
    }
    void release() { release_.open(); }
    bool gaveUp() const { return gaveUp_; }
    std::vector<std::wstring> mail() {
        std::lock_guard<std::mutex> lock(mutex_);
        return mail_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::wstring> mail_;
    Counter received_;
    Latch entered_;
    Latch release_;
    std::atomic<bool> gaveUp_{false};
};

// Deletes its own mailbox from inside the listener.
class SelfDeletingListener : public MailboxListener {
  public:
    struct Shared {
        Latch done;
        std::mutex mutex;
        std::string failure;
        bool deleted = false;
    };
    SelfDeletingListener(std::weak_ptr<QxPlatformApi> api, std::weak_ptr<Mailbox> own,
                         std::shared_ptr<Shared> shared)
        : api_(std::move(api)), own_(std::move(own)), shared_(std::move(shared)) {}
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        std::string failure;
        bool deleted = false;
        const auto api = api_.lock();
        const auto own = own_.lock();
        if (!api || !own) {
            failure = "the API object or the mailbox is gone";
        } else {
            try {
                api->deleteMailbox(own);
                deleted = true;
            } catch (const std::exception& e) {
                failure = e.what();
            }
        }
        {
            std::lock_guard<std::mutex> lock(shared_->mutex);
            shared_->failure = failure;
            shared_->deleted = deleted;
        }
        shared_->done.open();
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
    std::weak_ptr<Mailbox> own_;
    std::shared_ptr<Shared> shared_;
};

// Takes the API object from a weak pointer on its first mail, waits until the host has let go
// of its own reference, posts "still here" on liveness/last-words and lets the object go: the
// destructor runs inside this listener.
class LastOwnerListener : public MailboxListener {
  public:
    struct Shared {
        Latch entered;
        Latch hostDropped;
        Latch finished;
        std::atomic<bool> posted{false};
        Failures failures;
    };
    LastOwnerListener(std::weak_ptr<QxPlatformApi> api, std::shared_ptr<Shared> shared)
        : api_(std::move(api)), shared_(std::move(shared)) {}
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        auto api = api_.lock();
        shared_->entered.open();
        if (!shared_->hostDropped.wait(std::chrono::seconds(60))) {
            shared_->failures.add("the host never let go of its reference");
        }
        if (api) {
            try {
                api->postNotification(L"liveness/last-words", L"still here", 0);
                shared_->posted = true;
            } catch (const std::exception& e) {
                shared_->failures.add(std::string("post: ") + e.what());
            }
        } else {
            shared_->failures.add("the API object was gone when the mail came");
        }
        api.reset();  // the last reference: the destructor runs here
        shared_->finished.open();
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
    std::shared_ptr<Shared> shared_;
};

// ---------------------------------------------------------------------------------------------
// Platform-side helpers.

std::string pathOf(const std::string& target) {
    return target.substr(0, target.find('?'));
}

// The path of every mailbox's poll.
std::string anyPollPattern() {
    return std::string(kNotificationsPath) + "/[^/]+";
}

bool isPollOf(const qxpemu::RecordedRequest& request, const Mailbox& mailbox) {
    return request.method == "GET" && pathOf(request.target) == pollPath(mailbox);
}

bool isTokenRequest(const qxpemu::RecordedRequest& request) {
    return request.method == "POST" && request.target == kTokenPath;
}

// Matches the heartbeat of the service with this id whatever its secret, so that the rule can
// be added before the service is registered.
std::string healthPattern(const ModelServiceInfo& info) {
    return std::string(kServicePath) + "/" + info.serviceId->toString() + "/[^/]+/health";
}

std::function<bool(const qxpemu::RecordedRequest&)> isHeartbeatOf(const ModelServiceInfo& info) {
    const std::string id = info.serviceId->toString();
    const std::string prefix = std::string(kServicePath) + "/" + id + "/";
    return [prefix](const qxpemu::RecordedRequest& request) {
        const std::string path = pathOf(request.target);
        return request.method == "PUT" && path.rfind(prefix, 0) == 0 && path.size() > 7 &&
               path.compare(path.size() - 7, 7, "/health") == 0;
    };
}

// A rule that keeps the first matching request waiting `delayMs`, then handles it normally.
qxpemu::FaultRule holdRule(const std::string& method, const std::string& pathPattern, int delayMs) {
    qxpemu::FaultRule rule;
    rule.method = method;
    rule.pathPattern = pathPattern;
    rule.delayMs = delayMs;
    rule.times = 1;
    return rule;
}

// (topic, content) of a notification POST, if the request is one.
std::optional<std::pair<std::string, std::string>> postedNotification(
    const qxpemu::RecordedRequest& request) {
    if (request.method != "POST" || request.target != kNotificationsPath) {
        return std::nullopt;
    }
    try {
        const auto body = web::json::value::parse(request.body);
        return std::make_pair(body.at("topic").as_string(), body.at("content").as_string());
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::string deleteLine(int status, const Mailbox& mailbox) {
    return "ERROR: Received status code " + std::to_string(status) +
           " when attempting to get mail for mailbox : " + mailboxIdText(mailbox) +
           ". Will delete mailbox.";
}

struct Inbox {
    std::shared_ptr<Mailbox> mailbox;
    std::shared_ptr<RecordingListener> listener;
};

// ---------------------------------------------------------------------------------------------
// The fixture.

class LivenessBase : public RestTest, public ::testing::WithParamInterface<std::size_t> {
  protected:
    explicit LivenessBase(int maxPollSeconds) : RestTest(options(maxPollSeconds)) {}

    static qxpemu::EmulatorOptions options(int maxPollSeconds) {
        qxpemu::EmulatorOptions emulatorOptions = testEmulatorOptions();
        emulatorOptions.maxPollSeconds = maxPollSeconds;
        return emulatorOptions;
    }

    void SetUp() override {
        // The size applies only before the first client of the process; CTest runs every case
        // in a process of its own.
        static int casesInThisProcess = 0;
        const bool first = casesInThisProcess++ == 0;
        if (!setHttpThreadPoolSize(GetParam())) {
            if (first) {
                FAIL() << "the HTTP thread pool was settled before this case began";
            }
            GTEST_SKIP() << "the HTTP thread pool was sized by an earlier case of this process; "
                            "run each case in a process of its own (as CTest does)";
        }
        RestTest::SetUp();
    }

    // Runs the scenario on a thread of its own; if it has not ended after kWatchdogBound, says
    // which case hung at which step and ends the process at once.
    void runBounded(std::function<void()> scenario, std::chrono::seconds bound = kWatchdogBound) {
        scenarioStart_ = Clock::now();
        struct Outcome {
            std::mutex mutex;
            std::condition_variable changed;
            bool done = false;
        };
        const auto outcome = std::make_shared<Outcome>();
        std::thread worker([outcome, scenario = std::move(scenario)] {
            try {
                scenario();
            } catch (const std::exception& e) {
                ADD_FAILURE() << "the scenario threw: " << e.what();
            } catch (...) {
                ADD_FAILURE() << "the scenario threw something that is not a std::exception";
            }
            std::lock_guard<std::mutex> lock(outcome->mutex);
            outcome->done = true;
            outcome->changed.notify_all();
        });
        std::unique_lock<std::mutex> lock(outcome->mutex);
        if (!outcome->changed.wait_for(lock, bound, [&] { return outcome->done; })) {
            reportHang(bound);
            std::_Exit(1);
        }
        lock.unlock();
        worker.join();
        if (::testing::Test::HasFailure()) {
            // A library that failed a case may also have left a thread stuck where the
            // process's exit would join it: the case ends here, failed, whatever that thread
            // does.
            std::fprintf(stderr, "\nLIVENESS: %s failed; the process ends now.\n",
                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
            std::fflush(stdout);
            std::fflush(stderr);
            std::_Exit(1);
        }
    }

    // Names the step the scenario is at, for the watchdog's report, and prints it with the time
    // since the scenario began (shown by CTest for a failing case).
    void step(const std::string& what) {
        const double seconds = std::chrono::duration<double>(Clock::now() - scenarioStart_).count();
        std::lock_guard<std::mutex> lock(stepMutex_);
        step_ = what;
        std::printf("[ liveness ] %6.1f s: %s\n", seconds, what.c_str());
        std::fflush(stdout);
    }

    // Records of the platform, and waits on them.
    std::size_t mark() const { return emulator_.requests().size(); }

    std::vector<qxpemu::RecordedRequest> since(std::size_t from) const {
        auto all = emulator_.requests();
        if (from >= all.size()) {
            return {};
        }
        return std::vector<qxpemu::RecordedRequest>(
            std::make_move_iterator(all.begin() + static_cast<std::ptrdiff_t>(from)),
            std::make_move_iterator(all.end()));
    }

    std::size_t countSince(
        std::size_t from,
        const std::function<bool(const qxpemu::RecordedRequest&)>& matches) const {
        const auto records = since(from);
        return static_cast<std::size_t>(std::count_if(records.begin(), records.end(), matches));
    }

    // Index of the first record from `from` on that matches, if there is one.
    std::optional<std::size_t> firstSince(
        std::size_t from,
        const std::function<bool(const qxpemu::RecordedRequest&)>& matches) const {
        const auto all = emulator_.requests();
        for (std::size_t i = from; i < all.size(); ++i) {
            if (matches(all[i])) {
                return i;
            }
        }
        return std::nullopt;
    }

    // Checks `condition` every `interval` until it holds or `timeout` passes.
    static bool eventually(const std::function<bool()>& condition,
                           std::chrono::milliseconds timeout,
                           std::chrono::milliseconds interval = std::chrono::milliseconds(50)) {
        const auto deadline = Clock::now() + timeout;
        while (!condition()) {
            if (Clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(interval);
        }
        return true;
    }

    bool waitForSince(std::size_t from,
                      const std::function<bool(const qxpemu::RecordedRequest&)>& matches,
                      std::size_t count, std::chrono::milliseconds timeout) const {
        return eventually([&] { return countSince(from, matches) >= count; }, timeout);
    }

    // Whether every mailbox has at least `count` polls recorded from `from` on.
    bool allPolledSince(std::size_t from, const std::vector<Inbox>& inboxes,
                        std::size_t count) const {
        const auto records = since(from);
        for (const auto& inbox : inboxes) {
            const auto polls = std::count_if(
                records.begin(), records.end(),
                [&](const qxpemu::RecordedRequest& r) { return isPollOf(r, *inbox.mailbox); });
            if (static_cast<std::size_t>(polls) < count) {
                return false;
            }
        }
        return true;
    }

    // Heartbeats the platform answered 204 for this service (its own count), -1 when it does
    // not know the service.
    long long beatsAnswered(const ModelServiceInfo& info) const {
        const auto state = web::json::value::parse(emulator_.state());
        for (const auto& service : state.at("services").as_array()) {
            if (service.at("serviceId").as_string() == info.serviceId->toString()) {
                return static_cast<long long>(service.at("heartbeats").as_number().to_int64());
            }
        }
        return -1;
    }

    // `count` mailboxes on `topic`, each with a recording listener, each polled once.
    std::vector<Inbox> openInboxes(TestApi& api, std::size_t count, const std::wstring& topic) {
        const std::size_t from = mark();
        std::vector<Inbox> inboxes;
        for (std::size_t i = 0; i < count; ++i) {
            Inbox inbox{Varkel::Zu::MakeShared::create<Mailbox>(),
                        std::make_shared<RecordingListener>()};
            inbox.mailbox->addListener(inbox.listener);
            api.createMailbox(inbox.mailbox, topic);
            inboxes.push_back(std::move(inbox));
        }
        EXPECT_TRUE(eventually([&] { return allPolledSince(from, inboxes, 1); }, kPrompt))
            << "not every new mailbox was polled";
        return inboxes;
    }

    // Whether every listener got a mail with this content within `timeout` (all together).
    static bool allReceived(const std::vector<Inbox>& inboxes, const std::wstring& content,
                            std::chrono::milliseconds timeout) {
        return eventually(
            [&] {
                return std::all_of(inboxes.begin(), inboxes.end(), [&](const Inbox& inbox) {
                    const auto mail = inbox.listener->waitFor(0);
                    return std::any_of(mail.begin(), mail.end(),
                                       [&](const auto& m) { return m.second == content; });
                });
            },
            timeout);
    }

    std::shared_ptr<ModelServiceInfo> registerService(TestApi& api) {
        auto info = completeServiceInfo();
        api.registerService(info);
        return info;
    }

    // Registers a service whose first heartbeat the platform holds for holdMs (the rule is
    // added before registration, so the very first beat is the held one), and waits until that
    // beat has reached the platform: from then on the heartbeat pass is held.
    std::shared_ptr<ModelServiceInfo> registerWithHeldFirstBeat(TestApi& api,
                                                                int holdMs = kHoldMs) {
        auto info = completeServiceInfo();
        emulator_.addFault(holdRule("PUT", healthPattern(*info), holdMs));
        const std::size_t from = mark();
        api.registerService(info);
        step("waiting for the held heartbeat");
        EXPECT_TRUE(waitForSince(from, isHeartbeatOf(*info), 1, kBeatWait))
            << "no heartbeat reached the platform";
        return info;
    }

    // Heartbeats resume: at least `recorded` reach the platform from record `from` on, and it
    // answers (204) at least `answered` more than `answeredBefore`.
    void expectHeartbeatsResume(const ModelServiceInfo& info, std::size_t from,
                                long long answeredBefore, std::size_t recorded,
                                long long answered) {
        step("waiting for heartbeats to resume");
        EXPECT_TRUE(waitForSince(from, isHeartbeatOf(info), recorded, kBeatWait))
            << "fewer than " << recorded << " heartbeats reached the platform after the faults";
        EXPECT_TRUE(
            eventually([&] { return beatsAnswered(info) >= answeredBefore + answered; }, kPrompt))
            << "the platform answered " << beatsAnswered(info) << " heartbeats, " << answeredBefore
            << " before";
    }

    // unregisterAllServices returns within a bound, and the platform got the DELETE.
    void expectUnregisterBounded(TestApi& api, const ModelServiceInfo& info) {
        step("unregistering every service");
        const std::string target = std::string(kServicePath) + "/" + info.serviceId->toString() +
                                   "/" + narrow(info.serviceSecret);
        const std::size_t from = mark();
        const auto started = Clock::now();
        api.unregisterAllServices();
        EXPECT_LT(Clock::now() - started, kCallBound);
        EXPECT_EQ(countSince(from,
                             [&](const qxpemu::RecordedRequest& r) {
                                 return r.method == "DELETE" && r.target == target;
                             }),
                  1u);
    }

    // Destroys the object within a bound; its destructor writes its "It took" line.
    void endApi(std::shared_ptr<TestApi>& api, const DebugLogTail& log) {
        step("destroying the API object");
        const std::size_t before = log.countLinesStartingWith(kItTook);
        const auto started = Clock::now();
        api.reset();
        EXPECT_LT(Clock::now() - started, kCallBound);
        // A listener that holds the object for a moment (through its weak_ptr) may be the one
        // that lets go last, so the destructor may end on that listener's thread.
        EXPECT_TRUE(eventually([&] { return log.countLinesStartingWith(kItTook) == before + 1; },
                               kCallBound))
            << log.text();
    }

  private:
    void reportHang(std::chrono::seconds bound) {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string where;
        {
            std::lock_guard<std::mutex> lock(stepMutex_);
            where = step_;
        }
        const std::string log = TolvaTest::readDebugLog();
        const std::size_t tailStart = log.size() > 4000 ? log.size() - 4000 : 0;
        std::fflush(stdout);
        std::fprintf(
            stderr,
            "\nWATCHDOG: %s.%s did not finish within %lld s (last step: %s); the library "
            "is taken as hung and the process ends now.\nWorking directory: %s\nEnd of the "
            "debug log:\n%s\n",
            test ? test->test_suite_name() : "?", test ? test->name() : "?",
            static_cast<long long>(bound.count()), where.c_str(),
            TolvaTest::workDirectory().string().c_str(), log.substr(tailStart).c_str());
        std::fflush(stderr);
    }

    std::mutex stepMutex_;
    std::string step_ = "starting";
    Clock::time_point scenarioStart_ = Clock::now();
};

// Long polls end after one second, so failing polls go round quickly.
class LivenessTest : public LivenessBase {
  protected:
    LivenessTest() : LivenessBase(1) {}
};

// Long polls stay parked for the platform's full 30 s: outstanding polls for a whole case.
class LivenessParkedPollsTest : public LivenessBase {
  protected:
    LivenessParkedPollsTest() : LivenessBase(30) {}
};

// ---------------------------------------------------------------------------------------------
// The cases.

TEST_P(LivenessTest, HeartbeatsAndPollsResumeAfterAHeldHeartbeatAndDroppedPolls) {
    runBounded([this] {
        const DebugLogTail log;
        auto api = makeApi();
        step("opening six mailboxes");
        const auto inboxes = openInboxes(*api, 6, L"liveness/outage");
        const auto info = registerWithHeldFirstBeat(*api);
        const long long answeredAtHold = beatsAnswered(*info);

        step("dropping every poll while the heartbeat is held");
        const std::size_t dropMark = mark();
        emulator_.addFault(dropRule("GET", anyPollPattern()));
        // Three records for a mailbox: at least two polls of the library (it may send a dropped
        // request once more itself), so a failed poll was retried while the pass was held.
        EXPECT_TRUE(eventually([&] { return allPolledSince(dropMark, inboxes, 3); }, kPrompt))
            << "failed polls were not retried";
        EXPECT_EQ(beatsAnswered(*info), answeredAtHold)
            << "the retries came only after the held heartbeat had been answered";

        step("clearing the faults; the held heartbeat keeps its delay");
        const std::size_t clearMark = mark();
        emulator_.clearFaults();
        EXPECT_TRUE(eventually([&] { return allPolledSince(clearMark, inboxes, 1); }, kPrompt))
            << "not every mailbox polled again";
        api->postNotification(L"liveness/outage", L"after the outage", 0);
        EXPECT_TRUE(allReceived(inboxes, L"after the outage", kPrompt));
        EXPECT_EQ(beatsAnswered(*info), answeredAtHold)
            << "the mailboxes resumed only after the held heartbeat had been answered";

        // The held beat is answered late, and the next pass sends a new one.
        expectHeartbeatsResume(*info, clearMark, answeredAtHold, 1, 2);
        EXPECT_FALSE(api->hasDeletedMailboxes());
        expectUnregisterBounded(*api, *info);
        endApi(api, log);
    });
}

TEST_P(LivenessTest, ASlowTokenRenewalInTheHeartbeatWhilePollsAreAnswered500) {
    runBounded([this] {
        // Tokens live 200 s, less than the renewal margin: every heartbeat pass renews.
        emulator_.setTokenLifetime(200);
        const DebugLogTail log;
        auto api = makeApi();
        step("opening six mailboxes");
        const auto inboxes = openInboxes(*api, 6, L"liveness/renewal");
        const auto info = registerService(*api);

        step("holding the token renewal of the next heartbeat pass");
        const std::size_t holdMark = mark();
        emulator_.addFault(holdRule("POST", kTokenPath, kHoldMs));
        ASSERT_TRUE(waitForSince(holdMark, isTokenRequest, 1, kBeatWait));
        const std::size_t heldToken = *firstSince(holdMark, isTokenRequest);
        const long long answeredAtHold = beatsAnswered(*info);
        const auto passStillHeld = [&] { return countSince(heldToken, isHeartbeatOf(*info)) == 0; };

        step("answering every poll 500");
        const std::size_t refuseMark = mark();
        auto refused = statusRule("GET", anyPollPattern(), 500, "poll refused");
        refused.times = -1;
        emulator_.addFault(refused);
        EXPECT_TRUE(eventually(
            [&] {
                for (const auto& inbox : inboxes) {
                    if (!log.hasLine(deleteLine(500, *inbox.mailbox))) {
                        return false;
                    }
                }
                return true;
            },
            kPrompt))
            << log.text();
        EXPECT_TRUE(passStillHeld())
            << "the mailboxes were dropped only after the held renewal had ended";
        EXPECT_TRUE(allPolledSince(refuseMark, inboxes, 1));

        step("clearing the faults");
        const std::size_t clearMark = mark();
        emulator_.clearFaults();
        // The held pass sends its beat once renewed, and the next pass sends another.
        expectHeartbeatsResume(*info, clearMark, answeredAtHold, 2, 2);
        // The pass renewed again after the held renewal.
        EXPECT_GE(countSince(holdMark, isTokenRequest), 2u);
        EXPECT_TRUE(api->hasDeletedMailboxes());
        // Dropped mailboxes are not polled any more.
        for (const auto& inbox : inboxes) {
            EXPECT_EQ(countSince(clearMark,
                                 [&](const qxpemu::RecordedRequest& r) {
                                     return isPollOf(r, *inbox.mailbox);
                                 }),
                      0u)
                << mailboxIdText(*inbox.mailbox);
        }
        expectUnregisterBounded(*api, *info);
        endApi(api, log);
    });
}

TEST_P(LivenessTest, ASlowTokenRenewalInTheHeartbeatWhilePollConnectionsAreDropped) {
    runBounded([this] {
        emulator_.setTokenLifetime(200);  // every heartbeat pass renews
        const DebugLogTail log;
        auto api = makeApi();
        step("opening six mailboxes");
        const auto inboxes = openInboxes(*api, 6, L"liveness/renewal-drop");
        const auto info = registerService(*api);

        step("holding the token renewal of the next heartbeat pass");
        const std::size_t holdMark = mark();
        emulator_.addFault(holdRule("POST", kTokenPath, kHoldMs));
        ASSERT_TRUE(waitForSince(holdMark, isTokenRequest, 1, kBeatWait));
        const std::size_t heldToken = *firstSince(holdMark, isTokenRequest);
        const long long answeredAtHold = beatsAnswered(*info);
        const auto passStillHeld = [&] { return countSince(heldToken, isHeartbeatOf(*info)) == 0; };

        step("dropping every poll");
        const std::size_t dropMark = mark();
        emulator_.addFault(dropRule("GET", anyPollPattern()));
        EXPECT_TRUE(eventually([&] { return allPolledSince(dropMark, inboxes, 3); }, kPrompt))
            << "failed polls were not retried";
        EXPECT_TRUE(passStillHeld()) << "the retries came only after the held renewal had ended";

        step("clearing the faults; the renewal keeps its delay");
        const std::size_t clearMark = mark();
        emulator_.clearFaults();
        EXPECT_TRUE(eventually([&] { return allPolledSince(clearMark, inboxes, 1); }, kPrompt))
            << "not every mailbox polled again";
        // Posted by another object: this one's own calls may wait for the renewal under way.
        makeApi()->postNotification(L"liveness/renewal-drop", L"after the drops", 0);
        EXPECT_TRUE(allReceived(inboxes, L"after the drops", kPrompt));
        EXPECT_TRUE(passStillHeld())
            << "the mailboxes resumed only after the held renewal had ended";

        // The held pass sends its beat once renewed, and the next pass sends another.
        expectHeartbeatsResume(*info, clearMark, answeredAtHold, 2, 2);
        EXPECT_FALSE(api->hasDeletedMailboxes());
        for (const auto& inbox : inboxes) {
            EXPECT_FALSE(log.hasLine(deleteLine(500, *inbox.mailbox)));
        }
        expectUnregisterBounded(*api, *info);
        endApi(api, log);
    });
}

TEST_P(LivenessTest, SixteenListenersPostAtTheSameInstant) {
    runBounded([this] {
        constexpr int kListeners = 16;
        const DebugLogTail log;
        auto api = makeApi();
        const std::weak_ptr<QxPlatformApi> weakApi = api;
        const auto shared = std::make_shared<EchoListener::Shared>(kListeners);
        step("opening sixteen mailboxes");
        std::vector<Inbox> inboxes;
        const std::size_t openMark = mark();
        for (int i = 0; i < kListeners; ++i) {
            auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
            mailbox->addListener(std::make_shared<EchoListener>(weakApi, i, shared));
            api->createMailbox(mailbox, L"liveness/fanout");
            inboxes.push_back({mailbox, nullptr});
        }
        ASSERT_TRUE(eventually([&] { return allPolledSince(openMark, inboxes, 1); }, kPrompt));

        step("one notification, sixteen posts from the listeners");
        const std::size_t postMark = mark();
        api->postNotification(L"liveness/fanout", L"go", 0);
        const auto isEcho = [](const qxpemu::RecordedRequest& r) {
            const auto posted = postedNotification(r);
            return posted && posted->first == "liveness/echo";
        };
        EXPECT_TRUE(waitForSince(postMark, isEcho, kListeners, kPrompt))
            << countSince(postMark, isEcho) << " posts reached the platform";
        EXPECT_TRUE(shared->posted.waitFor(kListeners, kPrompt));
        for (int i = 0; i < kListeners; ++i) {
            EXPECT_EQ(countSince(postMark,
                                 [&](const qxpemu::RecordedRequest& r) {
                                     const auto posted = postedNotification(r);
                                     return posted && posted->first == "liveness/echo" &&
                                            posted->second == "echo " + std::to_string(i);
                                 }),
                      1u)
                << "echo " << i;
        }
        EXPECT_TRUE(shared->failures.texts().empty())
            << ::testing::PrintToString(shared->failures.texts());
        endApi(api, log);
    });
}

TEST_P(LivenessTest, SixteenListenersWaitForRepliesAtTheSameInstant) {
    runBounded([this] {
        constexpr int kListeners = 16;
        const DebugLogTail log;
        auto api = makeApi();
        const std::weak_ptr<QxPlatformApi> weakApi = api;
        const auto shared = std::make_shared<RequesterListener::Shared>(kListeners);
        const auto responderFailures = std::make_shared<Failures>();
        step("opening the responder and sixteen requesters");
        const std::size_t openMark = mark();
        std::vector<Inbox> inboxes;
        auto responder = Varkel::Zu::MakeShared::create<Mailbox>();
        responder->addListener(std::make_shared<ResponderListener>(weakApi, responderFailures));
        api->createMailbox(responder, L"liveness/request");
        inboxes.push_back({responder, nullptr});
        for (int i = 0; i < kListeners; ++i) {
            auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
            mailbox->addListener(std::make_shared<RequesterListener>(weakApi, i, shared));
            api->createMailbox(mailbox, L"liveness/ask");
            inboxes.push_back({mailbox, nullptr});
        }
        ASSERT_TRUE(eventually([&] { return allPolledSince(openMark, inboxes, 1); }, kPrompt));

        step("sixteen requests and replies from inside listeners");
        const std::size_t askMark = mark();
        api->postNotification(L"liveness/ask", L"go", 0);
        EXPECT_TRUE(shared->answered.waitFor(kListeners, std::chrono::seconds(45)))
            << shared->answered.value() << " of " << kListeners << " requests were answered";
        {
            std::lock_guard<std::mutex> lock(shared->mutex);
            for (int i = 0; i < kListeners; ++i) {
                const auto reply = shared->replies.find(i);
                ASSERT_NE(reply, shared->replies.end()) << "request " << i;
                EXPECT_EQ(reply->second, L"answer " + std::to_wstring(i));
            }
        }
        for (int i = 0; i < kListeners; ++i) {
            const std::string n = std::to_string(i);
            EXPECT_EQ(countSince(askMark,
                                 [&](const qxpemu::RecordedRequest& r) {
                                     const auto posted = postedNotification(r);
                                     return posted && posted->first == "liveness/request" &&
                                            posted->second == n;
                                 }),
                      1u)
                << "request " << n;
            EXPECT_EQ(countSince(askMark,
                                 [&](const qxpemu::RecordedRequest& r) {
                                     const auto posted = postedNotification(r);
                                     return posted && posted->first == "liveness/reply/" + n &&
                                            posted->second == "answer " + n;
                                 }),
                      1u)
                << "reply " << n;
        }
        // Every temporary reply mailbox was created and deleted on the platform.
        EXPECT_EQ(countSince(askMark,
                             [](const qxpemu::RecordedRequest& r) {
                                 return r.method == "POST" && r.target == kMailboxPath;
                             }),
                  static_cast<std::size_t>(kListeners));
        EXPECT_TRUE(waitForSince(
            askMark,
            [](const qxpemu::RecordedRequest& r) {
                return r.method == "DELETE" &&
                       r.target.rfind(std::string(kMailboxPath) + "/", 0) == 0;
            },
            kListeners, kPrompt));
        EXPECT_TRUE(shared->failures.texts().empty())
            << ::testing::PrintToString(shared->failures.texts());
        EXPECT_TRUE(responderFailures->texts().empty())
            << ::testing::PrintToString(responderFailures->texts());
        endApi(api, log);
    });
}

TEST_P(LivenessTest, ABlockedListenerDelaysOnlyItsOwnMailbox) {
    runBounded([this] {
        const DebugLogTail log;
        auto api = makeApi();
        const auto blocker = std::make_shared<BlockingListener>();
        // Released at the end, or here when the scenario stops early.
        const OnScopeExit releaseBlocker([blocker] { blocker->release(); });
        step("opening the blocking mailbox and three others");
        const std::size_t openMark = mark();
        auto slow = Varkel::Zu::MakeShared::create<Mailbox>();
        slow->addListener(blocker);
        api->createMailbox(slow, L"liveness/slow");
        const auto others = openInboxes(*api, 3, L"liveness/quick");
        ASSERT_TRUE(eventually(
            [&] {
                return allPolledSince(openMark, {{slow, nullptr}}, 1);
            },
            kPrompt));
        const auto info = registerService(*api);

        step("blocking one listener");
        api->postNotification(L"liveness/slow", L"block", 0);
        ASSERT_TRUE(blocker->waitEntered(kPrompt));
        const auto blockedAt = Clock::now();
        const std::size_t blockMark = mark();
        const long long answeredAtBlock = beatsAnswered(*info);
        // Queued behind the blocked mail: it comes after it, once the listener returns.
        api->postNotification(L"liveness/slow", L"second", 0);

        step("mail for the other mailboxes while one listener blocks");
        for (int round = 0; round < 3; ++round) {
            const std::wstring content = L"quick " + std::to_wstring(round);
            const auto sent = Clock::now();
            api->postNotification(L"liveness/quick", content, 0);
            EXPECT_TRUE(allReceived(others, content, std::chrono::seconds(10)))
                << "round " << round;
            EXPECT_LT(Clock::now() - sent, std::chrono::seconds(10));
        }

        // Three beats: the listener stays blocked for two whole 5-second periods.
        step("heartbeats while one listener blocks");
        EXPECT_TRUE(waitForSince(blockMark, isHeartbeatOf(*info), 3, kBeatWait));
        EXPECT_TRUE(
            eventually([&] { return beatsAnswered(*info) >= answeredAtBlock + 3; }, kPrompt));
        // Still blocked, and its own mailbox waited: no second mail, no poll since.
        EXPECT_FALSE(blocker->gaveUp());
        EXPECT_EQ(blocker->mail(), std::vector<std::wstring>{L"block"});
        EXPECT_EQ(countSince(blockMark,
                             [&](const qxpemu::RecordedRequest& r) { return isPollOf(r, *slow); }),
                  0u);
        const auto blockedFor = Clock::now() - blockedAt;
        EXPECT_GE(blockedFor, std::chrono::seconds(10));

        step("releasing the blocked listener");
        blocker->release();
        EXPECT_TRUE(blocker->waitForMail(2, kPrompt));
        EXPECT_EQ(blocker->mail(), (std::vector<std::wstring>{L"block", L"second"}));
        EXPECT_FALSE(api->hasDeletedMailboxes());
        endApi(api, log);
    });
}

TEST_P(LivenessTest, AListenerDeletesItsOwnMailbox) {
    runBounded([this] {
        const DebugLogTail log;
        auto api = makeApi();
        const auto shared = std::make_shared<SelfDeletingListener::Shared>();
        step("opening the self-deleting mailbox and a bystander");
        const std::size_t openMark = mark();
        auto self = Varkel::Zu::MakeShared::create<Mailbox>();
        self->addListener(std::make_shared<SelfDeletingListener>(
            std::weak_ptr<QxPlatformApi>(api), std::weak_ptr<Mailbox>(self), shared));
        api->createMailbox(self, L"liveness/self");
        const auto bystanders = openInboxes(*api, 1, L"liveness/bystander");
        ASSERT_TRUE(eventually(
            [&] {
                return allPolledSince(openMark, {{self, nullptr}}, 1);
            },
            kPrompt));

        step("the listener deletes its own mailbox");
        const std::size_t postMark = mark();
        api->postNotification(L"liveness/self", L"delete yourself", 0);
        ASSERT_TRUE(shared->done.wait(kPrompt)) << "the listener did not return";
        {
            std::lock_guard<std::mutex> lock(shared->mutex);
            EXPECT_TRUE(shared->deleted);
            EXPECT_EQ(shared->failure, "");
        }
        const std::string target =
            std::string(kMailboxPath) + "/" +
            narrow(Varkel::Zu::CommonUtil::encodeUnsafeURLCharacters(self->getSecret()));
        EXPECT_EQ(countSince(postMark,
                             [&](const qxpemu::RecordedRequest& r) {
                                 return r.method == "DELETE" && r.target == target;
                             }),
                  1u);
        // It is out of the object's table, and the object goes on serving the others.
        EXPECT_THROW(api->deleteMailbox(self), Varkel::Zu::InvalidArgumentException);
        api->postNotification(L"liveness/bystander", L"still served", 0);
        EXPECT_TRUE(allReceived(bystanders, L"still served", kPrompt));
        EXPECT_FALSE(api->hasDeletedMailboxes());
        endApi(api, log);
    });
}

TEST_P(LivenessTest, TheHostLetsGoOfTheApiObjectWhileAListenerHoldsIt) {
    runBounded([this] {
        const DebugLogTail log;
        auto api = makeApi();
        const std::weak_ptr<QxPlatformApi> weakApi = api;
        const auto shared = std::make_shared<LastOwnerListener::Shared>();
        const OnScopeExit letListenerGo([shared] { shared->hostDropped.open(); });
        step("opening the mailbox");
        const std::size_t openMark = mark();
        auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        mailbox->addListener(std::make_shared<LastOwnerListener>(weakApi, shared));
        api->createMailbox(mailbox, L"liveness/last");
        ASSERT_TRUE(eventually(
            [&] {
                return allPolledSince(openMark, {{mailbox, nullptr}}, 1);
            },
            kPrompt));

        step("the listener takes the object");
        const std::size_t postMark = mark();
        api->postNotification(L"liveness/last", L"take over", 0);
        ASSERT_TRUE(shared->entered.wait(kPrompt));
        const std::size_t linesBefore = log.countLinesStartingWith(kItTook);

        step("the host lets go of its reference");
        const auto dropped = Clock::now();
        api.reset();  // the listener holds the object: nothing to wait for here
        EXPECT_LT(Clock::now() - dropped, std::chrono::seconds(5));
        EXPECT_FALSE(weakApi.expired());
        shared->hostDropped.open();

        step("the destructor runs inside the listener");
        EXPECT_TRUE(shared->finished.wait(kPrompt));
        EXPECT_TRUE(eventually([&] { return weakApi.expired(); }, kPrompt));
        EXPECT_TRUE(eventually(
            [&] { return log.countLinesStartingWith(kItTook) == linesBefore + 1; }, kPrompt))
            << log.text();
        EXPECT_TRUE(shared->posted);
        EXPECT_TRUE(shared->failures.texts().empty())
            << ::testing::PrintToString(shared->failures.texts());
        EXPECT_EQ(countSince(postMark,
                             [](const qxpemu::RecordedRequest& r) {
                                 const auto posted = postedNotification(r);
                                 return posted && posted->first == "liveness/last-words" &&
                                        posted->second == "still here";
                             }),
                  1u);
        // The destructor makes no call on the platform.
        EXPECT_EQ(countSince(postMark,
                             [](const qxpemu::RecordedRequest& r) { return r.method == "DELETE"; }),
                  0u);
    });
}

TEST_P(LivenessTest, AHundredPollsFailAtOnceWhileAHeartbeatIsHeld) {
    runBounded([this] {
        constexpr std::size_t kMailboxes = 100;
        constexpr int kRefused = 50;
        const DebugLogTail log;
        auto api = makeApi();
        step("opening a hundred mailboxes");
        const auto inboxes = openInboxes(*api, kMailboxes, L"liveness/hundred");
        const auto info = registerWithHeldFirstBeat(*api);
        const long long answeredAtHold = beatsAnswered(*info);

        step("failing every poll: fifty answered 500, the rest dropped");
        const std::size_t failMark = mark();
        auto refused = statusRule("GET", anyPollPattern(), 500, "poll refused");
        refused.times = kRefused;
        emulator_.addFault(refused);
        emulator_.addFault(dropRule("GET", anyPollPattern()));
        // Each refused poll drops its mailbox; each other mailbox keeps retrying.
        const auto split = [&](std::vector<Inbox>& dropped, std::vector<Inbox>& kept) {
            dropped.clear();
            kept.clear();
            for (const auto& inbox : inboxes) {
                (log.hasLine(deleteLine(500, *inbox.mailbox)) ? dropped : kept).push_back(inbox);
            }
        };
        std::vector<Inbox> dropped;
        std::vector<Inbox> kept;
        EXPECT_TRUE(eventually(
            [&] {
                split(dropped, kept);
                return dropped.size() >= static_cast<std::size_t>(kRefused) &&
                       allPolledSince(failMark, kept, 3);
            },
            kPrompt, std::chrono::milliseconds(100)))
            << dropped.size() << " mailboxes dropped";
        EXPECT_EQ(beatsAnswered(*info), answeredAtHold)
            << "the failed polls were handled only after the held heartbeat had been answered";

        step("clearing the faults");
        const std::size_t clearMark = mark();
        emulator_.clearFaults();
        split(dropped, kept);
        EXPECT_EQ(dropped.size(), static_cast<std::size_t>(kRefused));
        EXPECT_TRUE(eventually([&] { return allPolledSince(clearMark, kept, 1); }, kPrompt,
                               std::chrono::milliseconds(100)))
            << "not every kept mailbox polled again";
        api->postNotification(L"liveness/hundred", L"after the failures", 0);
        EXPECT_TRUE(allReceived(kept, L"after the failures", kPrompt));
        for (const auto& inbox : dropped) {
            EXPECT_EQ(inbox.listener->count(), 0u);
        }
        // The held beat is answered late, and the next pass sends a new one.
        expectHeartbeatsResume(*info, clearMark, answeredAtHold, 1, 2);
        EXPECT_FALSE(api->hasDeletedMailboxes());
        expectUnregisterBounded(*api, *info);
        endApi(api, log);
    });
}

TEST_P(LivenessParkedPollsTest, DestructionWithAThousandPollsOutstandingAndAHeartbeatHeld) {
    runBounded([this] {
        // A thousand mailboxes take about half a second to create in the plain build and a few
        // seconds under the sanitizers; the whole case stays near 10 s.
        constexpr std::size_t kMailboxes = 1000;
        const DebugLogTail log;
        auto api = makeApi();
        step("opening a thousand mailboxes");
        const std::size_t openMark = mark();
        std::vector<std::shared_ptr<Mailbox>> mailboxes;
        for (std::size_t i = 0; i < kMailboxes; ++i) {
            mailboxes.push_back(Varkel::Zu::MakeShared::create<Mailbox>());
            mailboxes.back()->addListener(std::make_shared<RecordingListener>());
            api->createMailbox(mailboxes.back(), L"liveness/thousand");
        }
        step("waiting for every poll to be parked");
        const auto isPoll = [](const qxpemu::RecordedRequest& r) {
            return r.method == "GET" && r.target.rfind(kNotificationsPath, 0) == 0;
        };
        EXPECT_TRUE(eventually([&] { return countSince(openMark, isPoll) >= kMailboxes; },
                               std::chrono::seconds(40), std::chrono::milliseconds(200)))
            << countSince(openMark, isPoll) << " polls";
        // Held for 4 s only: the destructor waits for the pass under way to end.
        const auto info = registerWithHeldFirstBeat(*api, 4000);
        // The held beat is still waiting: nothing answered yet.
        EXPECT_EQ(beatsAnswered(*info), 0);

        step("destroying the object");
        const std::size_t destroyMark = mark();
        const std::size_t linesBefore = log.countLinesStartingWith(kItTook);
        const auto started = Clock::now();
        api.reset();
        EXPECT_LT(Clock::now() - started, kCallBound);
        EXPECT_EQ(log.countLinesStartingWith(kItTook), linesBefore + 1) << log.text();
        // The destructor makes no call on the platform.
        EXPECT_EQ(countSince(destroyMark,
                             [](const qxpemu::RecordedRequest& r) {
                                 return r.method == "DELETE" || r.method == "POST";
                             }),
                  0u);
    });
}

TEST_P(LivenessTest, ANullListenerIsRefusedAndTheMailboxStillWorks) {
    runBounded([this] {
        const DebugLogTail log;
        auto api = makeApi();
        const auto listener = std::make_shared<RecordingListener>();
        auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        step("a null listener before creation");
        EXPECT_THROW(mailbox->addListener(nullptr), Varkel::Zu::InvalidArgumentException);
        mailbox->addListener(listener);
        const std::size_t openMark = mark();
        api->createMailbox(mailbox, L"liveness/null");
        ASSERT_TRUE(eventually(
            [&] {
                return allPolledSince(openMark, {{mailbox, nullptr}}, 1);
            },
            kPrompt));
        EXPECT_EQ(countSince(openMark,
                             [&](const qxpemu::RecordedRequest& r) {
                                 return r.method == "POST" && r.target == kMailboxPath &&
                                        r.body.find(mailboxIdText(*mailbox)) != std::string::npos;
                             }),
                  1u);

        step("a null listener while the mailbox is polled");
        EXPECT_THROW(mailbox->addListener(std::shared_ptr<MailboxListener>()),
                     Varkel::Zu::InvalidArgumentException);
        const std::size_t postMark = mark();
        api->postNotification(L"liveness/null", L"delivered", 0);
        const auto mail = listener->waitFor(1, kPrompt);
        ASSERT_EQ(mail.size(), 1u);
        EXPECT_EQ(mail[0].second, L"delivered");
        // And it keeps polling after the delivery.
        EXPECT_TRUE(waitForSince(
            postMark, [&](const qxpemu::RecordedRequest& r) { return isPollOf(r, *mailbox); }, 2,
            kPrompt));
        EXPECT_FALSE(api->hasDeletedMailboxes());
        endApi(api, log);
    });
}

std::string poolName(const ::testing::TestParamInfo<std::size_t>& info) {
    return "Threads" + std::to_string(info.param);
}

INSTANTIATE_TEST_SUITE_P(Pool, LivenessTest,
                         ::testing::Values(std::size_t{1},
                                           Varkel::Tolva::WebUtils::kDefaultHttpThreads,
                                           std::size_t{4}),
                         poolName);
INSTANTIATE_TEST_SUITE_P(Pool, LivenessParkedPollsTest,
                         ::testing::Values(std::size_t{1},
                                           Varkel::Tolva::WebUtils::kDefaultHttpThreads,
                                           std::size_t{4}),
                         poolName);

}  // namespace
}  // namespace TolvaRestTest
