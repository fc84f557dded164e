#include <TolvaCore/ApiStatistics.h>

#include <ZuCore/StringConversion.h>

#include <cpprest/json.h>

#include <cstdio>
#include <ctime>

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

// "2026-11-24T10:15:30.123Z"
std::string isoUtc(std::chrono::system_clock::time_point when) {
    const auto sinceEpoch = when.time_since_epoch();
    const std::time_t seconds =
        std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
    const long millis = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    // Room for any year an int holds, so the text is never cut.
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
    return text;
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
    document["services"] = registered;

    value tokens = value::object(true);
    tokens["renewals"] = count(tokenRenewals);
    tokens["failures"] = count(tokenFailures);
    document["tokens"] = tokens;

    value dropped = value::object(true);
    dropped["status"] = count(mailboxesDroppedByStatus);
    dropped["unreadable"] = count(mailboxesDroppedUnreadable);
    dropped["notStarted"] = count(mailboxesDroppedNotStarted);
    value mailboxes = value::object(true);
    mailboxes["live"] = count(mailboxesLive);
    mailboxes["created"] = count(mailboxesCreated);
    mailboxes["deleted"] = count(mailboxesDeleted);
    mailboxes["dropped"] = dropped;
    document["mailboxes"] = mailboxes;

    return Varkel::Zu::widen(document.serialize());
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
