// Soak: one API object with 100 mailboxes and 10 registered services (heartbeats every 5 s)
// under steady posting and request/reply, answered by a second API object, against
// qxp-emulator in a process of its own. Every minute it prints the process's resident memory,
// open descriptors and threads with the traffic so far; at the end it compares the last
// sample with the one at five minutes (target: under 1% growth), says where in the address
// space the resident memory grew (allocator arenas, main heap, files...) and whether any mail or
// reply went missing.
//
//   soak_bench [--minutes 60] [--mailboxes 100] [--services 10] [--posts-per-second 50]
//              [--request-interval-ms 1000]
#include "../common/ProcessProbe.h"
#include "EmulatorProcess.h"

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ZuUUID.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;
using namespace Varkel::Tolva::Rest::Model;
using Clock = std::chrono::steady_clock;

class CountingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override { ++received; }
    std::atomic<long> received{0};
};

// Answers every request through its own API object, held weakly.
class Responder : public MailboxListener {
  public:
    explicit Responder(std::weak_ptr<QxPlatformApi> api) : api_(std::move(api)) {}
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        if (auto api = api_.lock()) {
            api->postNotification(L"soak/replies", content, 0);
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
};

struct Sample {
    int minute;
    long rssKiB;
    long heapKiB;
    std::size_t descriptors;
    std::size_t threads;
};

long option(int argc, char** argv, const char* name, long fallback) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            return std::atol(argv[i + 1]);
        }
    }
    return fallback;
}

double growthPercent(double from, double to) {
    return from == 0 ? 0 : (to - from) * 100.0 / from;
}

}  // namespace

int main(int argc, char** argv) {
    const long minutes = option(argc, argv, "--minutes", 60);
    const long mailboxes = option(argc, argv, "--mailboxes", 100);
    const long services = option(argc, argv, "--services", 10);
    const long postsPerSecond = option(argc, argv, "--posts-per-second", 50);
    const long requestIntervalMs = option(argc, argv, "--request-interval-ms", 1000);
    Varkel::Zu::Logger::setGlobalLevel(Varkel::Zu::Logger::getWarnLevel());

    TolvaTest::EmulatorProcess emulator;
    const std::wstring config = Varkel::Zu::widen(emulator.config());
    auto api = QxPlatformApi::createFromQXPlatformConfig(config);
    auto responderApi = QxPlatformApi::createFromQXPlatformConfig(config);

    const auto listener = std::make_shared<CountingListener>();
    std::vector<std::shared_ptr<Mailbox>> boxes;
    for (long i = 0; i < mailboxes; ++i) {
        auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        mailbox->setDurable(false);
        mailbox->addListener(listener);
        api->createMailbox(mailbox, L"soak/topic" + std::to_wstring(i % 10));
        boxes.push_back(mailbox);
    }
    auto requests = Varkel::Zu::MakeShared::create<Mailbox>();
    requests->addListener(std::make_shared<Responder>(responderApi));
    responderApi->createMailbox(requests, L"soak/requests");
    for (long i = 0; i < services; ++i) {
        auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
        info->serviceId =
            std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
        info->serviceType = L"soak";
        info->serviceInstance = L"soak-" + std::to_wstring(i);
        info->serviceAddress = L"127.0.0.1";
        info->servicePort = static_cast<std::uint16_t>(9000 + i);
        info->reverseProxyPathRule = L"/soak/";
        info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
        api->registerService(info);
    }

    std::atomic<bool> running{true};
    std::atomic<long> posted{0}, postFailures{0}, replies{0}, missedReplies{0};
    std::thread poster([&] {
        const auto period = std::chrono::microseconds(1000000 / std::max(1L, postsPerSecond));
        auto next = Clock::now();
        for (long n = 0; running; ++n) {
            try {
                api->postNotification(L"soak/topic" + std::to_wstring(n % 10), L"m", 60);
                ++posted;
            } catch (const std::exception&) {
                ++postFailures;
            }
            next += period;
            std::this_thread::sleep_until(next);
        }
    });
    std::thread requester([&] {
        for (long n = 0; running; ++n) {
            const std::wstring question = L"q" + std::to_wstring(n);
            try {
                const std::wstring reply = api->postNotificationAndWaitForReply(
                    L"soak/requests", question, L"soak/replies",
                    Clock::now() + std::chrono::seconds(5));
                ++(reply == question ? replies : missedReplies);
            } catch (const std::exception&) {
                ++missedReplies;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(requestIntervalMs));
        }
    });

    std::printf(
        "minute  rss_KiB  heap_KiB  fds  threads  posted  post_failures  mail_received  replies  "
        "missed_replies\n");
    std::vector<Sample> samples;
    // Growth is measured from minute 5 (from the start in runs shorter than that).
    const int baseMinute = minutes >= 5 ? 5 : 0;
    std::map<std::string, long> kindsAtBase;
    std::map<std::string, long> kindsAtEnd;
    const auto start = Clock::now();
    bool emulatorEnded = false;
    for (int minute = 0; minute <= minutes; ++minute) {
        std::this_thread::sleep_until(start + std::chrono::minutes(minute));
        samples.push_back({minute, TolvaBench::residentKiB(), TolvaBench::heapInUseKiB(),
                           TolvaBench::openDescriptors(), TolvaBench::threadCount()});
        if (minute == baseMinute) {
            kindsAtBase = TolvaBench::residentKiBByKind();
        }
        if (minute == minutes) {
            kindsAtEnd = TolvaBench::residentKiBByKind();
        }
        std::printf("%6d %8ld %9ld %4zu %8zu %7ld %14ld %14ld %8ld %15ld\n", minute,
                    samples.back().rssKiB, samples.back().heapKiB, samples.back().descriptors,
                    samples.back().threads, posted.load(), postFailures.load(),
                    listener->received.load(), replies.load(), missedReplies.load());
        std::fflush(stdout);
        if (const std::string ended = emulator.endedHow(); !ended.empty()) {
            std::printf("the emulator ended early (%s)\n", ended.c_str());
            std::fflush(stdout);
            emulatorEnded = true;
            break;
        }
    }
    running = false;
    poster.join();
    requester.join();
    if (emulatorEnded) {
        return 1;
    }

    const Sample& base = samples[std::min<std::size_t>(baseMinute, samples.size() - 1)];
    const Sample& last = samples.back();
    std::printf(
        "growth from minute %d to %d: rss %.2f%%, heap in use %.2f%%, descriptors %.2f%%, "
        "threads %.2f%%\n",
        base.minute, last.minute, growthPercent(base.rssKiB, last.rssKiB),
        growthPercent(double(base.heapKiB), double(last.heapKiB)),
        growthPercent(double(base.descriptors), double(last.descriptors)),
        growthPercent(double(base.threads), double(last.threads)));
    std::printf("resident KiB by kind of mapping, minute %d -> %d:", base.minute, last.minute);
    for (const auto& [kind, kiB] : kindsAtEnd) {
        std::printf(" %s %ld -> %ld;", kind.c_str(), kindsAtBase[kind], kiB);
    }
    std::printf("\n");
    // Every post reaches the mailboxes of its topic: mailboxes / 10 of them.
    const long expected = posted.load() * (mailboxes / 10);
    std::printf("mail expected %ld, received %ld; replies %ld, missed %ld\n", expected,
                listener->received.load(), replies.load(), missedReplies.load());

    const auto stopping = Clock::now();
    api->unregisterAllServices();
    for (const auto& mailbox : boxes) {
        api->deleteMailbox(mailbox);
    }
    responderApi->deleteMailbox(requests);
    api.reset();
    responderApi.reset();
    std::printf("teardown %lld ms\n",
                static_cast<long long>(
                    std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - stopping)
                        .count()));
    return 0;
}
