// Heartbeat pass time against the in-process emulator with 1, 100 and 1,000 registered
// services, and what the pass costs a caller that needs the API object's lock (as
// unregisterService and the mailbox calls do): the pass holds that lock from its token check
// to its last beat.
//
//   heartbeat_bench [--passes P] [--emulator-threads T]
//
// Pass time: from the moment the emulator records a pass's first beat until a caller that
// asked for the lock at that moment gets it (that is, until the pass has ended). Lock wait:
// a prober thread asks for the lock every 10 ms over whole 5-second periods; its mean and
// worst waits are what an arbitrary caller sees. Prints a Markdown table.
#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ZuUUID.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <qxpemu/Emulator.h>

namespace {

using Clock = std::chrono::steady_clock;
using Varkel::Tolva::Rest::QxPlatformApi;
using Varkel::Tolva::Rest::Model::ModelServiceHealth;
using Varkel::Tolva::Rest::Model::ModelServiceInfo;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::shared_ptr<ModelServiceInfo> makeService(int index) {
    auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    info->serviceId = std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
    info->serviceType = L"bench";
    info->serviceInstance = L"bench-" + std::to_wstring(index);
    info->serviceAddress = L"127.0.0.1";
    info->reverseProxyPathRule = L"/bench/";
    info->servicePort = 8080;
    info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
    return info;
}

// Takes and releases the object lock: unregistering an id that was never registered does
// exactly that and throws "Service not found".
void takeObjectLock(QxPlatformApi& api) {
    try {
        api.unregisterService(L"never-registered");
    } catch (const Varkel::Zu::InvalidArgumentException&) {
    }
}

std::size_t countBeats(const qxpemu::Emulator& emulator) {
    const auto requests = emulator.requests();
    return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(),
                                                  [](const auto& r) { return r.method == "PUT"; }));
}

// Blocks until the emulator has recorded at least `count` beats.
void waitForBeats(const qxpemu::Emulator& emulator, std::size_t count) {
    while (countBeats(emulator) < count) {
        emulator.waitForRequests(emulator.requests().size() + 1, std::chrono::milliseconds(50));
    }
}

struct Row {
    int services = 0;
    std::vector<double> passMs;
    double meanWaitMs = 0;
    double worstWaitMs = 0;
};

Row measure(qxpemu::Emulator& emulator, int services, int passes) {
    Row row;
    row.services = services;
    emulator.reset();
    auto api = Varkel::Zu::MakeShared::create<QxPlatformApi>(Varkel::Zu::widen(emulator.baseUrl()),
                                                             Varkel::Zu::widen(emulator.apiKey()));
    for (int i = 0; i < services; ++i) {
        api->registerService(makeService(i));
    }
    emulator.clearRequests();

    std::atomic<bool> stopProbe{false};
    std::vector<double> waits;
    std::thread prober([&] {
        while (!stopProbe) {
            const auto start = Clock::now();
            takeObjectLock(*api);
            waits.push_back(msSince(start));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });

    for (int pass = 1; pass <= passes; ++pass) {
        // The first beat of this pass.
        waitForBeats(emulator, static_cast<std::size_t>(services) * (pass - 1) + 1);
        const auto firstBeat = Clock::now();
        takeObjectLock(*api);
        row.passMs.push_back(msSince(firstBeat));
        if (countBeats(emulator) != static_cast<std::size_t>(services) * pass) {
            std::cerr << "pass " << pass << " did not send every beat\n";
        }
    }
    stopProbe = true;
    prober.join();
    api.reset();

    double sum = 0;
    for (const double wait : waits) {
        sum += wait;
        row.worstWaitMs = std::max(row.worstWaitMs, wait);
    }
    row.meanWaitMs = waits.empty() ? 0 : sum / static_cast<double>(waits.size());
    return row;
}

}  // namespace

int main(int argc, char** argv) {
    int passes = 3;
    unsigned emulatorThreads = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--passes") {
            passes = std::max(1, std::atoi(argv[i + 1]));
        } else if (option == "--emulator-threads") {
            emulatorThreads = static_cast<unsigned>(std::max(1, std::atoi(argv[i + 1])));
        } else {
            std::cerr << "usage: heartbeat_bench [--passes P] [--emulator-threads T]\n";
            return 2;
        }
    }
    // The library's debug log goes to C:/logs below the working directory. The prober's
    // "Service not found" throw lines stay off the terminal.
    std::filesystem::create_directories("C:/logs");
    Varkel::Zu::Logger::setStderrEnabled(false);

    qxpemu::EmulatorOptions options;
    options.threads = emulatorThreads;
    qxpemu::Emulator emulator(options);
    emulator.start();

    std::printf(
        "| services | pass time, ms (each pass) | lock wait of a caller every 10 ms: mean / worst, "
        "ms |\n");
    std::printf("|---:|---|---|\n");
    for (const int services : {1, 100, 1000}) {
        const Row row = measure(emulator, services, passes);
        std::string passText;
        for (const double ms : row.passMs) {
            char cell[32];
            std::snprintf(cell, sizeof cell, "%s%.1f", passText.empty() ? "" : ", ", ms);
            passText += cell;
        }
        std::printf("| %d | %s | %.2f / %.1f |\n", row.services, passText.c_str(), row.meanWaitMs,
                    row.worstWaitMs);
        std::fflush(stdout);
    }
    return 0;
}
