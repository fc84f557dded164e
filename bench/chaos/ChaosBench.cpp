// Chaos soak: the soak's host (mailboxes with listeners, registered services, steady posting,
// request/reply answered by a second API object) against qxp-emulator in a process of its own,
// while a driver changes the emulator's fault rules at random and now and then kills the
// emulator with SIGKILL and starts it again on the same port, with or without its state.
//
// It checks, and fails the run (exit status 1) when one does not hold:
// - nothing stalls: heartbeats, polls, posts, request/reply and listeners all move again within
//   60 s (on a stall it prints every thread's stack through gdb and ends at once);
// - after each fault, every service's heartbeat and every live mailbox's poll reach the
//   platform again within 40 s (recovery times per kind of fault: median and worst);
// - every notification posted while no fault touched posting or polling reaches every mailbox
//   subscribed to its topic, once and in order, and every request made in calm reaches its
//   reply;
// - destroying the two API objects at the end takes under 1 s;
// - descriptors, threads and heap in use are flat between a calm sample after the first
//   minutes (minute 5 in runs of 10 minutes or more) and the calm end.
//
//   chaos_bench [--seed S] [--minutes 5] [--mailboxes 100] [--services 10]
//               [--posts-per-second 20] [--fault-max-seconds 20] [--calm-min-seconds 5]
//               [--calm-max-seconds 15] [--delay-max-seconds 40] [--down-max-seconds 5]
//               [--max-poll 5]
//
// The host notices what a real host has to notice: a mailbox the library dropped (a poll
// answered with a status other than 200 or 204, a 404 after the platform lost its state) is
// made again with a new id; a service the platform's listing (GET /discovery/api/v1/service)
// no longer shows is registered again. The library gives up its last reference to a mailbox it
// dropped, so a mailbox whose only owner is the host is no longer polled.
#include "../common/ProcessProbe.h"
#include "EmulatorProcess.h"
#include "LoopbackHttp.h"

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ZuUUID.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <boost/uuid/uuid_io.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <unistd.h>

namespace {

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;
using namespace Varkel::Tolva::Rest::Model;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// ---------------------------------------------------------------------------------------------
// Options

struct Options {
    unsigned long long seed = 0;
    long minutes = 5;
    long mailboxes = 100;
    long services = 10;
    long postsPerSecond = 20;
    long faultMaxSeconds = 20;
    long calmMinSeconds = 5;
    long calmMaxSeconds = 15;
    long delayMaxSeconds = 40;
    long downMaxSeconds = 5;
    long maxPoll = 5;
    double stallLimitSeconds = 60;
    double recoveryLimitSeconds = 40;
};

const char* optionText(int argc, char** argv, const char* name) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            return argv[i + 1];
        }
    }
    return nullptr;
}

long option(int argc, char** argv, const char* name, long fallback) {
    const char* text = optionText(argc, argv, name);
    return text == nullptr ? fallback : std::atol(text);
}

// ---------------------------------------------------------------------------------------------
// The emulator process, restarted on the same port

std::string makeSigningKey(const std::string& folder) {
    const std::string path = folder + "/signing-key.pem";
    EVP_PKEY* key = EVP_RSA_gen(2048);
    FILE* out = std::fopen(path.c_str(), "w");
    if (key == nullptr || out == nullptr ||
        PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        throw std::runtime_error("cannot write a signing key to " + path);
    }
    std::fclose(out);
    EVP_PKEY_free(key);
    return path;
}

class Platform {
  public:
    Platform(const std::string& folder, long maxPoll)
        : keyFile_(makeSigningKey(folder)), stateFile_(folder + "/state.json"), maxPoll_(maxPoll) {
        start("0");
        port_ = static_cast<unsigned short>(std::stoi(process_->port()));
    }

    const std::string& config() const { return config_; }
    unsigned short port() const { return port_; }

    // SIGKILL, then a new process on the same port, which reads the state file unless
    // `keepState` is false (the file is removed first).
    void killAndRestart(bool keepState, std::chrono::milliseconds down) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            process_->end(SIGKILL);
        }
        if (!keepState) {
            std::error_code ignored;
            std::filesystem::remove(stateFile_, ignored);
            std::filesystem::remove(stateFile_ + ".partial", ignored);
        }
        std::this_thread::sleep_for(down);
        for (int attempt = 0;; ++attempt) {
            try {
                start(std::to_string(port_));
                return;
            } catch (const std::exception&) {
                if (attempt == 50) {
                    throw;
                }
                std::this_thread::sleep_for(200ms);
            }
        }
    }

    // How the process ended, "" while it runs.
    std::string endedHow() {
        std::lock_guard<std::mutex> lock(mutex_);
        return process_->endedHow();
    }

    void kill() {
        std::lock_guard<std::mutex> lock(mutex_);
        process_->end(SIGKILL);
    }

    ChaosBench::HttpAnswer control(const std::string& method, const std::string& target,
                                   const std::string& body = "") const {
        return ChaosBench::httpCall(port_, method, target, body);
    }

  private:
    void start(const std::string& port) {
        auto process = std::make_unique<TolvaTest::EmulatorProcess>(std::vector<std::string>{
            "--port", port, "--max-poll", std::to_string(maxPoll_), "--key", keyFile_, "--state",
            stateFile_, "--token-lifetime", "330"});
        std::lock_guard<std::mutex> lock(mutex_);
        config_ = process->config();
        process_ = std::move(process);
    }

    const std::string keyFile_;
    const std::string stateFile_;
    const long maxPoll_;
    std::mutex mutex_;
    std::unique_ptr<TolvaTest::EmulatorProcess> process_;
    std::string config_;
    unsigned short port_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Progress stamps, read by the watchdog

struct Stamp {
    std::atomic<Clock::rep> ticks{Clock::now().time_since_epoch().count()};
    void touch() { ticks = Clock::now().time_since_epoch().count(); }
    Clock::time_point get() const { return Clock::time_point(Clock::duration(ticks.load())); }
};

struct Progress {
    Stamp postReturned;     // the poster's last call returned (either way)
    Stamp postSucceeded;    // the poster's last call succeeded
    Stamp requestReturned;  // the requester's last call returned
    Stamp listenerCalled;   // any slot listener ran
    Stamp hostLoop;         // the host's upkeep loop went round
};

// ---------------------------------------------------------------------------------------------
// Mail received per slot, checked against what was posted

struct Receipts {
    std::mutex mutex;
    std::map<long, long> arrivals;  // sequence number -> arrival index, not yet checked
    long nextArrival = 0;
    long checkedUpTo = -1;  // sequence numbers up to here were checked and forgotten
    long lastCleanArrival = -1;
    long late = 0;            // arrived after their post was checked
    std::set<long> lateSeqs;  // which ones, so that a post missing when checked is not lost
    long duplicates = 0;      // arrived twice while not yet checked
    std::set<long> duplicateSeqs;
    long received = 0;
};

struct Counters {
    std::atomic<long> posted{0}, postFailures{0}, requests{0}, replies{0}, missedReplies{0},
        requestFailures{0}, listenerCalls{0}, sideCalls{0}, sideCallFailures{0}, mailboxesRemade{0},
        mailboxRemakeFailures{0}, servicesReregistered{0}, replyCallsInFlight{0};
};

// ---------------------------------------------------------------------------------------------
// Listeners

class Host;

// One slot's listener: records the sequence number of the poster's mail, and, for some slots,
// posts or does request/reply from inside the listener.
class SlotListener : public MailboxListener {
  public:
    enum class Side { None, Post, RequestReply };

    SlotListener(int slot, Side side, std::weak_ptr<QxPlatformApi> api, Receipts& receipts,
                 Progress& progress, Counters& counters, std::atomic<bool>& sideCallsOn)
        : slot_(slot),
          side_(side),
          api_(std::move(api)),
          receipts_(receipts),
          progress_(progress),
          counters_(counters),
          sideCallsOn_(sideCallsOn) {}

    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        progress_.listenerCalled.touch();
        ++counters_.listenerCalls;
        if (content.size() > 1 && content[0] == L'p') {
            const long seq = std::wcstol(content.c_str() + 1, nullptr, 10);
            std::lock_guard<std::mutex> lock(receipts_.mutex);
            ++receipts_.received;
            if (seq <= receipts_.checkedUpTo) {
                ++receipts_.late;
                receipts_.lateSeqs.insert(seq);
            } else if (!receipts_.arrivals.emplace(seq, receipts_.nextArrival++).second) {
                ++receipts_.duplicates;
                receipts_.duplicateSeqs.insert(seq);
            }
        }
        const long calls = ++calls_;
        if (!sideCallsOn_ || side_ == Side::None) {
            return;
        }
        if ((side_ == Side::Post && calls % 10 != 0) ||
            (side_ == Side::RequestReply && calls % 25 != 0)) {
            return;
        }
        auto api = api_.lock();
        if (!api) {
            return;
        }
        ++counters_.sideCalls;
        try {
            if (side_ == Side::Post) {
                api->postNotification(L"chaos/echo", L"from slot " + std::to_wstring(slot_), 60);
            } else {
                const std::wstring replyTopic =
                    L"chaos/replies/l" + std::to_wstring(slot_) + L"-" + std::to_wstring(calls);
                ++counters_.replyCallsInFlight;
                api->postNotificationAndWaitForReply(L"chaos/requests", replyTopic + L"|x",
                                                     replyTopic, Clock::now() + 5s);
                --counters_.replyCallsInFlight;
            }
        } catch (const std::exception&) {
            if (side_ == Side::RequestReply) {
                --counters_.replyCallsInFlight;
            }
            ++counters_.sideCallFailures;
        }
    }

  private:
    const int slot_;
    const Side side_;
    const std::weak_ptr<QxPlatformApi> api_;
    Receipts& receipts_;
    Progress& progress_;
    Counters& counters_;
    std::atomic<bool>& sideCallsOn_;
    // A slot's mailbox made again may deliver while the dropped one finishes its last mail.
    std::atomic<long> calls_{0};
};

// Answers "<reply topic>|<payload>" with <payload> on the reply topic, through its own API
// object, held weakly.
class Responder : public MailboxListener {
  public:
    explicit Responder(std::weak_ptr<QxPlatformApi> api) : api_(std::move(api)) {}
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        const auto bar = content.find(L'|');
        auto api = api_.lock();
        if (!api || bar == std::wstring::npos) {
            return;
        }
        try {
            api->postNotification(content.substr(0, bar), content.substr(bar + 1), 0);
        } catch (const std::exception&) {
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
};

// ---------------------------------------------------------------------------------------------
// The host: mailboxes in slots, services, and the upkeep a real host does

struct Slot {
    std::wstring topic;
    std::shared_ptr<QxPlatformApi> api;  // the object the mailbox lives on
    std::shared_ptr<MailboxListener> listener;
    std::shared_ptr<Mailbox> mailbox;  // null while not created
    std::string id;
    std::optional<Clock::time_point> downSince;  // set while the slot has no live mailbox
};

class Host {
  public:
    Host(const Options& options, const std::wstring& config, Progress& progress, Counters& counters,
         std::vector<Receipts>& receipts, unsigned short port)
        : counters_(counters), port_(port) {
        api = QxPlatformApi::createFromQXPlatformConfig(config);
        responderApi = QxPlatformApi::createFromQXPlatformConfig(config);
        for (long i = 0; i < options.mailboxes; ++i) {
            auto side = SlotListener::Side::None;
            if (i % 20 == 3) {
                side = SlotListener::Side::Post;
            } else if (i % 20 == 7) {
                side = SlotListener::Side::RequestReply;
            }
            Slot slot;
            slot.topic = L"chaos/topic" + std::to_wstring(i % 10);
            slot.api = api;
            slot.listener = std::make_shared<SlotListener>(int(i), side, api, receipts[i], progress,
                                                           counters, sideCallsOn);
            slots_.push_back(std::move(slot));
        }
        Slot responder;
        responder.topic = L"chaos/requests";
        responder.api = responderApi;
        responder.listener = std::make_shared<Responder>(responderApi);
        slots_.push_back(std::move(responder));
        for (auto& slot : slots_) {
            if (!makeMailbox(slot)) {
                throw std::runtime_error("a mailbox could not be created at start");
            }
        }
        for (long i = 0; i < options.services; ++i) {
            auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
            info->serviceId =
                std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
            info->serviceType = L"chaos";
            info->serviceInstance = L"chaos-" + std::to_wstring(i);
            info->serviceAddress = L"127.0.0.1";
            info->servicePort = static_cast<std::uint16_t>(9000 + i);
            info->reverseProxyPathRule = L"/chaos/";
            info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
            api->registerService(info);
            serviceIds_.push_back(Varkel::Zu::narrow(info->serviceId->toWString()));
            services_.push_back(info);
        }
    }

    // One round of upkeep: mailboxes the library let go of are made again; services missing
    // from the platform's listing are registered again (every other round).
    void upkeep(bool listServices) {
        const auto now = Clock::now();
        for (auto& slot : slots_) {
            bool dropped = false;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                // Only the host holds it: the library dropped it from its table.
                dropped = !slot.mailbox || slot.mailbox.use_count() == 1;
                if (dropped && !slot.downSince) {
                    slot.downSince = now;
                }
            }
            if (dropped && !makeMailbox(slot)) {
                ++counters_.mailboxRemakeFailures;
            } else if (dropped) {
                ++counters_.mailboxesRemade;
            }
        }
        if (!listServices) {
            return;
        }
        const auto listing = ChaosBench::httpCall(
            port_, "GET", "/discovery/api/v1/service", "",
            {{"Authorization", "Bearer " + Varkel::Zu::narrow(api->getCurrentAccessToken())}},
            5000);
        if (listing.status != 200) {
            return;
        }
        std::set<std::string> listed;
        try {
            for (const auto& record : nlohmann::json::parse(listing.body)) {
                listed.insert(record.at("serviceId").get<std::string>());
            }
        } catch (const std::exception&) {
            return;
        }
        for (std::size_t i = 0; i < services_.size(); ++i) {
            if (listed.count(serviceIds_[i]) == 0) {
                try {
                    api->registerService(services_[i]);
                    ++counters_.servicesReregistered;
                } catch (const std::exception&) {
                }
            }
        }
    }

    // Ids of the slots' live mailboxes, and how long the longest-dead slot has had none.
    std::vector<std::string> liveMailboxIds(double& longestDownSeconds) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> ids;
        longestDownSeconds = 0;
        const auto now = Clock::now();
        for (const auto& slot : slots_) {
            if (slot.downSince) {
                longestDownSeconds =
                    std::max(longestDownSeconds, secondsBetween(*slot.downSince, now));
            } else {
                ids.push_back(slot.id);
            }
        }
        return ids;
    }

    const std::vector<std::string>& serviceIds() const { return serviceIds_; }

    // Deletes every mailbox and unregisters every service (failures ignored), then lets go
    // of the mailboxes.
    void cleanUp() {
        api->unregisterAllServices();
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& slot : slots_) {
            if (slot.mailbox && !slot.downSince) {
                try {
                    slot.api->deleteMailbox(slot.mailbox);
                } catch (const std::exception&) {
                }
            }
            slot.mailbox.reset();
            slot.api.reset();
        }
    }

    std::shared_ptr<QxPlatformApi> api;
    std::shared_ptr<QxPlatformApi> responderApi;
    std::atomic<bool> sideCallsOn{true};

  private:
    bool makeMailbox(Slot& slot) {
        auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        // Mailboxes the library dropped stay on the platform; the ttl lets them go.
        mailbox->setTtl(120);
        mailbox->setDurable(false);
        mailbox->addListener(slot.listener);
        try {
            slot.api->createMailbox(mailbox, slot.topic);
        } catch (const std::exception&) {
            return false;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        slot.mailbox = std::move(mailbox);
        slot.id = boost::uuids::to_string(slot.mailbox->getId());
        slot.downSince.reset();
        return true;
    }

    Counters& counters_;
    const unsigned short port_;
    std::mutex mutex_;
    std::vector<Slot> slots_;
    std::vector<std::shared_ptr<ModelServiceInfo>> services_;
    std::vector<std::string> serviceIds_;
};

// ---------------------------------------------------------------------------------------------
// Faults

struct PathGroup {
    const char* name;
    const char* method;
    const char* pattern;
    bool touchesMail;  // posting, polling, mailboxes or the token they all need
};

const PathGroup kGroups[] = {
    {"token", "POST", "/identity/connect/token", true},
    {"post", "POST", "/notifications/api/v1/notifications", true},
    {"poll", "GET", "/notifications/api/v1/notifications/.+", true},
    {"mailbox", "", "/notifications/api/v1/mailbox.*", true},
    {"heartbeat", "PUT", "/discovery/api/v1/service/.+/health", false},
    {"discovery", "", "/discovery/api/v1/service(/.*)?", false},
    {"all", "", ".*", true},
};

const char* const kKinds[] = {"delay", "drop", "5xx", "401", "keyset", "kill", "kill-state"};

struct FaultEvent {
    std::string kind;
    std::string detail;
    bool touchesMail = true;
    Clock::time_point start;
    std::optional<Clock::time_point> end;        // rule removed, or the emulator up again
    std::optional<Clock::time_point> recovered;  // heartbeats and polls seen again
    bool recoveryFailed = false;
};

class FaultLog {
  public:
    std::size_t begin(FaultEvent event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
        return events_.size() - 1;
    }
    void end(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_[index].end = Clock::now();
    }
    void recovered(std::size_t index, Clock::time_point when, bool failed) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_[index].recovered = when;
        events_[index].recoveryFailed = failed;
        changed_.notify_all();
    }
    // Waits until the event has recovered or `limit` passes.
    void waitRecovered(std::size_t index, std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, limit, [&] { return events_[index].recovered.has_value(); });
    }
    // The oldest event that ended and has not recovered yet.
    std::optional<std::pair<std::size_t, Clock::time_point>> awaitingRecovery() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (std::size_t i = 0; i < events_.size(); ++i) {
            if (events_[i].end && !events_[i].recovered) {
                return std::make_pair(i, *events_[i].end);
            }
        }
        return std::nullopt;
    }
    std::vector<FaultEvent> copy() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    // Whether any fault (touching mail, or any at all) overlaps [from, to], each fault
    // counted from `before` ahead of its start to `after` beyond its recovery. Unknown yet
    // (a fault still under way or not recovered) counts as overlapping; `decided` says so.
    bool overlaps(Clock::time_point from, Clock::time_point to, bool mailOnly,
                  Clock::duration before, Clock::duration after, bool& decided) const {
        std::lock_guard<std::mutex> lock(mutex_);
        decided = true;
        for (const auto& event : events_) {
            if (mailOnly && !event.touchesMail) {
                continue;
            }
            if (event.start - before > to) {
                continue;
            }
            if (!event.recovered) {
                decided = false;
                return true;
            }
            if (*event.recovered + after >= from) {
                return true;
            }
        }
        return false;
    }
    bool calmSince(Clock::duration quiet) const {
        std::lock_guard<std::mutex> lock(mutex_);
        if (events_.empty()) {
            return true;
        }
        const auto& last = events_.back();
        return last.recovered && Clock::now() - *last.recovered >= quiet;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<FaultEvent> events_;
};

nlohmann::json ruleFor(const PathGroup& group) {
    return {{"method", group.method}, {"pathPattern", group.pattern}, {"times", -1}};
}

// ---------------------------------------------------------------------------------------------
// Posts, checked once no fault can have touched them any more

struct PostRecord {
    long seq;
    int topic;
    Clock::time_point start;
    Clock::time_point end;
    bool ok;
};

struct Request {
    Clock::time_point start;
    Clock::time_point end;
    bool answered;
};

struct MailVerdict {
    long checked = 0;    // posts decided
    long clean = 0;      // posts made in calm, checked for delivery
    long expected = 0;   // deliveries expected from clean posts
    long delivered = 0;  // of those, delivered
    long lost = 0;       // of those, never delivered by the end of the run
    long late = 0;       // of those, delivered after their check (a listener held the mailbox)
    // Deliveries missing when their post was checked: (sequence number, slot, seconds into the
    // run); decided at the end, when a late one has had every chance to arrive.
    std::vector<std::tuple<long, long, double>> missing;
    long outOfOrder = 0;  // delivered after a later clean post
    long duplicated = 0;  // clean posts delivered twice
    long cleanRequests = 0;
    long cleanRequestsMissed = 0;
    std::vector<std::string> examples;
};

// ---------------------------------------------------------------------------------------------
// Samples

struct Sample {
    double minute;
    long rssKiB;
    long heapKiB;
    std::size_t descriptors;
    std::size_t threads;
    long replyMailboxesPolled;  // temporary reply mailboxes left polled (see the README)
    bool calm;
};

void printSample(const Sample& s, const Counters& c) {
    std::printf("%6.1f %8ld %9ld %4zu %8zu %6ld %s %8ld %7ld %9ld %8ld %6ld %6ld %6ld\n", s.minute,
                s.rssKiB, s.heapKiB, s.descriptors, s.threads, s.replyMailboxesPolled,
                s.calm ? "calm " : "fault", c.posted.load(), c.postFailures.load(),
                c.listenerCalls.load(), c.replies.load(), c.missedReplies.load(),
                c.mailboxesRemade.load(), c.servicesReregistered.load());
    std::fflush(stdout);
}

std::string median(std::vector<double> values) {
    if (values.empty()) {
        return "-";
    }
    std::sort(values.begin(), values.end());
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", values[values.size() / 2]);
    return text;
}

void dumpStacks() {
    const std::string command = "gdb -p " + std::to_string(::getpid()) +
                                " -batch -ex 'set pagination off' -ex 'thread apply all bt' 2>&1";
    std::printf("=== stacks of every thread (%s) ===\n", command.c_str());
    std::fflush(stdout);
    if (FILE* gdb = ::popen(command.c_str(), "r")) {
        char line[4096];
        while (std::fgets(line, sizeof line, gdb) != nullptr) {
            std::fputs(line, stdout);
        }
        ::pclose(gdb);
    }
    std::printf("=== end of stacks ===\n");
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    options.minutes = option(argc, argv, "--minutes", options.minutes);
    options.mailboxes = std::max(10L, option(argc, argv, "--mailboxes", options.mailboxes));
    options.services = option(argc, argv, "--services", options.services);
    options.postsPerSecond = std::max(1L, option(argc, argv, "--posts-per-second", 20));
    options.faultMaxSeconds = std::max(1L, option(argc, argv, "--fault-max-seconds", 20));
    options.calmMinSeconds = std::max(1L, option(argc, argv, "--calm-min-seconds", 5));
    options.calmMaxSeconds =
        std::max(options.calmMinSeconds, option(argc, argv, "--calm-max-seconds", 15));
    options.delayMaxSeconds = std::max(1L, option(argc, argv, "--delay-max-seconds", 40));
    options.downMaxSeconds = std::max(1L, option(argc, argv, "--down-max-seconds", 5));
    options.maxPoll = std::max(1L, option(argc, argv, "--max-poll", 5));
    if (const char* seed = optionText(argc, argv, "--seed")) {
        options.seed = std::strtoull(seed, nullptr, 10);
    } else {
        options.seed = std::random_device{}() ^ (std::uint64_t(::getpid()) << 20) ^
                       std::uint64_t(Clock::now().time_since_epoch().count());
        options.seed %= 1000000000ULL;
    }
    std::printf(
        "chaos_bench --seed %llu --minutes %ld --mailboxes %ld --services %ld "
        "--posts-per-second %ld --fault-max-seconds %ld --calm-min-seconds %ld "
        "--calm-max-seconds %ld --delay-max-seconds %ld --down-max-seconds %ld --max-poll %ld\n",
        options.seed, options.minutes, options.mailboxes, options.services, options.postsPerSecond,
        options.faultMaxSeconds, options.calmMinSeconds, options.calmMaxSeconds,
        options.delayMaxSeconds, options.downMaxSeconds, options.maxPoll);
    std::printf("seed %llu\n", options.seed);
    std::fflush(stdout);
    Varkel::Zu::Logger::setGlobalLevel(Varkel::Zu::Logger::getErrorLevel());

    char folderTemplate[] = "/tmp/chaos-bench-XXXXXX";
    if (::mkdtemp(folderTemplate) == nullptr) {
        std::perror("mkdtemp");
        return 2;
    }
    const std::string folder = folderTemplate;
    Platform platform(folder, options.maxPoll);
    const std::wstring config = Varkel::Zu::widen(platform.config());

    Progress progress;
    Counters counters;
    std::vector<Receipts> receipts(static_cast<std::size_t>(options.mailboxes));
    auto host =
        std::make_unique<Host>(options, config, progress, counters, receipts, platform.port());
    std::shared_ptr<QxPlatformApi> api = host->api;
    FaultLog faults;

    const auto start = Clock::now();
    const auto runEnd = start + std::chrono::minutes(options.minutes);
    // The last stretch is calm, so that the end sample and the last posts are judged in calm.
    const auto calmTail = std::min<Clock::duration>(std::chrono::seconds(60), (runEnd - start) / 2);
    std::atomic<bool> running{true};
    std::atomic<bool> failed{false};
    std::mutex failuresMutex;
    std::vector<std::string> failures;
    auto fail = [&](const std::string& why) {
        failed = true;
        std::lock_guard<std::mutex> lock(failuresMutex);
        failures.push_back(why);
        std::printf("FAILED: %s\n", why.c_str());
        std::fflush(stdout);
    };

    std::mutex postsMutex;
    std::deque<PostRecord> posts;
    std::deque<Request> requests;

    // --- the poster: one notification at a steady rate, content "p<seq>" ---
    std::thread poster([&] {
        const auto period = std::chrono::microseconds(1000000 / options.postsPerSecond);
        auto next = Clock::now();
        for (long seq = 0; running; ++seq) {
            PostRecord record{seq, int(seq % 10), Clock::now(), {}, false};
            try {
                api->postNotification(L"chaos/topic" + std::to_wstring(record.topic),
                                      L"p" + std::to_wstring(seq), 120);
                record.ok = true;
                ++counters.posted;
                progress.postSucceeded.touch();
            } catch (const std::exception&) {
                ++counters.postFailures;
            }
            record.end = Clock::now();
            progress.postReturned.touch();
            {
                std::lock_guard<std::mutex> lock(postsMutex);
                posts.push_back(record);
            }
            next += period;
            if (next < Clock::now() - 1s) {
                next = Clock::now();  // after a long call, no burst to catch up
            }
            std::this_thread::sleep_until(next);
        }
    });

    // --- request/reply once a second, answered by the responder ---
    std::thread requester([&] {
        for (long n = 0; running; ++n) {
            const std::wstring replyTopic = L"chaos/replies/r" + std::to_wstring(n);
            const std::wstring payload = L"q" + std::to_wstring(n);
            Request request{Clock::now(), {}, false};
            ++counters.requests;
            ++counters.replyCallsInFlight;
            try {
                const std::wstring reply = api->postNotificationAndWaitForReply(
                    L"chaos/requests", replyTopic + L"|" + payload, replyTopic, Clock::now() + 5s);
                request.answered = reply == payload;
                ++(request.answered ? counters.replies : counters.missedReplies);
            } catch (const std::exception&) {
                ++counters.requestFailures;
                ++counters.missedReplies;
            }
            --counters.replyCallsInFlight;
            request.end = Clock::now();
            progress.requestReturned.touch();
            {
                std::lock_guard<std::mutex> lock(postsMutex);
                requests.push_back(request);
            }
            std::this_thread::sleep_until(request.start + 1s);
        }
    });

    // --- the host's upkeep ---
    std::thread upkeeper([&] {
        for (long round = 0; running; ++round) {
            host->upkeep(round % 2 == 0);
            progress.hostLoop.touch();
            std::this_thread::sleep_for(1s);
        }
    });

    // --- the fault driver ---
    std::map<std::string, long> injected;
    std::thread driver([&] {
        std::mt19937_64 random(options.seed);
        auto uniform = [&](long low, long high) {
            return std::uniform_int_distribution<long>(low, std::max(low, high))(random);
        };
        for (;;) {
            std::this_thread::sleep_for(
                std::chrono::seconds(uniform(options.calmMinSeconds, options.calmMaxSeconds)));
            if (!running || Clock::now() > runEnd - calmTail) {
                return;
            }
            FaultEvent event;
            event.kind = kKinds[uniform(0, std::size(kKinds) - 1)];
            const auto duration =
                std::chrono::milliseconds(uniform(1000, options.faultMaxSeconds * 1000));
            nlohmann::json rule;
            if (event.kind == "delay" || event.kind == "drop" || event.kind == "5xx") {
                const PathGroup& group = kGroups[uniform(0, std::size(kGroups) - 1)];
                rule = ruleFor(group);
                event.touchesMail = group.touchesMail;
                event.detail = group.name;
                if (event.kind == "delay") {
                    const long delayMs = uniform(1000, options.delayMaxSeconds * 1000);
                    rule["delayMs"] = delayMs;
                    event.detail += " " + std::to_string(delayMs) + " ms";
                } else if (event.kind == "drop") {
                    rule["drop"] = true;
                } else {
                    // What the platform gives (500) and what a proxy in front of it gives while
                    // it restarts or when it is slow (502, 503, 504).
                    const int statuses[] = {500, 502, 503, 504};
                    const int status = statuses[uniform(0, 3)];
                    rule["status"] = status;
                    event.detail += " " + std::to_string(status);
                }
            } else if (event.kind == "401") {
                rule = {{"pathPattern", "/(notifications|discovery)/.*"},
                        {"status", 401},
                        {"body", "token rejected"},
                        {"times", -1}};
            } else if (event.kind == "keyset") {
                rule = {{"method", "GET"},
                        {"pathPattern", "/identity/\\.well-known/openid-configuration/jwks"},
                        {"status", 503},
                        {"times", -1}};
            }
            event.start = Clock::now();
            const bool kill = event.kind == "kill" || event.kind == "kill-state";
            const auto down =
                std::chrono::milliseconds(uniform(200, options.downMaxSeconds * 1000));
            if (kill) {
                event.detail = std::to_string(down.count()) + " ms down";
            } else {
                event.detail +=
                    (event.detail.empty() ? "" : ", ") + std::to_string(duration.count()) + " ms";
            }
            const std::string kind = event.kind;
            const std::string detail = event.detail;
            const std::size_t index = faults.begin(std::move(event));
            ++injected[kind];
            std::printf("[%7.1f s] fault %s (%s)\n", secondsBetween(start, Clock::now()),
                        kind.c_str(), detail.c_str());
            std::fflush(stdout);
            try {
                if (kill) {
                    platform.killAndRestart(kind == "kill-state", down);
                } else {
                    const auto added = platform.control("POST", "/_emulator/faults", rule.dump());
                    if (added.status != 200 && added.status != 201 && added.status != 204) {
                        fail("the emulator refused a fault rule: " + std::to_string(added.status) +
                             " " + added.body);
                    }
                    std::this_thread::sleep_for(duration);
                    platform.control("DELETE", "/_emulator/faults");
                }
            } catch (const std::exception& error) {
                fail(std::string("the driver could not restart the emulator: ") + error.what());
                faults.end(index);
                return;
            }
            faults.end(index);
            faults.waitRecovered(index, std::chrono::seconds(90));
        }
    });

    // --- the watchdog: stalls, recovery, mail checks, samples ---
    std::printf(
        "minute  rss_KiB  heap_KiB  fds  threads  reply_mbx state  posted  failed  listener  "
        "replies  missed remade rereg\n");
    std::vector<Sample> samples;
    std::map<std::string, std::vector<double>> recoverySeconds;
    double longestStall = 0;
    std::string longestStallWhat = "-";
    MailVerdict verdict;
    std::map<std::string, Clock::time_point> missingSince;  // ids the platform does not show
    std::atomic<bool> tearingDown{false};
    std::atomic<bool> watching{true};
    // Held by the watchdog for each round; taken by the teardown before the host goes.
    std::mutex watchdogRound;
    std::atomic<Clock::rep> teardownStart{0};

    auto sample = [&](double minute, bool calm, long replyMailboxes) {
        samples.push_back({minute, TolvaBench::residentKiB(), TolvaBench::heapInUseKiB(),
                           TolvaBench::openDescriptors(), TolvaBench::threadCount(), replyMailboxes,
                           calm});
        printSample(samples.back(), counters);
    };

    // Decides the posts and requests no fault can touch any more; with `all`, every one left.
    auto checkMail = [&](bool all) {
        const auto now = Clock::now();
        std::vector<PostRecord> ready;
        std::vector<Request> readyRequests;
        {
            std::lock_guard<std::mutex> lock(postsMutex);
            while (!posts.empty() && (all || now - posts.front().end > 20s)) {
                bool decided = true;
                faults.overlaps(posts.front().start, posts.front().end, true, 10s, 2s, decided);
                if (!decided && !all) {
                    break;
                }
                ready.push_back(posts.front());
                posts.pop_front();
            }
            while (!requests.empty() && (all || now - requests.front().end > 20s)) {
                readyRequests.push_back(requests.front());
                requests.pop_front();
            }
        }
        for (const auto& request : readyRequests) {
            bool decided = true;
            // A request blocked behind any fault (the heartbeat pass holds the object lock that
            // making its reply mailbox needs) may miss its 5 s deadline: only calm ones count.
            if (faults.overlaps(request.start, request.end, false, 10s, 5s, decided)) {
                continue;
            }
            ++verdict.cleanRequests;
            if (!request.answered) {
                ++verdict.cleanRequestsMissed;
                if (verdict.examples.size() < 20) {
                    verdict.examples.push_back(
                        "request at " + std::to_string(secondsBetween(start, request.start)) +
                        " s got no reply in calm");
                }
            }
        }
        for (const auto& post : ready) {
            ++verdict.checked;
            bool decided = true;
            // Mail posted up to 10 s before a fault may still wait in a queue the fault loses
            // (a blocking listener holds its mailbox's next poll for up to 5 s).
            const bool touched =
                !post.ok || faults.overlaps(post.start, post.end, true, 10s, 2s, decided);
            for (long slot = post.topic; slot < options.mailboxes; slot += 10) {
                Receipts& r = receipts[static_cast<std::size_t>(slot)];
                std::lock_guard<std::mutex> lock(r.mutex);
                const auto found = r.arrivals.find(post.seq);
                if (!touched) {
                    ++verdict.expected;
                    if (found == r.arrivals.end()) {
                        verdict.missing.emplace_back(post.seq, slot,
                                                     secondsBetween(start, post.start));
                    } else {
                        ++verdict.delivered;
                        if (found->second < r.lastCleanArrival) {
                            ++verdict.outOfOrder;
                            if (verdict.examples.size() < 20) {
                                verdict.examples.push_back("p" + std::to_string(post.seq) +
                                                           " reached slot " + std::to_string(slot) +
                                                           " out of order");
                            }
                        }
                        r.lastCleanArrival = std::max(r.lastCleanArrival, found->second);
                        if (r.duplicateSeqs.count(post.seq) != 0) {
                            ++verdict.duplicated;
                        }
                    }
                }
                r.arrivals.erase(r.arrivals.begin(), r.arrivals.upper_bound(post.seq));
                r.duplicateSeqs.erase(r.duplicateSeqs.begin(),
                                      r.duplicateSeqs.upper_bound(post.seq));
                r.checkedUpTo = std::max(r.checkedUpTo, post.seq);
            }
            if (!touched) {
                ++verdict.clean;
            }
        }
    };

    std::thread watchdog([&] {
        int nextMinute = 1;
        bool emulatorCrashed = false;
        auto lastMailCheck = Clock::now();
        while (watching) {
            std::this_thread::sleep_for(1s);
            std::lock_guard<std::mutex> round(watchdogRound);
            const auto now = Clock::now();
            if (tearingDown) {
                const double age =
                    secondsBetween(Clock::time_point(Clock::duration(teardownStart.load())), now);
                if (age > options.stallLimitSeconds) {
                    fail("stall: the teardown has not ended for " + std::to_string(int(age)) +
                         " s");
                    dumpStacks();
                    platform.kill();
                    std::_Exit(1);
                }
                continue;
            }
            std::vector<std::pair<std::string, double>> ages = {
                {"poster", secondsBetween(progress.postReturned.get(), now)},
                {"request/reply", secondsBetween(progress.requestReturned.get(), now)},
                {"host upkeep", secondsBetween(progress.hostLoop.get(), now)},
                {"listeners (while posts succeed)",
                 std::max(0.0, secondsBetween(progress.listenerCalled.get(),
                                              progress.postSucceeded.get()))},
            };
            double longestDown = 0;
            const auto liveIds = host->liveMailboxIds(longestDown);
            ages.push_back({"a mailbox left unmade", longestDown});
            long replyMailboxes = 0;
            bool stateRead = false;
            double heartbeatAge = 0;
            double pollAge = 0;
            bool recoveredNow = false;
            const auto awaiting = faults.awaitingRecovery();
            {
                const auto answer = platform.control("GET", "/_emulator/state");
                nlohmann::json state;
                if (answer.status == 200) {
                    try {
                        state = nlohmann::json::parse(answer.body);
                        stateRead = true;
                    } catch (const std::exception&) {
                    }
                }
                if (stateRead) {
                    const double sinceEnd = awaiting ? secondsBetween(awaiting->second, now) : 1e9;
                    bool allBack = true;
                    std::map<std::string, const nlohmann::json*> services;
                    for (const auto& s : state["services"]) {
                        services[s["serviceId"].get<std::string>()] = &s;
                    }
                    std::map<std::string, const nlohmann::json*> mailboxes;
                    for (const auto& m : state["mailboxes"]) {
                        mailboxes[m["id"].get<std::string>()] = &m;
                        const auto idle = m["idleMs"].get<double>() / 1000;
                        for (const auto& topic : m["subscriptions"]) {
                            if (topic.get<std::string>().rfind("chaos/replies/", 0) == 0 &&
                                (m["polling"].get<bool>() ||
                                 idle < 3.0 * double(options.maxPoll))) {
                                ++replyMailboxes;
                            }
                        }
                    }
                    std::map<std::string, Clock::time_point> stillMissing;
                    auto absentFor = [&](const std::string& id) {
                        const auto before = missingSince.find(id);
                        const auto since = before == missingSince.end() ? now : before->second;
                        stillMissing[id] = since;
                        return secondsBetween(since, now);
                    };
                    for (const auto& id : host->serviceIds()) {
                        const auto found = services.find(id);
                        if (found == services.end()) {
                            heartbeatAge = std::max(heartbeatAge, absentFor(id));
                            allBack = false;
                            continue;
                        }
                        const double age =
                            (*found->second)["lastHeartbeatAgeMs"].get<double>() / 1000;
                        heartbeatAge = std::max(heartbeatAge, age);
                        allBack = allBack && age < sinceEnd;
                    }
                    for (const auto& id : liveIds) {
                        const auto found = mailboxes.find(id);
                        if (found == mailboxes.end()) {
                            pollAge = std::max(pollAge, absentFor(id));
                            allBack = false;
                            continue;
                        }
                        const double idle = (*found->second)["idleMs"].get<double>() / 1000;
                        const bool polling = (*found->second)["polling"].get<bool>();
                        pollAge = std::max(pollAge, polling ? 0.0 : idle);
                        allBack = allBack && idle < sinceEnd;
                    }
                    missingSince.swap(stillMissing);
                    allBack = allBack && longestDown == 0;
                    ages.push_back({"heartbeats", heartbeatAge});
                    ages.push_back({"polls", pollAge});
                    if (awaiting && allBack) {
                        const double took = sinceEnd;
                        const auto events = faults.copy();
                        const auto& event = events[awaiting->first];
                        const bool tooSlow = took > options.recoveryLimitSeconds;
                        recoverySeconds[event.kind].push_back(took);
                        faults.recovered(awaiting->first, now, tooSlow);
                        recoveredNow = true;
                        std::printf("[%7.1f s]   recovered from %s (%s) in %.0f s\n",
                                    secondsBetween(start, now), event.kind.c_str(),
                                    event.detail.c_str(), took);
                        std::fflush(stdout);
                        if (tooSlow) {
                            fail("recovery from " + event.kind + " (" + event.detail + ") took " +
                                 std::to_string(int(took)) + " s");
                        }
                    }
                }
                if (awaiting && !recoveredNow && secondsBetween(awaiting->second, now) > 60) {
                    const auto events = faults.copy();
                    const auto& event = events[awaiting->first];
                    recoverySeconds[event.kind].push_back(secondsBetween(awaiting->second, now));
                    faults.recovered(awaiting->first, now, true);
                    fail("no recovery from " + event.kind + " (" + event.detail + ") within 60 s");
                }
            }
            for (const auto& [what, age] : ages) {
                if (age > longestStall) {
                    longestStall = age;
                    longestStallWhat = what;
                }
                if (age > options.stallLimitSeconds) {
                    fail("stall: " + what + " has not moved for " + std::to_string(int(age)) +
                         " s");
                    dumpStacks();
                    platform.kill();
                    std::printf("seed %llu: ended on a stall\n", options.seed);
                    std::fflush(stdout);
                    std::_Exit(1);
                }
            }
            if (now - lastMailCheck > 5s) {
                checkMail(false);
                lastMailCheck = now;
            }
            if (running && now >= start + std::chrono::minutes(nextMinute)) {
                sample(nextMinute, faults.calmSince(10s) && !faults.awaitingRecovery(),
                       replyMailboxes);
                ++nextMinute;
            }
            // "ended" is the driver's own kill, before its restart; anything else is a crash.
            if (const std::string ended = platform.endedHow();
                !ended.empty() && ended != "ended" && !emulatorCrashed) {
                emulatorCrashed = true;
                fail("the emulator ended by itself (" + ended + ")");
            }
        }
    });

    std::this_thread::sleep_until(runEnd);
    driver.join();
    running = false;
    poster.join();
    requester.join();
    upkeeper.join();
    // Listeners stop calling the library, so that the teardown below measures the objects.
    host->sideCallsOn = false;
    while (counters.replyCallsInFlight > 0) {
        std::this_thread::sleep_for(100ms);
    }
    // The last posts are judged once their mail had time to arrive.
    std::this_thread::sleep_for(5s);
    {
        std::lock_guard<std::mutex> round(watchdogRound);
        teardownStart = Clock::now().time_since_epoch().count();
        tearingDown = true;
    }
    checkMail(true);

    // The end sample, in calm, with everything still live.
    long endReplyMailboxes = 0;
    if (const auto answer = platform.control("GET", "/_emulator/state"); answer.status == 200) {
        for (const auto& m : nlohmann::json::parse(answer.body)["mailboxes"]) {
            for (const auto& topic : m["subscriptions"]) {
                if (topic.get<std::string>().rfind("chaos/replies/", 0) == 0 &&
                    (m["polling"].get<bool>() ||
                     m["idleMs"].get<double>() < 3000.0 * double(options.maxPoll))) {
                    ++endReplyMailboxes;
                }
            }
        }
    }
    const double endMinute = secondsBetween(start, Clock::now()) / 60;
    sample(endMinute, faults.calmSince(10s), endReplyMailboxes);
    const Sample endSample = samples.back();

    const auto cleanupStart = Clock::now();
    teardownStart = cleanupStart.time_since_epoch().count();
    host->cleanUp();
    const double cleanupMs = secondsBetween(cleanupStart, Clock::now()) * 1000;
    std::weak_ptr<QxPlatformApi> apiGone = host->api;
    std::weak_ptr<QxPlatformApi> responderGone = host->responderApi;
    api.reset();
    const auto destroyStart = Clock::now();
    teardownStart = destroyStart.time_since_epoch().count();
    host.reset();
    const double teardownMs = secondsBetween(destroyStart, Clock::now()) * 1000;
    watching = false;
    watchdog.join();
    if (!apiGone.expired() || !responderGone.expired()) {
        fail("an API object outlived the teardown (a reference is still held somewhere)");
    }
    if (teardownMs > 1000) {
        fail("destroying the API objects took " + std::to_string(int(teardownMs)) + " ms");
    }

    // --- verdicts ---
    // Mail missing when its post was checked is lost only if it never came.
    for (const auto& [seq, slot, postedAt] : verdict.missing) {
        Receipts& r = receipts[static_cast<std::size_t>(slot)];
        std::lock_guard<std::mutex> lock(r.mutex);
        if (r.lateSeqs.count(seq) != 0) {
            ++verdict.late;
            ++verdict.delivered;
            continue;
        }
        ++verdict.lost;
        if (verdict.examples.size() < 20) {
            verdict.examples.push_back("p" + std::to_string(seq) + " posted at " +
                                       std::to_string(postedAt) + " s never reached slot " +
                                       std::to_string(slot));
        }
    }
    if (verdict.lost > 0) {
        fail(std::to_string(verdict.lost) + " deliveries of mail posted in calm were lost");
    }
    if (verdict.outOfOrder > 0) {
        fail(std::to_string(verdict.outOfOrder) + " deliveries of calm mail out of order");
    }
    if (verdict.duplicated > 0) {
        fail(std::to_string(verdict.duplicated) + " deliveries of calm mail duplicated");
    }
    if (verdict.cleanRequestsMissed > 0) {
        fail(std::to_string(verdict.cleanRequestsMissed) + " requests made in calm got no reply");
    }
    // Flatness: the calm samples from minute 5 (or from half the run in shorter runs), the
    // median of their first half against the median of their second half. One sample against
    // another says little: idle kept-alive connections and delivery threads come and go with
    // the traffic (descriptors moved between 114 and 141 within minutes in the hour). With
    // fewer than four calm samples, the first against the calm end. Runs under 3 minutes are too
    // short to judge.
    const double baseFrom = options.minutes >= 10 ? 5 : double(options.minutes) / 2;
    std::vector<Sample> calmSamples;
    for (const auto& s : samples) {
        if (s.minute >= baseFrom && s.calm) {
            calmSamples.push_back(s);
        }
    }
    const auto medianOf = [](std::vector<Sample> part) {
        const auto middle = [&part](auto field) {
            std::vector<decltype(field(part[0]))> values;
            for (const auto& s : part) {
                values.push_back(field(s));
            }
            std::sort(values.begin(), values.end());
            return values[values.size() / 2];
        };
        Sample m = part.front();
        m.minute = part.back().minute;
        m.descriptors = middle([](const Sample& s) { return s.descriptors; });
        m.threads = middle([](const Sample& s) { return s.threads; });
        m.heapKiB = middle([](const Sample& s) { return s.heapKiB; });
        m.rssKiB = middle([](const Sample& s) { return s.rssKiB; });
        m.replyMailboxesPolled = middle([](const Sample& s) { return s.replyMailboxesPolled; });
        return m;
    };
    std::optional<Sample> baseSample;
    Sample judgedEnd = endSample;
    if (calmSamples.size() >= 4) {
        const auto half = calmSamples.begin() + static_cast<long>(calmSamples.size() / 2);
        baseSample = medianOf(std::vector<Sample>(calmSamples.begin(), half));
        judgedEnd = medianOf(std::vector<Sample>(half, calmSamples.end()));
    } else if (calmSamples.size() >= 2) {
        baseSample = calmSamples.front();
    }
    const Sample* base = baseSample ? &*baseSample : nullptr;
    const Sample* atFive = nullptr;
    for (const auto& s : samples) {
        if (s.minute <= 5.001) {
            atFive = &s;
        }
    }
    std::string flatness = "not judged (run under 3 minutes or no calm sample)";
    if (options.minutes >= 3 && base != nullptr) {
        const long descriptorSlack =
            8 + std::max(0L, judgedEnd.replyMailboxesPolled - base->replyMailboxesPolled);
        char text[512];
        std::snprintf(
            text, sizeof text,
            "%s minute %.1f -> %.1f: descriptors %zu -> %zu (allowed +%ld), threads %zu -> "
            "%zu (allowed +8), heap %ld -> %ld KiB (allowed +10%% +2 MiB), rss %ld -> "
            "%ld KiB",
            calmSamples.size() >= 4 ? "medians of calm samples up to" : "calm samples at",
            base->minute, judgedEnd.minute, base->descriptors, judgedEnd.descriptors,
            descriptorSlack, base->threads, judgedEnd.threads, base->heapKiB, judgedEnd.heapKiB,
            base->rssKiB, judgedEnd.rssKiB);
        flatness = text;
        if (long(judgedEnd.descriptors) > long(base->descriptors) + descriptorSlack) {
            fail("descriptors grew: " + flatness);
        }
        if (judgedEnd.threads > base->threads + 8) {
            fail("threads grew: " + flatness);
        }
        if (double(judgedEnd.heapKiB) > double(base->heapKiB) * 1.10 + 2048) {
            fail("heap in use grew: " + flatness);
        }
    }

    std::printf("\n===== chaos summary =====\n");
    std::printf("seed %llu, %ld minutes, %ld mailboxes, %ld services, %ld posts/s\n", options.seed,
                options.minutes, options.mailboxes, options.services, options.postsPerSecond);
    const auto events = faults.copy();
    std::printf("faults injected: %zu;", events.size());
    for (const auto& [kind, count] : injected) {
        std::printf(" %s %ld;", kind.c_str(), count);
    }
    std::printf("\nlongest stall: %.0f s (%s)\n", longestStall, longestStallWhat.c_str());
    std::printf("recovery (s), per kind: count, median, worst\n");
    for (const auto& [kind, times] : recoverySeconds) {
        std::printf("  %-10s %3zu  %5s  %5.0f\n", kind.c_str(), times.size(), median(times).c_str(),
                    *std::max_element(times.begin(), times.end()));
    }
    std::printf(
        "mail: posted %ld, post failures %ld, listener calls %ld; checked %ld posts, %ld in calm: "
        "%ld deliveries expected, %ld delivered (%ld of them late), %ld lost, %ld out of order, "
        "%ld duplicated\n",
        counters.posted.load(), counters.postFailures.load(), counters.listenerCalls.load(),
        verdict.checked, verdict.clean, verdict.expected, verdict.delivered, verdict.late,
        verdict.lost, verdict.outOfOrder, verdict.duplicated);
    std::printf(
        "request/reply: %ld made, %ld answered, %ld missed (%ld threw); in calm %ld, %ld missed\n",
        counters.requests.load(), counters.replies.load(), counters.missedReplies.load(),
        counters.requestFailures.load(), verdict.cleanRequests, verdict.cleanRequestsMissed);
    std::printf("listeners' own calls: %ld, %ld failed\n", counters.sideCalls.load(),
                counters.sideCallFailures.load());
    std::printf(
        "host upkeep: %ld mailboxes made again (%ld attempts failed), %ld services "
        "registered again\n",
        counters.mailboxesRemade.load(), counters.mailboxRemakeFailures.load(),
        counters.servicesReregistered.load());
    long late = 0;
    for (auto& r : receipts) {
        late += r.late;
    }
    std::printf("mail arriving after its post was judged: %ld\n", late);
    if (atFive != nullptr) {
        std::printf(
            "memory at minute %.1f: rss %ld KiB, heap %ld KiB, %zu descriptors, %zu threads\n",
            atFive->minute, atFive->rssKiB, atFive->heapKiB, atFive->descriptors, atFive->threads);
    }
    std::printf(
        "memory at the end (minute %.1f): rss %ld KiB, heap %ld KiB, %zu descriptors, %zu "
        "threads, %ld temporary reply mailboxes still polled\n",
        endSample.minute, endSample.rssKiB, endSample.heapKiB, endSample.descriptors,
        endSample.threads, endSample.replyMailboxesPolled);
    std::printf("flatness: %s\n", flatness.c_str());
    std::printf(
        "clean-up (unregister, delete mailboxes) %.0f ms; destroying the API objects "
        "%.0f ms\n",
        cleanupMs, teardownMs);
    for (const auto& example : verdict.examples) {
        std::printf("  %s\n", example.c_str());
    }
    {
        std::lock_guard<std::mutex> lock(failuresMutex);
        std::printf("result: %s\n", failures.empty() ? "PASS" : "FAIL");
        for (const auto& why : failures) {
            std::printf("  %s\n", why.c_str());
        }
    }
    std::fflush(stdout);
    platform.kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return failed ? 1 : 0;
}
