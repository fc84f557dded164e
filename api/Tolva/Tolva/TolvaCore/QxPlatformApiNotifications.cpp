// QxPlatformApi: posting notifications to the platform's notification service.
#include <TolvaCore/QxPlatformApi.h>

#include "private/ApiDefaults.h"
#include "private/RestCall.h"
#include "private/StatisticsRecorder.h"
#include "private/TopicText.h"

#include <ZuCore/DebugLog.h>
#include <ZuCore/StringConversion.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::narrow;
using web::json::value;

void QxPlatformApi::postNotification(const std::wstring& topic, const std::wstring& content,
                                     unsigned int ttl) {
    validateToken();

    RestCall call = platformCall(web::http::methods::POST, ApiDefaults::kNotificationsPath);
    call.header("Accept", RestCall::kJsonContentType)
        .header("Content-Type", RestCall::kJsonContentType)
        .header("User-Agent", RestCall::kUserAgent)
        .header("Authorization", requestAuthorization())
        .accept({web::http::status_codes::NoContent})
        .failureText(L"Post notification failed. ");

    // A generator per call, seeded afresh from the system's random source.
    boost::uuids::random_generator uuidGenerator;
    value body = value::object();
    body["id"] = value::string(boost::uuids::to_string(uuidGenerator()));
    body["time"] =
        value::string(utility::datetime::utc_now().to_string(utility::datetime::ISO_8601));
    body["topic"] = value::string(narrow(lowerCaseTopic(topic)));
    body["content"] = value::string(narrow(content));
    if (ttl != 0) {
        body["ttl"] = value::number(ttl);
    }
    body["source"] = value::string(RestCall::kUserAgent);

    // Serialised once, for the debug-log line and as the body sent.
    const std::string serialised = body.serialize();
    Varkel::Zu::DebugLog::trace("Sending QXP notification: " + serialised);
    call.textBody(serialised, RestCall::kJsonContentType);

    StatisticsRecorder::bump(statistics_->postsSent);
    const auto sentAt = std::chrono::steady_clock::now();
    try {
        RestCall::translatingHttpFailure([&] { call.perform(currentClient()); });
    } catch (...) {
        StatisticsRecorder::bump(statistics_->postsFailed);
        throw;
    }
    statistics_->postRoundTrip.add(std::chrono::steady_clock::now() - sentAt);
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
