#include "StatisticsPrinter.h"

#include "Console.h"

#include <ZuCore/StringConversion.h>

#include <chrono>
#include <iomanip>
#include <sstream>

namespace tolva {

using Varkel::Tolva::Rest::ApiStatistics;
using Varkel::Tolva::Rest::QxPlatformApi;

std::string statisticsLine(const ApiStatistics& stats) {
    std::ostringstream line;
    line << "statistics after " << std::fixed << std::setprecision(1)
         << double(stats.uptime.count()) / 1000.0 << " s: posts " << stats.postsSent << " sent, "
         << stats.postsFailed << " failed";
    if (stats.postRoundTrip.samples > 0) {
        line << " (p50 " << stats.postRoundTrip.p50.count() << " us, p99 "
             << stats.postRoundTrip.p99.count() << " us)";
    }
    line << "; polls " << stats.pollsSent << " sent, " << stats.pollsWithMail << " with mail, "
         << stats.pollsEmpty << " empty, " << stats.pollsTransportFailures
         << " transport failures, " << stats.pollsStatusFailures << " status failures, "
         << stats.transportRetries << " retries, " << stats.pollsInFlight << " in flight"
         << "; mail " << stats.mailDelivered << " delivered, " << stats.listenerExceptions
         << " listener exceptions, " << stats.deliveryBacklog << " waiting"
         << "; heartbeats " << stats.heartbeatsSent << " sent, " << stats.heartbeatsFailed
         << " failed; services " << stats.servicesRegistered << " registered; tokens "
         << stats.tokenRenewals << " obtained, " << stats.tokenFailures << " failed; mailboxes "
         << stats.mailboxesLive << " live, " << stats.mailboxesCreated << " created, "
         << stats.mailboxesDeleted << " deleted, "
         << stats.mailboxesDroppedByStatus + stats.mailboxesDroppedUnreadable +
                stats.mailboxesDroppedNotStarted
         << " dropped";
    return line.str();
}

namespace {

void printDocument(const std::wstring& document) {
    Console::out("{\"statistics\":" + Varkel::Zu::narrow(document) + "}");
}

}  // namespace

StatisticsPrinter::StatisticsPrinter(const Arguments& arguments)
    : seconds_(arguments.number("stats", 0, 1, 24 * 3600)), json_(arguments.has("json")) {}

void StatisticsPrinter::start(const std::shared_ptr<QxPlatformApi>& api) const {
    if (seconds_ <= 0) {
        return;
    }
    // The report's thread holds the object weakly: the command decides when it ends.
    const std::weak_ptr<QxPlatformApi> held = api;
    const bool json = json_;
    api->reportStatistics(std::chrono::seconds(seconds_),
                          [held, json](const std::wstring& document) {
                              if (json) {
                                  printDocument(document);
                              } else if (const auto running = held.lock()) {
                                  Console::err(statisticsLine(running->statistics()));
                              }
                          });
}

void StatisticsPrinter::finish(QxPlatformApi& api) const {
    if (seconds_ <= 0) {
        return;
    }
    api.reportStatistics(std::chrono::milliseconds(0));
    print(api.statistics());
}

void StatisticsPrinter::print(const ApiStatistics& stats) const {
    if (json_) {
        printDocument(stats.toJson());
    } else {
        Console::err(statisticsLine(stats));
    }
}

}  // namespace tolva
