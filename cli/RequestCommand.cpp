// tolva request: post a request and print the reply that arrives on the reply topic.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "PlatformConnection.h"
#include "UsageError.h"

#include <ZuCore/StringConversion.h>

#include <chrono>
#include <cstdint>

namespace tolva {

int runRequest(const Arguments& arguments) {
    const std::string& topic = arguments.positional().at(0);
    const std::string& content = arguments.positional().at(1);
    const std::string replyTopic = arguments.value("reply-topic");
    const long long timeoutSeconds = arguments.number("timeout", 10, 1, 24 * 3600);
    if (!arguments.has("reply-topic")) {
        throw UsageError("\"request\" needs --reply-topic TOPIC");
    }
    if (topic.empty() || replyTopic.empty()) {
        throw UsageError("TOPIC and --reply-topic must not be empty");
    }
    const PlatformConnection connection(arguments);
    const auto api = connection.connect();
    const auto start = std::chrono::steady_clock::now();
    const std::wstring reply = api->postNotificationAndWaitForReply(
        Varkel::Zu::widen(topic), Varkel::Zu::widen(content), Varkel::Zu::widen(replyTopic),
        start + std::chrono::seconds(timeoutSeconds));
    const long long elapsed = millisecondsSince(start);
    if (reply.empty()) {
        Console::err("tolva: no reply on " + replyTopic + " within " +
                     std::to_string(timeoutSeconds) + " s");
        return kExitFailure;
    }
    if (arguments.has("json")) {
        auto out = web::json::value::object();
        out["reply"] = jsonText(Varkel::Zu::narrow(reply));
        out["elapsedMs"] = web::json::value::number(static_cast<std::int64_t>(elapsed));
        Console::out(out.serialize());
    } else {
        Console::out(Varkel::Zu::narrow(reply));
    }
    return kExitOk;
}

}  // namespace tolva
