// The library behind real infrastructure, against qxp-emulator as a process of its own serving
// HTTPS with a certificate this program makes (so that a restarted emulator serves the same
// one, with the same signing key and, through its state file, the same mailboxes):
//
//   infrastructure_bench many [--mailboxes N] [--restart]
//       N HTTPS mailboxes (default 10,000): from the first creation until every one has its
//       poll parked on the platform; with --restart, the emulator is then stopped and started
//       again on the same port, and the time until every poll is parked again is measured.
//   infrastructure_bench idle [--mailboxes N] [--minutes M]
//       N idle HTTPS mailboxes (default 1,000) for M minutes (default 10): polls sent, polls
//       that failed in transport, new connections (each a TLS handshake) per minute, and this
//       process's CPU per mailbox per hour.
//   infrastructure_bench posts [--samples S]
//       S posts (default 50), each after a pause of 1.2 s, against a server that closes
//       connections idle for 1 s and against one that keeps them: median and p90.
//
// Default trust settings: the system's CA bundle is loaded for each new connection, as on any
// host. Prints Markdown. Raises its own descriptor limit.
#include "EmulatorProcess.h"

#include <TolvaCore/ApiStatistics.h>
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/WebUtils.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <cpprest/http_client.h>
#include <cpprest/json.h>

namespace {

using Clock = std::chrono::steady_clock;
using TolvaTest::EmulatorProcess;
using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;

class QuietListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override {}
};

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A certificate for 127.0.0.1, its key (also the token signing key) and a state file.
struct Files {
    std::filesystem::path dir;
    std::string cert;
    std::string key;
    std::string state;

    Files() {
        dir = std::filesystem::temp_directory_path() /
              ("infrastructure-bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir);
        cert = (dir / "cert.pem").string();
        key = (dir / "key.pem").string();
        state = (dir / "state.json").string();
        const std::string command =
            "openssl req -x509 -newkey rsa:2048 -nodes -keyout " + key + " -out " + cert +
            " -days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1,DNS:localhost "
            "-addext basicConstraints=critical,CA:TRUE 2>/dev/null";
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("openssl could not make the certificate");
        }
    }
    ~Files() {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
};

std::unique_ptr<EmulatorProcess> startEmulator(const Files& files, const std::string& port,
                                               const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"--tls", "--tls-cert", files.cert, "--tls-key", files.key,
                                       "--key", files.key,    "--state",  files.state, "--port",
                                       port,    "--threads",  "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<EmulatorProcess>(arguments);
}

web::json::value control(const EmulatorProcess& emulator, const std::string& path) {
    const std::string url = web::json::value::parse(emulator.config()).at("url").as_string();
    const auto client = Varkel::Tolva::WebUtils::createHttpClient(Varkel::Zu::widen(url), nullptr);
    return client->request(web::http::methods::GET, path).get().extract_json(true).get();
}

// Waits until the platform holds `count` parked polls; seconds taken, or -1 after `limit`.
double waitForParkedPolls(const EmulatorProcess& emulator, int count, Clock::time_point from,
                          std::chrono::minutes limit) {
    while (Clock::now() - from < limit) {
        try {
            const auto view = control(emulator, "/_emulator/dashboard?page=0");
            if (view.at("mailboxes").at("parkedPolls").as_integer() >= count) {
                return secondsSince(from);
            }
        } catch (const std::exception&) {
            // The emulator is busy or restarting: ask again.
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    return -1;
}

std::vector<std::shared_ptr<Mailbox>> createMailboxes(QxPlatformApi& api, int count) {
    const auto listener = std::make_shared<QuietListener>();
    std::vector<std::shared_ptr<Mailbox>> mailboxes;
    for (int i = 0; i < count; ++i) {
        auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        mailbox->setDurable(true);
        mailbox->addListener(listener);
        api.createMailbox(mailbox, L"bench/idle/" + std::to_wstring(i));
        mailboxes.push_back(std::move(mailbox));
    }
    return mailboxes;
}

void printTime(const char* what, double seconds) {
    if (seconds < 0) {
        std::printf("| %s | not within the limit |\n", what);
    } else {
        std::printf("| %s | %.1f s |\n", what, seconds);
    }
    std::fflush(stdout);
}

int many(int mailboxes, bool restart) {
    Files files;
    auto emulator = startEmulator(files, "0");
    const std::string port = emulator->port();
    Varkel::Tolva::WebUtils::setTrustedCaFile(Varkel::Zu::widen(files.cert));
    auto api = QxPlatformApi::createFromQXPlatformConfig(Varkel::Zu::widen(emulator->config()));
    std::printf("| measure (HTTPS, %d mailboxes) | value |\n|---|---:|\n", mailboxes);
    const auto started = Clock::now();
    auto held = createMailboxes(*api, mailboxes);
    const double created = secondsSince(started);
    std::printf("| creating them (one after the other) | %.1f s |\n", created);
    printTime("from the first creation until every poll is parked",
              waitForParkedPolls(*emulator, mailboxes, started, std::chrono::minutes(10)));
    if (restart) {
        const auto before = api->statistics();
        emulator->end(SIGTERM);
        const auto restarted = Clock::now();
        emulator = startEmulator(files, port);
        printTime("from the restart until every poll is parked again",
                  waitForParkedPolls(*emulator, mailboxes, restarted, std::chrono::minutes(10)));
        const auto after = api->statistics();
        std::printf("| polls failed in transport across the restart | %llu |\n",
                    static_cast<unsigned long long>(after.pollsTransportFailures -
                                                    before.pollsTransportFailures));
    }
    const auto stats = api->statistics();
    std::printf("| mailboxes dropped | %llu |\n",
                static_cast<unsigned long long>(stats.mailboxesDroppedByStatus +
                                                stats.mailboxesDroppedUnreadable +
                                                stats.mailboxesDroppedNotStarted));
    std::fflush(stdout);
    held.clear();
    api.reset();
    return 0;
}

int idle(int mailboxes, int minutes) {
    Files files;
    auto emulator = startEmulator(files, "0");
    Varkel::Tolva::WebUtils::setTrustedCaFile(Varkel::Zu::widen(files.cert));
    auto api = QxPlatformApi::createFromQXPlatformConfig(Varkel::Zu::widen(emulator->config()));
    const auto started = Clock::now();
    auto held = createMailboxes(*api, mailboxes);
    if (waitForParkedPolls(*emulator, mailboxes, started, std::chrono::minutes(5)) < 0) {
        throw std::runtime_error("the polls did not all park");
    }
    const auto before = api->statistics();
    const auto acceptedBefore = control(*emulator, "/_emulator/connections").at("accepted");
    const double cpuBefore = cpuSeconds();
    std::this_thread::sleep_for(std::chrono::minutes(minutes));
    const auto after = api->statistics();
    const auto acceptedAfter = control(*emulator, "/_emulator/connections").at("accepted");
    const double cpu = cpuSeconds() - cpuBefore;
    const double perMinute = 1.0 / minutes;
    const auto delta = [](std::uint64_t a, std::uint64_t b) { return static_cast<double>(a - b); };
    std::printf("| measure (HTTPS, %d idle mailboxes, %d minutes) | value |\n|---|---:|\n",
                mailboxes, minutes);
    std::printf("| polls sent per minute | %.0f |\n",
                delta(after.pollsSent, before.pollsSent) * perMinute);
    std::printf("| polls ended empty (204) per minute | %.0f |\n",
                delta(after.pollsEmpty, before.pollsEmpty) * perMinute);
    std::printf("| polls failed in transport | %.0f |\n",
                delta(after.pollsTransportFailures, before.pollsTransportFailures));
    std::printf("| new connections (TLS handshakes) per minute | %.1f |\n",
                static_cast<double>(acceptedAfter.as_number().to_int64() -
                                    acceptedBefore.as_number().to_int64()) *
                    perMinute);
    std::printf("| requests sent again on a new connection | %.0f |\n",
                delta(after.requestsSentAgain, before.requestsSentAgain));
    std::printf("| CPU of this process per mailbox per hour | %.1f ms |\n",
                cpu * 1000.0 / mailboxes * (60.0 / minutes));
    std::fflush(stdout);
    held.clear();
    api.reset();
    return 0;
}

double percentileOf(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1));
    return values[index];
}

std::vector<double> pausedPosts(const std::vector<std::string>& emulatorArguments, int samples) {
    Files files;
    auto emulator = startEmulator(files, "0", emulatorArguments);
    Varkel::Tolva::WebUtils::setTrustedCaFile(Varkel::Zu::widen(files.cert));
    auto api = QxPlatformApi::createFromQXPlatformConfig(Varkel::Zu::widen(emulator->config()));
    std::vector<double> times;
    for (int i = 0; i < samples; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        const auto sent = Clock::now();
        api->postNotification(L"bench/paused", L"m", 0);
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
    }
    const auto stats = api->statistics();
    std::printf("| | posts failed %llu, sent again %llu |\n",
                static_cast<unsigned long long>(stats.postsFailed),
                static_cast<unsigned long long>(stats.requestsSentAgain));
    return times;
}

int posts(int samples) {
    std::printf("| server (HTTPS, a post after each 1.2 s pause) | median / p90 |\n|---|---:|\n");
    const auto kept = pausedPosts({}, samples);
    std::printf("| keeps idle connections | %.0f / %.0f us |\n", percentileOf(kept, 0.5),
                percentileOf(kept, 0.9));
    const auto closed = pausedPosts({"--idle-close-ms", "1000"}, samples);
    std::printf("| closes connections idle for 1 s | %.0f / %.0f us |\n", percentileOf(closed, 0.5),
                percentileOf(closed, 0.9));
    std::fflush(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: infrastructure_bench many|idle|posts [options]\n";
        return 2;
    }
    const std::string mode = argv[1];
    int mailboxes = mode == "many" ? 10000 : 1000;
    int minutes = 10;
    int samples = 50;
    bool restart = false;
    for (int i = 2; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == "--mailboxes" && hasValue) {
            mailboxes = std::max(1, std::atoi(argv[++i]));
        } else if (option == "--minutes" && hasValue) {
            minutes = std::max(1, std::atoi(argv[++i]));
        } else if (option == "--samples" && hasValue) {
            samples = std::max(2, std::atoi(argv[++i]));
        } else if (option == "--restart") {
            restart = true;
        } else {
            std::cerr << "unknown option " << option << "\n";
            return 2;
        }
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::filesystem::create_directories("C:/logs");
    Varkel::Zu::Logger::setStderrEnabled(false);
    try {
        if (mode == "many") {
            return many(mailboxes, restart);
        }
        if (mode == "idle") {
            return idle(mailboxes, minutes);
        }
        if (mode == "posts") {
            return posts(samples);
        }
    } catch (const std::exception& e) {
        std::cerr << "infrastructure_bench: " << e.what() << "\n";
        return 1;
    }
    std::cerr << "usage: infrastructure_bench many|idle|posts [options]\n";
    return 2;
}
