// Long-poll capacity and fan-out latency of the emulator.
//
// The emulator runs in a forked child process so that its resident memory can be read from
// /proc without the client's connections in it. The parent process is the client: it
// creates mailboxes, parks one long poll per mailbox on its own connection (all
// asynchronous, one thread), then publishes one notification that every mailbox is
// subscribed to and times each poll's answer.
//
//   emulator_bench [--polls N] [--fanout M] [--rounds R] [--threads T]
//
// Phase 1 parks N polls (default 10000) and reports memory before/after and the wake-up
// latency of all N. Phase 2 parks M polls (default 1000) R times (default 20) and reports
// how long one notification takes to reach all M mailboxes.
#include <qxpemu/Emulator.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using Clock = std::chrono::steady_clock;

struct Settings {
    int polls = 10000;
    int fanout = 1000;
    int rounds = 20;
    unsigned threads = 2;
};

void raiseFileLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// "VmRSS" or "VmHWM" of a process, in KiB.
long memoryKiB(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
        }
    }
    return -1;
}

// Child: runs the emulator until its stdin (the parent's pipe) closes.
[[noreturn]] void runServer(int reportFd, int stopFd, const Settings& settings) {
    raiseFileLimit();
    qxpemu::EmulatorOptions options;
    options.maxPollSeconds = 120;
    options.threads = settings.threads;
    options.maxRecordedRequests = 1000;
    qxpemu::Emulator emulator(options);
    emulator.start();
    const std::string report = std::to_string(emulator.port()) + "\n" +
                               emulator.issueToken("qxp-emulator-default-client") + "\n";
    if (write(reportFd, report.data(), report.size()) != ssize_t(report.size())) {
        std::_Exit(1);
    }
    close(reportFd);
    char byte = 0;
    while (read(stopFd, &byte, 1) > 0) {
    }
    emulator.stop();
    std::_Exit(0);
}

// One blocking request on a fresh connection (setup and control traffic only).
class SyncClient {
  public:
    explicit SyncClient(unsigned short port) : stream_(io_), port_(port) {
        stream_.connect(net::ip::tcp::endpoint(net::ip::make_address("127.0.0.1"), port));
    }
    http::response<http::string_body> request(http::verb method, const std::string& target,
                                              const std::string& token,
                                              const std::string& body = "") {
        http::request<http::string_body> message(method, target, 11);
        message.set(http::field::host, "127.0.0.1:" + std::to_string(port_));
        if (!token.empty()) {
            message.set(http::field::authorization, "Bearer " + token);
        }
        message.set(http::field::content_type, "application/json");
        message.body() = body;
        message.prepare_payload();
        http::write(stream_, message);
        http::response_parser<http::string_body> parser;
        parser.body_limit(256 * 1024 * 1024);
        http::read(stream_, buffer_, parser);
        return parser.release();
    }

  private:
    net::io_context io_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    unsigned short port_;
};

// Many long polls, each on its own connection, driven by one io_context.
class PollFleet {
  public:
    PollFleet(unsigned short port, std::string token) : port_(port), token_(std::move(token)) {}

    // Connects and sends one poll per mailbox, at most `inFlight` connects at a time.
    void launch(const std::vector<std::string>& mailboxes, int inFlight = 256) {
        polls_.clear();
        polls_.reserve(mailboxes.size());
        for (const auto& id : mailboxes) {
            auto poll = std::make_unique<Poll>(io_);
            poll->request = http::request<http::empty_body>(
                http::verb::get, "/notifications/api/v1/notifications/" + id + "?timeout=120", 11);
            poll->request.set(http::field::host, "127.0.0.1");
            poll->request.set(http::field::authorization, "Bearer " + token_);
            polls_.push_back(std::move(poll));
        }
        next_ = 0;
        answered_ = 0;
        for (int i = 0; i < inFlight && next_ < polls_.size(); ++i) {
            start(next_++);
        }
    }

    // Runs the client loop until `done` holds.
    void runUntil(const std::function<bool()>& done) {
        while (!done()) {
            io_.run_for(std::chrono::milliseconds(5));
            io_.restart();
        }
    }

    std::size_t sent() const { return sent_; }
    std::size_t answered() const { return answered_; }
    std::size_t failures() const { return failures_; }
    const std::vector<Clock::time_point> answerTimes() const {
        std::vector<Clock::time_point> times;
        for (const auto& poll : polls_) {
            times.push_back(poll->answeredAt);
        }
        return times;
    }
    int status(std::size_t i) const { return polls_[i]->status; }

  private:
    struct Poll {
        explicit Poll(net::io_context& io) : socket(io) {}
        net::ip::tcp::socket socket;
        http::request<http::empty_body> request;
        beast::flat_buffer buffer;
        http::response<http::string_body> response;
        Clock::time_point answeredAt;
        int status = 0;
    };

    void start(std::size_t index) {
        Poll& poll = *polls_[index];
        poll.socket.async_connect(net::ip::tcp::endpoint(net::ip::make_address("127.0.0.1"), port_),
                                  [this, index](beast::error_code error) {
                                      if (next_ < polls_.size()) {
                                          start(next_++);
                                      }
                                      if (error) {
                                          ++failures_;
                                          return;
                                      }
                                      Poll& connected = *polls_[index];
                                      http::async_write(
                                          connected.socket, connected.request,
                                          [this, index](beast::error_code writeError, std::size_t) {
                                              if (writeError) {
                                                  ++failures_;
                                                  return;
                                              }
                                              ++sent_;
                                              read(index);
                                          });
                                  });
    }

    void read(std::size_t index) {
        Poll& poll = *polls_[index];
        http::async_read(poll.socket, poll.buffer, poll.response,
                         [this, index](beast::error_code error, std::size_t) {
                             Poll& answered = *polls_[index];
                             answered.answeredAt = Clock::now();
                             if (error) {
                                 ++failures_;
                             } else {
                                 answered.status = int(answered.response.result_int());
                             }
                             ++answered_;
                             beast::error_code ignored;
                             answered.socket.close(ignored);
                         });
    }

    net::io_context io_;
    unsigned short port_;
    std::string token_;
    std::vector<std::unique_ptr<Poll>> polls_;
    std::size_t next_ = 0;
    std::size_t sent_ = 0;
    std::size_t answered_ = 0;
    std::size_t failures_ = 0;
};

std::string mailboxId(int i) {
    char id[40];
    std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", i);
    return id;
}

int parkedCount(unsigned short port) {
    SyncClient control(port);
    const auto state =
        nlohmann::json::parse(control.request(http::verb::get, "/_emulator/state", "").body());
    int parked = 0;
    for (const auto& mailbox : state["mailboxes"]) {
        parked += mailbox["polling"].get<bool>() ? 1 : 0;
    }
    return parked;
}

void publish(unsigned short port, const std::string& token, const std::string& topic) {
    SyncClient client(port);
    const nlohmann::json note = {{"id", "bench"},
                                 {"time", "2026-11-21T00:00:00Z"},
                                 {"topic", topic},
                                 {"content", "wake up"},
                                 {"source", "bench"}};
    const auto response =
        client.request(http::verb::post, "/notifications/api/v1/notifications", token, note.dump());
    if (response.result_int() != 204) {
        throw std::runtime_error("publish failed: " + std::to_string(response.result_int()));
    }
}

struct Latency {
    double p50 = 0, p99 = 0, max = 0;
};

Latency latencies(const std::vector<Clock::time_point>& answers, Clock::time_point sentAt) {
    std::vector<double> ms;
    for (const auto& at : answers) {
        ms.push_back(std::chrono::duration<double, std::milli>(at - sentAt).count());
    }
    std::sort(ms.begin(), ms.end());
    if (ms.empty()) {
        return {};
    }
    return {ms[ms.size() / 2], ms[std::min(ms.size() - 1, ms.size() * 99 / 100)], ms.back()};
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        const int value = std::atoi(argv[i + 1]);
        if (option == "--polls") {
            settings.polls = value;
        } else if (option == "--fanout") {
            settings.fanout = value;
        } else if (option == "--rounds") {
            settings.rounds = value;
        } else if (option == "--threads") {
            settings.threads = unsigned(value);
        } else {
            std::cerr << "unknown option " << option << "\n";
            return 2;
        }
    }
    raiseFileLimit();
    signal(SIGPIPE, SIG_IGN);

    int reportPipe[2];
    int stopPipe[2];
    if (pipe(reportPipe) != 0 || pipe(stopPipe) != 0) {
        return 1;
    }
    const pid_t server = fork();
    if (server == 0) {
        close(reportPipe[0]);
        close(stopPipe[1]);
        runServer(reportPipe[1], stopPipe[0], settings);
    }
    close(reportPipe[1]);
    close(stopPipe[0]);
    std::string report;
    char chunk[4096];
    ssize_t count = 0;
    while ((count = read(reportPipe[0], chunk, sizeof chunk)) > 0) {
        report.append(chunk, std::size_t(count));
    }
    const unsigned short port = static_cast<unsigned short>(std::stoi(report));
    const std::string token =
        report.substr(report.find('\n') + 1, report.rfind('\n') - report.find('\n') - 1);

    const int total = std::max(settings.polls, settings.fanout);
    const long startedKiB = memoryKiB(server, "VmRSS");
    std::cout << "emulator: " << settings.threads << " I/O thread(s), pid " << server << "\n";
    {
        SyncClient setup(port);
        for (int i = 0; i < total; ++i) {
            const nlohmann::json body = {
                {"id", mailboxId(i)},
                {"subscription", i < settings.fanout ? "bench/fanout" : "bench/all"},
                {"durable", true}};
            const auto response = setup.request(http::verb::post, "/notifications/api/v1/mailbox",
                                                token, body.dump());
            if (response.result_int() != 200) {
                std::cerr << "mailbox creation failed: " << response.result_int() << "\n";
                return 1;
            }
            if (i < settings.fanout) {
                setup.request(
                    http::verb::post,
                    "/notifications/api/v1/mailbox/" + mailboxId(i) + "/subscribe/bench%2Fall",
                    token);
            }
        }
    }
    const long mailboxesKiB = memoryKiB(server, "VmRSS");

    // Phase 1: park one poll per mailbox, then wake them all with one notification.
    std::vector<std::string> ids;
    for (int i = 0; i < settings.polls; ++i) {
        ids.push_back(mailboxId(i));
    }
    PollFleet fleet(port, token);
    const auto launchStarted = Clock::now();
    fleet.launch(ids);
    fleet.runUntil([&] { return fleet.sent() + fleet.failures() >= ids.size(); });
    fleet.runUntil([&] { return parkedCount(port) >= settings.polls || fleet.failures() > 0; });
    const double parkSeconds = std::chrono::duration<double>(Clock::now() - launchStarted).count();
    const long parkedKiB = memoryKiB(server, "VmRSS");
    const auto wakeSent = Clock::now();
    publish(port, token, "bench/all");
    fleet.runUntil([&] { return fleet.answered() >= ids.size(); });
    const Latency wake = latencies(fleet.answerTimes(), wakeSent);
    int ok = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        ok += fleet.status(i) == 200 ? 1 : 0;
    }

    std::cout << "Phase 1: " << settings.polls << " concurrent long polls\n"
              << "  parked in                 " << parkSeconds
              << " s (failures: " << fleet.failures() << ")\n"
              << "  RSS after start           " << startedKiB << " KiB\n"
              << "  RSS with " << total << " mailboxes    " << mailboxesKiB << " KiB\n"
              << "  RSS with polls parked     " << parkedKiB << " KiB\n"
              << "  memory per parked poll    "
              << double(parkedKiB - mailboxesKiB) * 1024.0 / settings.polls << " bytes\n"
              << "  memory per mailbox        "
              << double(mailboxesKiB - startedKiB) * 1024.0 / total << " bytes\n"
              << "  wake-up of all polls      answered 200: " << ok << "/" << settings.polls
              << "; latency p50 " << wake.p50 << " ms, p99 " << wake.p99 << " ms, max " << wake.max
              << " ms\n";

    // Phase 2: fan-out to `fanout` parked mailboxes, several rounds.
    std::vector<std::string> fanIds(ids.begin(),
                                    ids.begin() + std::min<int>(settings.fanout, int(ids.size())));
    std::vector<double> roundMax;
    std::vector<double> roundP50;
    for (int round = 0; round < settings.rounds; ++round) {
        PollFleet fanFleet(port, token);
        fanFleet.launch(fanIds);
        fanFleet.runUntil([&] { return fanFleet.sent() + fanFleet.failures() >= fanIds.size(); });
        fanFleet.runUntil(
            [&] { return parkedCount(port) >= int(fanIds.size()) || fanFleet.failures() > 0; });
        const auto sentAt = Clock::now();
        publish(port, token, "bench/fanout");
        fanFleet.runUntil([&] { return fanFleet.answered() >= fanIds.size(); });
        const Latency latency = latencies(fanFleet.answerTimes(), sentAt);
        roundMax.push_back(latency.max);
        roundP50.push_back(latency.p50);
    }
    std::sort(roundMax.begin(), roundMax.end());
    std::sort(roundP50.begin(), roundP50.end());
    if (!roundMax.empty()) {
        std::cout << "Phase 2: one notification to " << fanIds.size() << " parked mailboxes, "
                  << settings.rounds << " rounds\n"
                  << "  time until the last mailbox's poll was answered: median "
                  << roundMax[roundMax.size() / 2] << " ms, worst " << roundMax.back() << " ms\n"
                  << "  median per-poll latency: median " << roundP50[roundP50.size() / 2]
                  << " ms\n";
    }
    std::cout << "Peak RSS of the emulator (VmHWM): " << memoryKiB(server, "VmHWM") << " KiB\n";

    close(stopPipe[1]);
    int status = 0;
    waitpid(server, &status, 0);
    return 0;
}
