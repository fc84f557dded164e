#include <TolvaCore/ApiStatistics.h>

#include "private/IsoTime.h"

#include <ZuCore/StringConversion.h>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

namespace {

using web::json::value;

value count(std::uint64_t number) {
    return value::number(static_cast<uint64_t>(number));
}

value latencyJson(const ApiStatistics::Latency& latency) {
    value out = value::object(true);
    out["samples"] = count(latency.samples);
    out["p50"] = count(static_cast<std::uint64_t>(latency.p50.count()));
    out["p90"] = count(static_cast<std::uint64_t>(latency.p90.count()));
    out["p99"] = count(static_cast<std::uint64_t>(latency.p99.count()));
    out["max"] = count(static_cast<std::uint64_t>(latency.max.count()));
    return out;
}

}  // namespace

std::wstring ApiStatistics::toJson() const {
    value document = value::object(true);
    document["schema"] = value::string("tolva.statistics/1");
    document["takenAt"] = value::string(isoUtc(takenAt));
    document["uptimeMs"] = count(static_cast<std::uint64_t>(uptime.count()));

    value posts = value::object(true);
    posts["sent"] = count(postsSent);
    posts["failed"] = count(postsFailed);
    posts["roundTripUs"] = latencyJson(postRoundTrip);
    document["posts"] = posts;

    value polls = value::object(true);
    polls["sent"] = count(pollsSent);
    polls["withMail"] = count(pollsWithMail);
    polls["empty"] = count(pollsEmpty);
    polls["transportFailures"] = count(pollsTransportFailures);
    polls["statusFailures"] = count(pollsStatusFailures);
    polls["unreadable"] = count(pollsUnreadable);
    polls["cancelled"] = count(pollsCancelled);
    polls["endedByDeletion"] = count(pollsEndedByDeletion);
    polls["waitingForToken"] = count(pollsWaitingForToken);
    polls["statusRetries"] = count(statusRetries);
    polls["inFlight"] = count(pollsInFlight);
    document["polls"] = polls;
    document["transportRetries"] = count(transportRetries);

    value mail = value::object(true);
    mail["delivered"] = count(mailDelivered);
    mail["listenerExceptions"] = count(listenerExceptions);
    mail["backlog"] = count(deliveryBacklog);
    mail["answerToListenerUs"] = latencyJson(pollAnswerToListener);
    document["mail"] = mail;

    value heartbeats = value::object(true);
    heartbeats["sent"] = count(heartbeatsSent);
    heartbeats["failed"] = count(heartbeatsFailed);
    value perService = value::array(services.size());
    for (std::size_t i = 0; i < services.size(); ++i) {
        value service = value::object(true);
        service["serviceId"] = value::string(Varkel::Zu::narrow(services[i].serviceId));
        service["sent"] = count(services[i].sent);
        service["failed"] = count(services[i].failed);
        service["registered"] = value::boolean(services[i].registered);
        perService[i] = service;
    }
    heartbeats["services"] = perService;
    document["heartbeats"] = heartbeats;

    value registered = value::object(true);
    registered["registered"] = count(servicesRegistered);
    registered["registeredAgain"] = count(servicesRegisteredAgain);
    document["services"] = registered;

    value requests = value::object(true);
    requests["sentAgain"] = count(requestsSentAgain);
    document["requests"] = requests;

    value tokens = value::object(true);
    tokens["renewals"] = count(tokenRenewals);
    tokens["failures"] = count(tokenFailures);
    document["tokens"] = tokens;

    value dropped = value::object(true);
    dropped["status"] = count(mailboxesDroppedByStatus);
    dropped["unreadable"] = count(mailboxesDroppedUnreadable);
    dropped["notStarted"] = count(mailboxesDroppedNotStarted);
    value mailboxTotals = value::object(true);
    mailboxTotals["live"] = count(mailboxesLive);
    mailboxTotals["created"] = count(mailboxesCreated);
    mailboxTotals["deleted"] = count(mailboxesDeleted);
    mailboxTotals["recreated"] = count(mailboxesRecreated);
    mailboxTotals["dropped"] = dropped;
    value each = value::array(mailboxes.size());
    for (std::size_t i = 0; i < mailboxes.size(); ++i) {
        const MailboxView& view = mailboxes[i];
        value item = value::object(true);
        item["mailboxId"] = value::string(Varkel::Zu::narrow(view.mailboxId));
        item["state"] = value::string(Varkel::Zu::narrow(mailboxStateName(view.state)));
        item["consecutiveFailures"] = count(view.consecutiveFailures);
        item["lastHttpStatus"] = value::number(view.lastHttpStatus);
        item["lastError"] = value::string(Varkel::Zu::narrow(view.lastError));
        each[i] = item;
    }
    mailboxTotals["each"] = each;
    document["mailboxes"] = mailboxTotals;

    return Varkel::Zu::widen(document.serialize());
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
