// tolva post: post one notification.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "PlatformConnection.h"
#include "UsageError.h"

#include <ZuCore/StringConversion.h>

#include <chrono>
#include <cstdint>
#include <limits>

namespace tolva {

int runPost(const Arguments& arguments) {
    const std::string& topic = arguments.positional().at(0);
    const std::string& content = arguments.positional().at(1);
    const auto ttl = static_cast<unsigned int>(
        arguments.number("ttl", 0, 0, std::numeric_limits<std::int32_t>::max()));
    if (topic.empty()) {
        throw UsageError("TOPIC must not be empty");
    }
    const PlatformConnection connection(arguments);
    const auto api = connection.connect();
    const auto start = std::chrono::steady_clock::now();
    api->postNotification(Varkel::Zu::widen(topic), Varkel::Zu::widen(content), ttl);
    const long long elapsed = millisecondsSince(start);
    if (arguments.has("json")) {
        auto out = web::json::value::object();
        out["posted"] = web::json::value::boolean(true);
        out["topic"] = jsonText(topic);
        out["ttl"] = web::json::value::number(static_cast<std::int64_t>(ttl));
        out["elapsedMs"] = web::json::value::number(static_cast<std::int64_t>(elapsed));
        Console::out(out.serialize());
    } else {
        Console::out("posted to " + topic + " in " + std::to_string(elapsed) + " ms");
    }
    return kExitOk;
}

}  // namespace tolva
