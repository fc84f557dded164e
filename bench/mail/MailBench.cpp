// Mail through QxPlatformApi mailboxes against qxp-emulator running as a process of its own
// (so that the figures of this process are the library's alone):
// - publish-to-listener latency through one mailbox (post, then wait until the listener has
//   the notification), p50 and p99, with the hand-overs per mail (tasks given to the HTTP
//   library's pool, context switches of this process); beside it the same posts received by a
//   plain libcurl client long-polling a mailbox of its own on one kept-alive connection (the
//   REST floor), and a mosquitto broker's publish-to-subscriber latency (QoS 0, loopback) when
//   libmosquitto and the broker are installed;
// - mail per second through one mailbox and through 100 mailboxes;
// - fan-out: one notification to 1,000 mailboxes, time until the last listener has it;
// - 10,000 mailboxes polling in this process: memory per mailbox and threads used;
// - teardown (the API object's destructor) with 1,000 polls outstanding.
//
//   mail_bench [--latency-samples N] [--mailboxes M] [--pool-threads T] [--tls] [--only-many]
//              [--only-latency] [--latency-gap-us G]
//
// --tls runs against "qxp-emulator --tls", trusting the CA it writes; --only-many measures
// only the many polling mailboxes (memory and threads) and the teardown; --only-latency only
// the publish-to-listener latencies. --latency-gap-us waits G us after each mail before the
// next post (default 0: at once), so that the mailbox's next poll is parked when it comes.
//
// --pool-threads sizes the HTTP library's shared thread pool (default: its own 40) before
// anything uses it.
//
// Raises its own descriptor limit: every polling mailbox holds a socket. Prints Markdown.
// libcurl first: the HTTP library's headers define macros that break curl.h's attribute checks
// under Clang.
#include <curl/curl.h>

#include "../common/HandOverCounter.h"
#include "../common/ProcessProbe.h"
#include "EmulatorProcess.h"

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/WebUtils.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <pplx/threadpool.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#ifdef TOLVA_BENCH_MOSQUITTO
#include <mosquitto.h>
#endif

namespace {

using TolvaBench::heapInUseKiB;
using TolvaBench::residentKiB;
using TolvaBench::threadCount;
using TolvaTest::EmulatorProcess;

using Clock = std::chrono::steady_clock;
using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;

double microsecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::micro>(to - from).count();
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    return values[index];
}

// Counts mail and lets the bench wait for a total.
class CountingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
        lastAt_ = Clock::now();
        changed_.notify_all();
    }
    // Waits until `total` mails have come in all; returns when the last one came.
    Clock::time_point waitFor(std::size_t total) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::seconds(60), [&] { return count_ >= total; })) {
            throw std::runtime_error("mail did not arrive");
        }
        return lastAt_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t count_ = 0;
    Clock::time_point lastAt_;
};

std::shared_ptr<Mailbox> listeningMailbox(QxPlatformApi& api, const std::wstring& topic,
                                          const std::shared_ptr<CountingListener>& listener) {
    auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
    mailbox->setDurable(false);
    mailbox->addListener(listener);
    api.createMailbox(mailbox, topic);
    return mailbox;
}

// Time between a listener's mail and the next post: 0 posts again at once (the next poll may
// not be parked yet, so its sending is part of the latency); a gap of a few ms lets it park.
int latencyGapUs = 0;

void pauseBeforeNextPost() {
    if (latencyGapUs > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(latencyGapUs));
    }
}

std::vector<double> libraryLatencies(QxPlatformApi& api, int samples,
                                     TolvaBench::HandOverCounter::Counts& perMail) {
    const auto listener = std::make_shared<CountingListener>();
    const auto mailbox = listeningMailbox(api, L"bench/latency", listener);
    // Let the first poll park.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::vector<double> latencies;
    TolvaBench::HandOverCounter::Counts before;
    for (int i = 0; i < samples + 20; ++i) {
        if (i == 20) {
            before = TolvaBench::HandOverCounter::now();
            TolvaBench::HandOverCounter::resetKinds();
        }
        pauseBeforeNextPost();
        const auto sent = Clock::now();
        api.postNotification(L"bench/latency", L"m", 0);
        const auto received = listener->waitFor(static_cast<std::size_t>(i) + 1);
        if (i >= 20) {
            latencies.push_back(microsecondsBetween(sent, received));
        }
    }
    perMail = TolvaBench::HandOverCounter::now().minus(before).per(samples);
    const auto answerToListener = api.statistics().pollAnswerToListener;
    std::printf(
        "| poll answer read to listener (the library's own window): p50 / p99 | %lld / %lld "
        "us |\n",
        static_cast<long long>(answerToListener.p50.count()),
        static_cast<long long>(answerToListener.p99.count()));
    TolvaBench::HandOverCounter::printKinds("publish to listener, per mail", samples);
    api.deleteMailbox(mailbox);
    return latencies;
}

std::size_t keepText(char* data, std::size_t size, std::size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

// The same publisher (the library's post), received by a plain libcurl client that long-polls
// a mailbox of its own over one kept-alive connection and counts an answer with mail as
// delivered the moment its body is read: the floor for receiving mail over REST.
std::vector<double> curlLongPollLatencies(QxPlatformApi& api, const std::string& url,
                                          const std::string& caFile, int samples) {
    const std::string token = Varkel::Zu::narrow(api.getCurrentToken().accessToken);
    const std::string mailboxId = boost::uuids::to_string(boost::uuids::random_generator()());
    CURL* curl = curl_easy_init();
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, "Accept: application/json");
    headers = curl_slist_append(headers, "Content-Type: application/json");
    headers = curl_slist_append(headers, "User-Agent: Tolva");
    headers = curl_slist_append(headers, ("Authorization: Bearer " + token).c_str());
    headers = curl_slist_append(headers, "Expect:");
    std::string answer;
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, keepText);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
    if (!caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
    }
    const std::string create =
        "{\"durable\":false,\"id\":\"" + mailboxId + "\",\"subscription\":\"bench/curl-latency\"}";
    curl_easy_setopt(curl, CURLOPT_URL, (url + "/notifications/api/v1/mailbox").c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, create.c_str());
    long status = 0;
    if (curl_easy_perform(curl) != CURLE_OK ||
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status != 200) {
        throw std::runtime_error("libcurl could not create its mailbox: " + answer);
    }
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(
        curl, CURLOPT_URL,
        (url + "/notifications/api/v1/notifications/" + mailboxId + "?timeout=30").c_str());

    std::mutex mutex;
    std::condition_variable changed;
    std::size_t received = 0;
    Clock::time_point lastAt;
    std::atomic<bool> stop{false};
    std::thread poller([&] {
        while (!stop) {
            answer.clear();
            const CURLcode code = curl_easy_perform(curl);
            const auto at = Clock::now();
            long pollStatus = 0;
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &pollStatus);
            if (code == CURLE_OK && pollStatus == 200 &&
                answer.find("\"content\"") != std::string::npos) {
                std::lock_guard<std::mutex> lock(mutex);
                ++received;
                lastAt = at;
                changed.notify_all();
            } else if (code != CURLE_OK || (pollStatus != 200 && pollStatus != 204)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::vector<double> latencies;
    for (int i = 0; i < samples + 20; ++i) {
        pauseBeforeNextPost();
        const auto sent = Clock::now();
        api.postNotification(L"bench/curl-latency", L"m", 0);
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, std::chrono::seconds(10),
                              [&] { return received >= static_cast<std::size_t>(i) + 1; })) {
            stop = true;
            lock.unlock();
            api.postNotification(L"bench/curl-latency", L"m", 0);
            poller.join();
            throw std::runtime_error("libcurl's long poll did not receive the mail");
        }
        if (i >= 20) {
            latencies.push_back(microsecondsBetween(sent, lastAt));
        }
    }
    // One more post ends the parked poll.
    stop = true;
    api.postNotification(L"bench/curl-latency", L"m", 0);
    poller.join();
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return latencies;
}

// Waits until the platform holds `count` parked polls (10 minutes at most).
void waitForParkedPolls(const EmulatorProcess& emulator, int count) {
    const std::string url = web::json::value::parse(emulator.config()).at("url").as_string();
    const auto client = Varkel::Tolva::WebUtils::createHttpClient(Varkel::Zu::widen(url), nullptr);
    const auto deadline = Clock::now() + std::chrono::minutes(10);
    while (Clock::now() < deadline) {
        const auto view = client->request(web::http::methods::GET, "/_emulator/dashboard?page=0")
                              .get()
                              .extract_json(true)
                              .get();
        if (view.at("mailboxes").at("parkedPolls").as_integer() >= count) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    throw std::runtime_error("the mailboxes' polls did not all park");
}

#ifdef TOLVA_BENCH_MOSQUITTO
struct MosquittoState {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t received = 0;
    Clock::time_point lastAt;
    bool subscribed = false;
};

std::vector<double> mosquittoLatencies(int samples) {
    const char* broker = "/usr/sbin/mosquitto";
    if (access(broker, X_OK) != 0) {
        return {};
    }
    const int port = 18830 + static_cast<int>(getpid() % 1000);
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string portText = std::to_string(port);
        execl(broker, "mosquitto", "-p", portText.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    std::vector<double> latencies;
    mosquitto_lib_init();
    MosquittoState state;
    mosquitto* subscriber = mosquitto_new(nullptr, true, &state);
    mosquitto* publisher = mosquitto_new(nullptr, true, nullptr);
    mosquitto_message_callback_set(subscriber,
                                   [](mosquitto*, void* data, const mosquitto_message*) {
                                       auto* s = static_cast<MosquittoState*>(data);
                                       std::lock_guard<std::mutex> lock(s->mutex);
                                       ++s->received;
                                       s->lastAt = Clock::now();
                                       s->changed.notify_all();
                                   });
    mosquitto_subscribe_callback_set(subscriber, [](mosquitto*, void* data, int, int, const int*) {
        auto* s = static_cast<MosquittoState*>(data);
        std::lock_guard<std::mutex> lock(s->mutex);
        s->subscribed = true;
        s->changed.notify_all();
    });
    bool connected = false;
    for (int attempt = 0; attempt < 50 && !connected; ++attempt) {
        connected = mosquitto_connect(subscriber, "127.0.0.1", port, 60) == MOSQ_ERR_SUCCESS;
        if (!connected) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    if (connected && mosquitto_connect(publisher, "127.0.0.1", port, 60) == MOSQ_ERR_SUCCESS) {
        mosquitto_loop_start(subscriber);
        mosquitto_loop_start(publisher);
        mosquitto_subscribe(subscriber, nullptr, "bench/latency", 0);
        {
            std::unique_lock<std::mutex> lock(state.mutex);
            state.changed.wait_for(lock, std::chrono::seconds(5), [&] { return state.subscribed; });
        }
        for (int i = 0; i < samples + 20; ++i) {
            const auto sent = Clock::now();
            mosquitto_publish(publisher, nullptr, "bench/latency", 1, "m", 0, false);
            std::unique_lock<std::mutex> lock(state.mutex);
            state.changed.wait_for(lock, std::chrono::seconds(5), [&] {
                return state.received >= static_cast<std::size_t>(i) + 1;
            });
            if (i >= 20) {
                latencies.push_back(microsecondsBetween(sent, state.lastAt));
            }
        }
        mosquitto_disconnect(publisher);
        mosquitto_disconnect(subscriber);
        mosquitto_loop_stop(publisher, true);
        mosquitto_loop_stop(subscriber, true);
    }
    mosquitto_destroy(publisher);
    mosquitto_destroy(subscriber);
    mosquitto_lib_cleanup();
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return latencies;
}
#endif

// Mail per second: `posts` notifications from 4 posting threads, spread over `mailboxes`
// mailboxes (one topic each); timed until the last one has been delivered.
double mailPerSecond(QxPlatformApi& api, int mailboxes, int posts) {
    const auto listener = std::make_shared<CountingListener>();
    std::vector<std::shared_ptr<Mailbox>> created;
    for (int i = 0; i < mailboxes; ++i) {
        created.push_back(listeningMailbox(api, L"bench/rate/" + std::to_wstring(i), listener));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto started = Clock::now();
    std::vector<std::thread> posters;
    std::atomic<int> next{0};
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (int i = next++; i < posts; i = next++) {
                api.postNotification(L"bench/rate/" + std::to_wstring(i % mailboxes), L"m", 0);
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    const auto last = listener->waitFor(static_cast<std::size_t>(posts));
    for (const auto& mailbox : created) {
        api.deleteMailbox(mailbox);
    }
    return posts / std::chrono::duration<double>(last - started).count();
}

// One notification to `mailboxes` subscribed mailboxes: ms until the last listener has it.
std::vector<double> fanOut(QxPlatformApi& api, int mailboxes, int rounds) {
    std::vector<std::shared_ptr<CountingListener>> listeners;
    std::vector<std::shared_ptr<Mailbox>> created;
    for (int i = 0; i < mailboxes; ++i) {
        listeners.push_back(std::make_shared<CountingListener>());
        created.push_back(listeningMailbox(api, L"bench/fan", listeners.back()));
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::vector<double> times;
    for (int round = 1; round <= rounds; ++round) {
        const auto sent = Clock::now();
        api.postNotification(L"bench/fan", L"m", 0);
        Clock::time_point last = sent;
        for (const auto& listener : listeners) {
            last = std::max(last, listener->waitFor(static_cast<std::size_t>(round)));
        }
        times.push_back(microsecondsBetween(sent, last) / 1000.0);
    }
    for (const auto& mailbox : created) {
        api.deleteMailbox(mailbox);
    }
    return times;
}

}  // namespace

int main(int argc, char** argv) {
    int latencySamples = 500;
    int manyMailboxes = 10000;
    int poolThreads = 0;
    bool tls = false;
    bool onlyMany = false;
    bool onlyLatency = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == "--tls") {
            tls = true;
        } else if (option == "--only-many") {
            onlyMany = true;
        } else if (option == "--only-latency") {
            onlyLatency = true;
        } else if (option == "--latency-samples" && hasValue) {
            latencySamples = std::max(10, std::atoi(argv[++i]));
        } else if (option == "--latency-gap-us" && hasValue) {
            latencyGapUs = std::max(0, std::atoi(argv[++i]));
        } else if (option == "--mailboxes" && hasValue) {
            manyMailboxes = std::max(100, std::atoi(argv[++i]));
        } else if (option == "--pool-threads" && hasValue) {
            poolThreads = std::max(1, std::atoi(argv[++i]));
        } else {
            std::cerr << "usage: mail_bench [--latency-samples N] [--mailboxes M] "
                         "[--pool-threads T] [--tls] [--only-many] [--only-latency] "
                         "[--latency-gap-us G]\n";
            return 2;
        }
    }
    if (poolThreads > 0) {
        crossplat::threadpool::initialize_with_threads(static_cast<std::size_t>(poolThreads));
    }
    // Before any client: every task the HTTP library's pool runs is counted from here.
    TolvaBench::HandOverCounter::install();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    // Every polling mailbox holds a socket.
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::filesystem::create_directories("C:/logs");
    Varkel::Zu::Logger::setStderrEnabled(false);

    const std::string caFile = (std::filesystem::temp_directory_path() /
                                ("mail-bench-ca-" + std::to_string(getpid()) + ".pem"))
                                   .string();
    EmulatorProcess emulator(tls ? std::vector<std::string>{"--tls", "--ca-out", caFile}
                                 : std::vector<std::string>{});
    if (tls) {
        Varkel::Tolva::WebUtils::setTrustedCaFile(Varkel::Zu::widen(caFile));
    }
    auto api = QxPlatformApi::createFromQXPlatformConfig(Varkel::Zu::widen(emulator.config()));

    std::printf("| measure (%s) | value |\n|---|---:|\n", tls ? "HTTPS" : "HTTP");
    if (!onlyMany) {
        TolvaBench::HandOverCounter::Counts perMail;
        const auto library = libraryLatencies(*api, latencySamples, perMail);
        std::printf("| publish-to-listener latency, one mailbox: p50 / p99 | %.0f / %.0f us |\n",
                    percentile(library, 0.5), percentile(library, 0.99));
        std::printf(
            "| per mail (post and delivery): pool tasks / context switches | %.2f / %.2f "
            "|\n",
            perMail.poolTasks, perMail.contextSwitches);
        std::fflush(stdout);
        const std::string url = web::json::value::parse(emulator.config()).at("url").as_string();
        const auto curlFloor =
            curlLongPollLatencies(*api, url, tls ? caFile : std::string(), latencySamples);
        std::printf(
            "| same posts, plain libcurl long poll: p50 / p99 | %.0f / %.0f us (library/libcurl "
            "p50 %.2f) |\n",
            percentile(curlFloor, 0.5), percentile(curlFloor, 0.99),
            percentile(library, 0.5) / percentile(curlFloor, 0.5));
#ifdef TOLVA_BENCH_MOSQUITTO
        const auto broker = mosquittoLatencies(latencySamples);
        if (!broker.empty()) {
            std::printf(
                "| mosquitto publish-to-subscriber latency (QoS 0): p50 / p99 | %.0f / %.0f us |\n",
                percentile(broker, 0.5), percentile(broker, 0.99));
        }
#endif
        std::fflush(stdout);
        if (onlyLatency) {
            curl_global_cleanup();
            return 0;
        }
        std::printf("| mail per second, one mailbox (4 posting threads) | %.0f |\n",
                    mailPerSecond(*api, 1, 4000));
        std::printf("| mail per second, 100 mailboxes (4 posting threads) | %.0f |\n",
                    mailPerSecond(*api, 100, 4000));
        std::fflush(stdout);
        const auto fan = fanOut(*api, 1000, 5);
        std::printf(
            "| one notification to 1,000 mailboxes, last listener: median / worst of 5 | %.0f / "
            "%.0f "
            "ms |\n",
            percentile(fan, 0.5), percentile(fan, 1.0));
        std::fflush(stdout);
    }

    // Many mailboxes polling at once, then teardown with their polls outstanding.
    const long rssBefore = residentKiB();
    const long heapBefore = heapInUseKiB();
    const std::size_t threadsBefore = threadCount();
    const auto listener = std::make_shared<CountingListener>();
    std::vector<std::shared_ptr<Mailbox>> many;
    for (int i = 0; i < manyMailboxes; ++i) {
        many.push_back(listeningMailbox(*api, L"bench/many/" + std::to_wstring(i), listener));
    }
    // Every mailbox has sent its first poll once the platform holds that many parked polls;
    // TLS handshakes make that take a while.
    const auto setUpStart = Clock::now();
    waitForParkedPolls(emulator, manyMailboxes);
    const double setUpSeconds = std::chrono::duration<double>(Clock::now() - setUpStart).count();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const long rssAfter = residentKiB();
    const long heapAfter = heapInUseKiB();
    std::printf("| %d mailboxes: until every one has its poll parked | %.1f s |\n", manyMailboxes,
                setUpSeconds);
    std::printf("| %d mailboxes polling: memory per mailbox (RSS growth) | %.1f KB |\n",
                manyMailboxes, static_cast<double>(rssAfter - rssBefore) * 1.024 / manyMailboxes);
    std::printf("| %d mailboxes polling: heap in use per mailbox (allocator) | %.1f KB |\n",
                manyMailboxes, static_cast<double>(heapAfter - heapBefore) * 1.024 / manyMailboxes);
    std::printf("| threads of this process: before / with %d mailboxes polling | %zu / %zu |\n",
                manyMailboxes, threadsBefore, threadCount());
    std::fflush(stdout);
    // The platform keeps these mailboxes; this measures only the local teardown.
    many.resize(1000);
    auto teardownApi =
        QxPlatformApi::createFromQXPlatformConfig(Varkel::Zu::widen(emulator.config()));
    api.reset();
    many.clear();
    for (int i = 0; i < 1000; ++i) {
        many.push_back(listeningMailbox(*teardownApi, L"bench/teardown", listener));
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const auto teardownStarted = Clock::now();
    teardownApi.reset();
    std::printf("| teardown with 1,000 polls outstanding | %.0f ms |\n",
                microsecondsBetween(teardownStarted, Clock::now()) / 1000.0);
    return 0;
}
