// tolva listen: a mailbox subscribed to the given topics, printing its mail as it arrives.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "MailCollector.h"
#include "PlatformConnection.h"
#include "StatisticsPrinter.h"
#include "StopSignal.h"
#include "UsageError.h"

#include <TolvaCore/Mailbox.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <boost/uuid/uuid_io.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace tolva {

namespace {

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::QxPlatformApi;

// A mailbox subscribed to every topic, with the collector attached.
std::shared_ptr<Mailbox> openMailbox(QxPlatformApi& api, const std::vector<std::string>& topics,
                                     const std::shared_ptr<MailCollector>& collector) {
    auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
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
    return mailbox;
}

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
    const PlatformConnection connection(arguments);
    const auto api = connection.connect();
    statistics.start(api);
    const auto collector = std::make_shared<MailCollector>();
    auto mailbox = openMailbox(*api, topics, collector);
    Console::err("listening on mailbox " + boost::uuids::to_string(mailbox->getId()) +
                 "; Ctrl-C to stop");

    const auto start = std::chrono::steady_clock::now();
    const auto deadline = timeoutSeconds > 0 ? start + std::chrono::seconds(timeoutSeconds)
                                             : std::chrono::steady_clock::time_point::max();
    long long received = 0;
    bool mailboxLost = false;
    while (!StopSignal::requested() && (count == 0 || received < count)) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            break;
        }
        // Wakes at least once a second to notice a mailbox the platform lost.
        StopSignal::waitUntil(std::min(deadline, now + std::chrono::seconds(1)),
                              [&collector] { return collector->hasMail(); });
        for (const auto& mail : collector->take()) {
            if (count != 0 && received >= count) {
                break;
            }
            printMail(mail, json);
            ++received;
        }
        if (api->hasDeletedMailboxes() && !mailboxLost) {
            mailboxLost = true;
            Console::err("tolva: the platform lost the mailbox; creating it again");
        }
        if (mailboxLost) {
            try {
                mailbox = openMailbox(*api, topics, collector);
                mailboxLost = false;
                Console::err("listening on mailbox " + boost::uuids::to_string(mailbox->getId()));
            } catch (const std::exception&) {
                // Tried again on the next round.
            }
        }
    }
    if (!mailboxLost) {
        try {
            api->deleteMailbox(mailbox);
        } catch (const std::exception& e) {
            Console::err(std::string("tolva: could not delete the mailbox: ") + e.what());
        }
    }
    statistics.finish(*api);
    if (!json) {
        Console::err("received " + std::to_string(received) + " notification" +
                     (received == 1 ? "" : "s"));
    }
    if (count != 0 && received < count) {
        Console::err(
            "tolva: " + std::to_string(received) + " of " + std::to_string(count) +
            " notifications arrived" +
            (StopSignal::requested() ? "" : " within " + std::to_string(timeoutSeconds) + " s"));
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace tolva
