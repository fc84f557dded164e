// tolva listen: a mailbox subscribed to the given topics, printing its mail as it arrives.
// The API object recovers from outages itself (the same mailbox goes on receiving) and its
// events are printed on standard error; a mailbox stopped for good ends the command.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "EventPrinter.h"
#include "MailCollector.h"
#include "PlatformConnection.h"
#include "StatisticsPrinter.h"
#include "StopSignal.h"
#include "UsageError.h"

#include <TolvaCore/ApiEvent.h>
#include <TolvaCore/Mailbox.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <boost/uuid/uuid_io.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tolva {

namespace {

using Varkel::Tolva::Rest::ApiEvent;
using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::QxPlatformApi;

// Creates `mailbox` subscribed to every topic, with the collector attached.
void openMailbox(QxPlatformApi& api, const std::shared_ptr<Mailbox>& mailbox,
                 const std::vector<std::string>& topics,
                 const std::shared_ptr<MailCollector>& collector) {
    mailbox->addListener(collector);
    api.createMailbox(mailbox, Varkel::Zu::widen(topics.front()));
    try {
        for (std::size_t i = 1; i < topics.size(); ++i) {
            api.subscribeTopic(mailbox, Varkel::Zu::widen(topics[i]));
        }
    } catch (...) {
        try {
            api.deleteMailbox(mailbox);
        } catch (const std::exception&) {
            // The failure being reported matters more than this one.
        }
        throw;
    }
}

// Whether the library stopped the command's mailbox for good (a poll answer it does not
// recover from), and why. Told on the library's event thread, read on the main thread.
class MailboxWatch {
  public:
    explicit MailboxWatch(const std::string& id) : id_(Varkel::Zu::widen(id)) {}

    void see(const ApiEvent& event) {
        if (event.kind != ApiEvent::Kind::MailboxStopped || event.subject != id_) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            why_ = Varkel::Zu::narrow(event.reason);
            if (event.httpStatus != 0) {
                why_ = "HTTP " + std::to_string(event.httpStatus) +
                       (why_.empty() ? std::string() : ": " + why_);
            }
        }
        stopped_.store(true);
        // Not under this watch's lock: the main thread's wait reads stopped() under the
        // signal's lock.
        StopSignal::notify();
    }

    bool stopped() const { return stopped_.load(); }

    std::string why() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return why_;
    }

  private:
    const std::wstring id_;
    std::atomic<bool> stopped_{false};
    mutable std::mutex mutex_;
    std::string why_;
};

void printMail(const ReceivedMail& mail, bool json) {
    const std::string topic = Varkel::Zu::narrow(mail.topic);
    const std::string content = Varkel::Zu::narrow(mail.content);
    if (json) {
        auto out = web::json::value::object();
        out["time"] = jsonText(isoUtc(mail.receivedAt));
        out["topic"] = jsonText(topic);
        out["content"] = jsonText(content);
        Console::out(out.serialize());
    } else {
        Console::out(topic + ": " + content);
    }
}

}  // namespace

int runListen(const Arguments& arguments) {
    const std::vector<std::string>& topics = arguments.positional();
    for (const auto& topic : topics) {
        if (topic.empty()) {
            throw UsageError("a TOPIC must not be empty");
        }
    }
    const long long count = arguments.number("count", 0, 1, INT32_MAX);
    const long long timeoutSeconds = arguments.number("timeout", 0, 1, 7 * 24 * 3600);
    const bool json = arguments.has("json");
    const StatisticsPrinter statistics(arguments);
    const EventPrinter events(arguments);
    const PlatformConnection connection(arguments);
    const auto api = connection.connectResilient();

    // The mailbox's id is known before it is created, so that no event about it is missed.
    const auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
    const std::string id = boost::uuids::to_string(mailbox->getId());
    const auto watch = std::make_shared<MailboxWatch>(id);
    events.start(*api, [watch](const ApiEvent& event) { watch->see(event); });
    statistics.start(api);
    const auto collector = std::make_shared<MailCollector>();
    openMailbox(*api, mailbox, topics, collector);
    Console::err("listening on mailbox " + id + "; Ctrl-C to stop");

    const auto start = std::chrono::steady_clock::now();
    const auto deadline = timeoutSeconds > 0 ? start + std::chrono::seconds(timeoutSeconds)
                                             : std::chrono::steady_clock::time_point::max();
    long long received = 0;
    while (!StopSignal::requested() && !watch->stopped() && (count == 0 || received < count) &&
           std::chrono::steady_clock::now() < deadline) {
        StopSignal::waitUntil(
            deadline, [&collector, &watch] { return collector->hasMail() || watch->stopped(); });
        for (const auto& mail : collector->take()) {
            if (count != 0 && received >= count) {
                break;
            }
            printMail(mail, json);
            ++received;
        }
    }
    // Never left behind on the platform, stopped or not: the library deletes a stopped mailbox
    // too.
    bool deleted = true;
    try {
        api->deleteMailbox(mailbox);
    } catch (const std::exception& e) {
        deleted = false;
        Console::err("tolva: could not delete mailbox " + id + ": " + e.what());
    }
    statistics.finish(*api);
    if (!json) {
        Console::err("received " + std::to_string(received) + " notification" +
                     (received == 1 ? "" : "s"));
    }
    if (watch->stopped()) {
        const std::string why = watch->why();
        Console::err("tolva: mailbox " + id + " was stopped" +
                     (why.empty() ? std::string() : " (" + why + ")") + " and gets no more mail");
        return kExitFailure;
    }
    if (count != 0 && received < count) {
        Console::err(
            "tolva: " + std::to_string(received) + " of " + std::to_string(count) +
            " notifications arrived" +
            (StopSignal::requested() ? "" : " within " + std::to_string(timeoutSeconds) + " s"));
        return kExitFailure;
    }
    return deleted ? kExitOk : kExitFailure;
}

}  // namespace tolva
