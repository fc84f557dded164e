// Latency and throughput of QxPlatformApi::postNotification from 1, 4 and 16 threads, next to
// a bare cpprestsdk client sending the same request (the HTTP library alone, the floor for the
// library), a plain libcurl client that sends the same request (same headers, same body shape)
// over a kept-alive connection per thread, and the emulator's own ceiling for the endpoint (libcurl
// from many connections at once). Everything runs in this process against the in-process
// emulator on loopback.
//
//   notify_bench [--requests N] [--emulator-threads T] [--pool-threads P] [--tls]
//
// --tls runs everything over HTTPS: the emulator serves TLS with a certificate from the CA it
// makes, which both clients trust (the library through WebUtils::setTrustedCaFile, libcurl
// through CURLOPT_CAINFO). After the table, the time of a first request on a new connection
// (connect, handshake when TLS, request and answer) for a new client of each kind.
//
// --pool-threads sizes the HTTP library's shared pool through
// WebUtils::setHttpThreadPoolSize (default: the library's default). CPU time per request is the
// whole process's (client and in-process emulator) divided by the requests sent, and so are the
// context switches per request; "pool tasks" counts the tasks handed to the HTTP library's pool
// per request (continuations and its own start of each request: each one a hand-over between
// threads unless the thread that queues it picks it up itself). Socket completions are not
// tasks and are not counted.
//
// Prints a Markdown table. Requests per configuration are split evenly over the threads.
// libcurl first: the HTTP library's headers (through QxPlatformApi.h) define macros that
// break curl.h's attribute checks under Clang.
#include <curl/curl.h>

#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/WebUtils.h>

#include "../common/HandOverCounter.h"

#include <sys/resource.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <qxpemu/Emulator.h>

namespace {

using Clock = std::chrono::steady_clock;
using Varkel::Tolva::Rest::QxPlatformApi;

struct Result {
    std::string client;
    unsigned threads = 0;
    std::size_t requests = 0;
    double medianUs = 0;
    double p99Us = 0;
    double perSecond = 0;
    double cpuUsPerRequest = 0;
    // Tasks handed to the HTTP library's pool, and context switches of the process, per request.
    TolvaBench::HandOverCounter::Counts handOvers;
};

double processCpuUs() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

// Runs `requests` calls of `send` spread over `threads` threads (each with its own sender made
// by `makeSender`) and measures every call.
Result measure(const std::string& client, unsigned threads, std::size_t requests,
               const std::function<std::function<void()>()>& makeSender) {
    std::vector<std::vector<double>> latencies(threads);
    std::vector<std::function<void()>> senders;
    for (unsigned i = 0; i < threads; ++i) {
        senders.push_back(makeSender());
    }
    const std::size_t perThread = requests / threads;
    std::atomic<unsigned> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < threads; ++i) {
        workers.emplace_back([&, i] {
            auto& mine = latencies[i];
            mine.reserve(perThread);
            // Warm-up, from every thread at once: a client that shares connections opens as
            // many as the threads need here, so connection set-up (a TLS handshake included)
            // and first-use costs stay out of the figures.
            for (int w = 0; w < 20; ++w) {
                senders[i]();
            }
            ++ready;
            while (!go) {
                std::this_thread::yield();
            }
            for (std::size_t n = 0; n < perThread; ++n) {
                const auto start = Clock::now();
                senders[i]();
                mine.push_back(
                    std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            }
        });
    }
    while (ready < threads) {
        std::this_thread::yield();
    }
    const auto start = Clock::now();
    const double cpuStart = processCpuUs();
    const auto handOversBefore = TolvaBench::HandOverCounter::now();
    TolvaBench::HandOverCounter::resetKinds();
    go = true;
    for (auto& worker : workers) {
        worker.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpuUs = processCpuUs() - cpuStart;
    const auto handOvers = TolvaBench::HandOverCounter::now().minus(handOversBefore);
    TolvaBench::HandOverCounter::printKinds(
        (client + ", " + std::to_string(threads) + " threads, per request").c_str(),
        static_cast<double>(threads * perThread));

    std::vector<double> all;
    for (const auto& mine : latencies) {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    Result result;
    result.client = client;
    result.threads = threads;
    result.requests = all.size();
    result.medianUs = all[all.size() / 2];
    result.p99Us = all[std::min(all.size() - 1, all.size() * 99 / 100)];
    result.perSecond = static_cast<double>(all.size()) / seconds;
    result.cpuUsPerRequest = cpuUs / static_cast<double>(all.size());
    result.handOvers = handOvers.per(static_cast<double>(all.size()));
    return result;
}

std::string isoNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

// The body the library sends for the bench's post, made the way a plain client would.
std::string postBody(boost::uuids::random_generator& generator) {
    return "{\"content\":\"benchmark content\",\"id\":\"" + boost::uuids::to_string(generator()) +
           "\",\"source\":\"Tolva\",\"time\":\"" + isoNow() + "\",\"topic\":\"bench/notify\"}";
}

size_t discard(char*, size_t size, size_t count, void*) {
    return size * count;
}

// One libcurl easy handle per sender: the connection stays open between requests.
class CurlSender {
  public:
    CurlSender(const std::string& url, const std::string& token, const std::string& caFile)
        : curl_(curl_easy_init()) {
        if (!curl_) {
            throw std::runtime_error("curl_easy_init failed");
        }
        headers_ = curl_slist_append(headers_, "Accept: application/json");
        headers_ = curl_slist_append(headers_, "Content-Type: application/json");
        headers_ = curl_slist_append(headers_, "User-Agent: Tolva");
        headers_ = curl_slist_append(headers_, ("Authorization: Bearer " + token).c_str());
        // No "Expect: 100-continue" round trip: the library does not send one either.
        headers_ = curl_slist_append(headers_, "Expect:");
        curl_easy_setopt(curl_, CURLOPT_URL, (url + "/notifications/api/v1/notifications").c_str());
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
        curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, discard);
        curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl_, CURLOPT_TCP_NODELAY, 1L);
        if (!caFile.empty()) {
            curl_easy_setopt(curl_, CURLOPT_CAINFO, caFile.c_str());
        }
    }
    ~CurlSender() {
        curl_slist_free_all(headers_);
        curl_easy_cleanup(curl_);
    }
    CurlSender(const CurlSender&) = delete;
    CurlSender& operator=(const CurlSender&) = delete;

    void send() {
        body_ = postBody(generator_);
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body_.c_str());
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body_.size()));
        const CURLcode code = curl_easy_perform(curl_);
        long status = 0;
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
        if (code != CURLE_OK || status != 204) {
            throw std::runtime_error("curl post failed: " + std::to_string(code) + " status " +
                                     std::to_string(status));
        }
    }

  private:
    CURL* curl_;
    curl_slist* headers_ = nullptr;
    std::string body_;
    boost::uuids::random_generator generator_;
};

// The HTTP library alone: the same request through a bare cpprestsdk client (no redirects
// followed, as the library's clients), the body made as libcurl's is, waited for with get().
// What the library costs beyond this row is its own; the rest is the HTTP library's.
class BareCpprestSender {
  public:
    BareCpprestSender(const std::string& url, const std::string& token) : token_(token) {
        web::http::client::http_client_config config;
        config.set_max_redirects(0);
        client_ = std::make_unique<web::http::client::http_client>(url, config);
    }

    void send() {
        web::http::http_request request(web::http::methods::POST);
        request.set_request_uri("/notifications/api/v1/notifications");
        request.headers().add("Accept", "application/json");
        request.headers().add("User-Agent", "Tolva");
        request.headers().add("Authorization", "Bearer " + token_);
        request.set_body(postBody(generator_), "application/json");
        const auto response = client_->request(request).get();
        if (response.status_code() != 204) {
            throw std::runtime_error("bare cpprestsdk post failed: status " +
                                     std::to_string(response.status_code()));
        }
    }

  private:
    std::string token_;
    std::unique_ptr<web::http::client::http_client> client_;
    boost::uuids::random_generator generator_;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// A first request on a new connection, `rounds` times: a new client each time, GET of the key
// set, timed from just before the request until its answer.
void printFirstConnection(const std::string& url, const std::string& caFile, int rounds) {
    const std::string keySetPath = "/identity/.well-known/openid-configuration/jwks";
    std::vector<double> library;
    std::vector<double> curl;
    for (int round = 0; round < rounds; ++round) {
        const auto client =
            Varkel::Tolva::WebUtils::createHttpClient(Varkel::Zu::widen(url), nullptr);
        const auto start = Clock::now();
        const auto response = client->request(web::http::methods::GET, keySetPath).get();
        if (response.status_code() != 200) {
            throw std::runtime_error("key set request failed");
        }
        library.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());

        CURL* handle = curl_easy_init();
        curl_easy_setopt(handle, CURLOPT_URL, (url + keySetPath).c_str());
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discard);
        curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
        if (!caFile.empty()) {
            curl_easy_setopt(handle, CURLOPT_CAINFO, caFile.c_str());
        }
        const auto curlStart = Clock::now();
        const CURLcode code = curl_easy_perform(handle);
        curl.push_back(std::chrono::duration<double, std::micro>(Clock::now() - curlStart).count());
        curl_easy_cleanup(handle);
        if (code != CURLE_OK) {
            throw std::runtime_error("curl key set request failed: " + std::to_string(code));
        }
    }
    std::printf(
        "first request on a new connection, median of %d: QxPlatformApi's client %.0f us, "
        "libcurl %.0f us\n",
        rounds, median(library), median(curl));
}

void print(const Result& r) {
    std::printf("| %-28s | %7u | %8zu | %10.1f | %10.1f | %12.0f | %12.1f | %10.2f | %10.2f |\n",
                r.client.c_str(), r.threads, r.requests, r.medianUs, r.p99Us, r.perSecond,
                r.cpuUsPerRequest, r.handOvers.poolTasks, r.handOvers.contextSwitches);
}

}  // namespace

int main(int argc, char** argv) {
    // Before any client: every task the HTTP library's pool runs is counted from here.
    TolvaBench::HandOverCounter::install();
    std::size_t requests = 4000;
    unsigned emulatorThreads = 2;
    bool tls = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--tls") {
            tls = true;
            continue;
        }
        if (i + 1 >= argc) {
            break;
        }
        ++i;
        if (option == "--requests") {
            requests = std::stoul(argv[i]);
        } else if (option == "--emulator-threads") {
            emulatorThreads = static_cast<unsigned>(std::stoul(argv[i]));
        } else if (option == "--pool-threads") {
            Varkel::Tolva::WebUtils::setHttpThreadPoolSize(std::stoul(argv[i]));
        }
    }

    // The library writes one debug-log line per post; give it its folder, as on a real host,
    // in a scratch directory.
    const auto scratch = std::filesystem::temp_directory_path() / "tolva-notify-bench";
    std::filesystem::create_directories(scratch / "C:" / "logs");
    std::filesystem::current_path(scratch);
    ::unsetenv("http_proxy");

    qxpemu::EmulatorOptions options;
    options.threads = emulatorThreads;
    options.maxRecordedRequests = 1000;
    options.clients.push_back({"bench-client", "bench-secret-0123456789", "acc-bench"});
    options.tls = tls;
    qxpemu::Emulator emulator(options);
    emulator.start();
    const std::string caFile = emulator.caCertificateFile();
    if (tls) {
        Varkel::Tolva::WebUtils::setTrustedCaFile(Varkel::Zu::widen(caFile));
    }

    curl_global_init(CURL_GLOBAL_DEFAULT);
    const auto api = Varkel::Zu::MakeShared::create<QxPlatformApi>(
        Varkel::Zu::widen(emulator.baseUrl()), Varkel::Zu::widen(emulator.apiKey()));
    const std::string token = Varkel::Zu::narrow(api->getCurrentToken().accessToken);
    if (token.empty()) {
        std::cerr << "no token from the emulator\n";
        return 1;
    }

    std::vector<Result> results;
    for (const unsigned threads : {1u, 4u, 16u}) {
        results.push_back(measure("QxPlatformApi", threads, requests, [&] {
            return std::function<void()>(
                [&] { api->postNotification(L"Bench/Notify", L"benchmark content", 0); });
        }));
        // One client shared by the threads, as the library's.
        const auto bare = std::make_shared<BareCpprestSender>(emulator.baseUrl(), token);
        results.push_back(measure("cpprestsdk alone", threads, requests,
                                  [&] { return std::function<void()>([bare] { bare->send(); }); }));
        std::vector<std::shared_ptr<CurlSender>> keep;
        results.push_back(measure("libcurl (keep-alive)", threads, requests, [&] {
            auto sender = std::make_shared<CurlSender>(emulator.baseUrl(), token, caFile);
            keep.push_back(sender);
            return std::function<void()>([sender] { sender->send(); });
        }));
    }
    // The emulator's ceiling for the endpoint: as many concurrent kept-alive libcurl
    // connections as it takes to saturate it.
    {
        std::vector<std::shared_ptr<CurlSender>> keep;
        results.push_back(measure("emulator ceiling (libcurl)", 32, requests * 2, [&] {
            auto sender = std::make_shared<CurlSender>(emulator.baseUrl(), token, caFile);
            keep.push_back(sender);
            return std::function<void()>([sender] { sender->send(); });
        }));
    }

    std::printf("| %-28s | %7s | %8s | %10s | %10s | %12s | %12s | %10s | %10s |\n", "client",
                "threads", "requests", "median us", "p99 us", "requests/s", "CPU us/req",
                "pool tasks", "switches");
    std::printf("|%s|%s|%s|%s|%s|%s|%s|%s|%s|\n", std::string(30, '-').c_str(),
                std::string(9, '-').c_str(), std::string(10, '-').c_str(),
                std::string(12, '-').c_str(), std::string(12, '-').c_str(),
                std::string(14, '-').c_str(), std::string(14, '-').c_str(),
                std::string(12, '-').c_str(), std::string(12, '-').c_str());
    for (const auto& result : results) {
        print(result);
    }
    for (std::size_t i = 0; i + 2 < 9; i += 3) {
        std::printf(
            "at %u threads: median library/libcurl %.2f, cpprestsdk alone/libcurl %.2f; "
            "throughput library/libcurl %.2f, cpprestsdk alone/libcurl %.2f\n",
            results[i].threads, results[i].medianUs / results[i + 2].medianUs,
            results[i + 1].medianUs / results[i + 2].medianUs,
            results[i].perSecond / results[i + 2].perSecond,
            results[i + 1].perSecond / results[i + 2].perSecond);
    }
    printFirstConnection(emulator.baseUrl(), caFile, 20);
    curl_global_cleanup();
    return 0;
}
