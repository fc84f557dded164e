// What the statistics cost: post latency from one thread and mail throughput through one
// mailbox, each measured with the API object's statistics() read every 10 ms from another
// thread and without any reader, in alternating rounds of one run (so that drift of the
// machine falls on both alike), against the in-process emulator on loopback. Also the time of
// one statistics() call itself.
//
//   statistics_bench [--rounds R] [--posts N] [--mail M]
//
// Prints a Markdown table: medians over the rounds of each round's post p50 and p99, and of
// each round's mail per second.
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <qxpemu/Emulator.h>

namespace {

using Clock = std::chrono::steady_clock;
using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;

class CountingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++received_;
        changed_.notify_all();
    }
    void waitFor(long count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return received_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    long received_ = 0;
};

// Reads the snapshot every 10 ms while it lives.
class Reader {
  public:
    explicit Reader(QxPlatformApi& api)
        : thread_([this, &api] {
              while (!done_) {
                  const auto stats = api.statistics();
                  sink_ += stats.postsSent;
                  ++reads_;
                  std::this_thread::sleep_for(std::chrono::milliseconds(10));
              }
          }) {}
    ~Reader() {
        done_ = true;
        thread_.join();
    }
    long reads() const { return reads_; }

  private:
    std::atomic<bool> done_{false};
    std::atomic<long> reads_{0};
    std::atomic<std::uint64_t> sink_{0};
    std::thread thread_;
};

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(values.size() * p))];
}

double median(std::vector<double> values) {
    return percentile(std::move(values), 0.5);
}

struct PostRound {
    double p50Us;
    double p99Us;
};

PostRound postRound(QxPlatformApi& api, int posts) {
    std::vector<double> latencies;
    latencies.reserve(posts);
    for (int i = 0; i < posts; ++i) {
        const auto start = Clock::now();
        api.postNotification(L"bench/statistics/post", L"benchmark content", 0);
        latencies.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return {percentile(latencies, 0.5), percentile(latencies, 0.99)};
}

// Mail per second through one mailbox: `mail` notifications from 4 posting threads.
double mailRound(QxPlatformApi& api, CountingListener& listener, long& delivered, int mail) {
    std::atomic<int> next{0};
    const auto start = Clock::now();
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            while (next++ < mail) {
                api.postNotification(L"bench/statistics/mail", L"m", 0);
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    delivered += mail;
    listener.waitFor(delivered);
    return mail / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 6;
    int posts = 2000;
    int mail = 4000;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--rounds") {
            rounds = std::atoi(argv[i + 1]);
        } else if (option == "--posts") {
            posts = std::atoi(argv[i + 1]);
        } else if (option == "--mail") {
            mail = std::atoi(argv[i + 1]);
        }
    }
    const auto scratch = std::filesystem::temp_directory_path() / "tolva-statistics-bench";
    std::filesystem::create_directories(scratch / "C:" / "logs");
    std::filesystem::current_path(scratch);
    ::unsetenv("http_proxy");

    qxpemu::EmulatorOptions options;
    options.threads = 1;
    options.maxRecordedRequests = 1000;
    options.clients.push_back({"bench-client", "bench-secret-0123456789", "acc-bench"});
    qxpemu::Emulator emulator(options);
    emulator.start();

    auto api = Varkel::Zu::MakeShared::create<QxPlatformApi>(Varkel::Zu::widen(emulator.baseUrl()),
                                                             Varkel::Zu::widen(emulator.apiKey()));
    auto listener = std::make_shared<CountingListener>();
    auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
    mailbox->addListener(listener);
    api->createMailbox(mailbox, L"bench/statistics/mail");
    long delivered = 0;

    // Warm-up: connections open, threads made.
    postRound(*api, 200);
    mailRound(*api, *listener, delivered, 500);

    std::vector<double> p50[2], p99[2], mailRate[2];
    long reads = 0;
    for (int round = 0; round < rounds; ++round) {
        for (int withReader = 0; withReader < 2; ++withReader) {
            // Alternate which kind goes first, so neither always runs on a warmer machine.
            const bool read = (withReader == 1) != (round % 2 == 1);
            std::unique_ptr<Reader> reader;
            if (read) {
                reader = std::make_unique<Reader>(*api);
            }
            const PostRound postResult = postRound(*api, posts);
            const double rate = mailRound(*api, *listener, delivered, mail);
            if (reader) {
                reads += reader->reads();
            }
            p50[read].push_back(postResult.p50Us);
            p99[read].push_back(postResult.p99Us);
            mailRate[read].push_back(rate);
        }
    }

    // The cost of one snapshot, with the object idle.
    const int snapshots = 20000;
    const auto start = Clock::now();
    std::uint64_t sink = 0;
    for (int i = 0; i < snapshots; ++i) {
        sink += api->statistics().postsSent;
    }
    const double snapshotUs =
        std::chrono::duration<double, std::micro>(Clock::now() - start).count() / snapshots;

    std::printf("| statistics | post p50 (us) | post p99 (us) | mail per second |\n");
    std::printf("|---|---:|---:|---:|\n");
    std::printf("| not read | %.0f | %.0f | %.0f |\n", median(p50[0]), median(p99[0]),
                median(mailRate[0]));
    std::printf("| read every 10 ms | %.0f | %.0f | %.0f |\n", median(p50[1]), median(p99[1]),
                median(mailRate[1]));
    std::printf(
        "\n%d rounds of %d posts (one thread) and %d mail (4 posting threads, one "
        "mailbox) each way; %ld snapshots read during the reading rounds.\n",
        rounds, posts, mail, reads);
    std::printf("one statistics() call, object idle after the run: %.2f us (%d calls, %llu)\n",
                snapshotUs, snapshots, static_cast<unsigned long long>(sink % 10));
    const auto stats = api->statistics();
    std::printf("posts sent %llu, failed %llu; mail delivered %llu\n",
                static_cast<unsigned long long>(stats.postsSent),
                static_cast<unsigned long long>(stats.postsFailed),
                static_cast<unsigned long long>(stats.mailDelivered));
    api->deleteMailbox(mailbox);
    api.reset();
    emulator.stop();
    return 0;
}
