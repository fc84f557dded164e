#include "PlatformRouter.h"

#include <vector>

#include "JsonBody.h"
#include "Text.h"

namespace qxpemu {
namespace {

constexpr char kTokenPath[] = "/identity/connect/token";
constexpr char kKeySetPath[] = "/identity/.well-known/openid-configuration/jwks";
constexpr char kNotifications[] = "/notifications/api/v1/notifications";
constexpr char kMailbox[] = "/notifications/api/v1/mailbox";
constexpr char kService[] = "/discovery/api/v1/service";

bool startsWith(const std::string& textIn, const std::string& prefix) {
    return textIn.compare(0, prefix.size(), prefix) == 0;
}

std::vector<std::string> splitSegments(const std::string& rest) {
    std::vector<std::string> segments;
    std::size_t start = 0;
    while (start <= rest.size()) {
        std::size_t end = rest.find('/', start);
        if (end == std::string::npos) {
            end = rest.size();
        }
        segments.push_back(rest.substr(start, end - start));
        start = end + 1;
    }
    return segments;
}

HttpReply methodNotAllowed(const std::string& allowed) {
    HttpReply reply = HttpReply::text(405, "method not allowed here; use " + allowed);
    reply.extraHeaders.emplace_back("Allow", allowed);
    return reply;
}

RouteOutcome answer(HttpReply reply) {
    RouteOutcome outcome;
    outcome.reply = std::move(reply);
    return outcome;
}

// Decodes one path segment; "" with `ok` false when it is broken or not UTF-8.
std::string decodeSegment(const std::string& segment, bool& ok) {
    const auto decoded = text::percentDecode(segment);
    ok = decoded && text::isValidUtf8(*decoded);
    return ok ? *decoded : "";
}

bool isNonNegativeInteger(const nlohmann::json& value) {
    return value.is_number_unsigned() || (value.is_number_integer() && value.get<long long>() >= 0);
}

}  // namespace

RouteOutcome PlatformRouter::route(const IncomingRequest& request) {
    const std::string& path = request.path;
    const std::string& method = request.method;

    if (path == kTokenPath) {
        return answer(method == "POST" ? core_.identity.tokenRequest(request)
                                       : methodNotAllowed("POST"));
    }
    if (path == kKeySetPath) {
        return answer(method == "GET" ? core_.identity.keySetRequest() : methodNotAllowed("GET"));
    }

    // Resolve the route first: an unknown path is 404 and a wrong method 405 whether or not
    // a token came along; only then is the token checked.
    enum class Route {
        None,
        Publish,
        Poll,
        CreateMailbox,
        Subscribe,
        Unsubscribe,
        DeleteMailbox,
        Services,
        Heartbeat,
        Unregister
    };
    Route routeKind = Route::None;
    std::string allowed;
    std::vector<std::string> segments;
    if (path == kNotifications) {
        routeKind = Route::Publish;
        allowed = "POST";
    } else if (startsWith(path, std::string(kNotifications) + "/")) {
        segments = splitSegments(path.substr(sizeof(kNotifications)));
        if (segments.size() == 1 && !segments[0].empty()) {
            routeKind = Route::Poll;
            allowed = "GET";
        }
    } else if (path == kMailbox) {
        routeKind = Route::CreateMailbox;
        allowed = "POST";
    } else if (startsWith(path, std::string(kMailbox) + "/")) {
        const std::string rest = path.substr(sizeof(kMailbox));
        segments = splitSegments(rest);
        if (segments.size() >= 2 && !segments[0].empty() &&
            (segments[1] == "subscribe" || segments[1] == "unsubscribe")) {
            routeKind = segments[1] == "subscribe" ? Route::Subscribe : Route::Unsubscribe;
            allowed = "POST";
            // The topic is everything after ".../subscribe/", so a topic whose "/" was not
            // encoded still arrives whole.
            const std::size_t topicStart = segments[0].size() + segments[1].size() + 2;
            segments.resize(2);
            segments.push_back(topicStart <= rest.size() ? rest.substr(topicStart) : "");
        } else if (segments.size() == 1 && !segments[0].empty()) {
            routeKind = Route::DeleteMailbox;
            allowed = "DELETE";
        }
    } else if (path == kService) {
        routeKind = Route::Services;
        allowed = "GET, POST";
    } else if (startsWith(path, std::string(kService) + "/")) {
        segments = splitSegments(path.substr(sizeof(kService)));
        if (segments.size() == 3 && segments[2] == "health" && !segments[0].empty()) {
            routeKind = Route::Heartbeat;
            allowed = "PUT";
        } else if (segments.size() == 2 && !segments[0].empty()) {
            routeKind = Route::Unregister;
            allowed = "DELETE";
        }
    }
    if (routeKind == Route::None) {
        return answer(HttpReply::text(404, "no such endpoint: " + path));
    }
    const bool methodOk =
        allowed.find(method) != std::string::npos && !method.empty() &&
        (method == "GET" || method == "POST" || method == "PUT" || method == "DELETE");
    if (!methodOk) {
        return answer(methodNotAllowed(allowed));
    }

    const std::string problem = core_.identity.authorize(request);
    if (!problem.empty()) {
        HttpReply reply = HttpReply::text(401, "unauthorized: " + problem);
        reply.extraHeaders.emplace_back("WWW-Authenticate", "Bearer realm=\"qxp-emulator\"");
        return answer(std::move(reply));
    }

    switch (routeKind) {
        case Route::Publish:
            return answer(postNotification(request));
        case Route::Poll:
            return poll(request, segments[0]);
        case Route::CreateMailbox:
            return answer(createMailbox(request));
        case Route::Subscribe:
        case Route::Unsubscribe:
            return answer(
                changeSubscription(segments[0], segments[2], routeKind == Route::Subscribe));
        case Route::DeleteMailbox:
            return answer(deleteMailbox(segments[0]));
        case Route::Services:
            return answer(method == "GET" ? HttpReply::json(200, toJsonText(core_.discovery.list()))
                                          : registerService(request));
        case Route::Heartbeat:
            return answer(serviceCall(segments[0], segments[1], true));
        case Route::Unregister:
            return answer(serviceCall(segments[0], segments[1], false));
        case Route::None:
            break;
    }
    return answer(HttpReply::text(404, "no such endpoint: " + path));
}

HttpReply PlatformRouter::postNotification(const IncomingRequest& request) {
    nlohmann::json body;
    const std::string problem = parseJsonBody(request.body, body);
    if (!problem.empty()) {
        return HttpReply::text(400, problem);
    }
    if (!body.is_object()) {
        return HttpReply::text(400, "the notification must be a JSON object");
    }
    // Delivered members in a fixed order; unknown members are ignored.
    nlohmann::ordered_json delivered;
    for (const char* name : {"id", "time", "topic", "content", "source"}) {
        const auto member = body.find(name);
        if (member == body.end()) {
            return HttpReply::text(400, std::string("missing member \"") + name + "\"");
        }
        if (!member->is_string()) {
            return HttpReply::text(400, std::string("member \"") + name + "\" must be a string");
        }
        delivered[name] = member->get<std::string>();
    }
    if (delivered["topic"].get<std::string>().empty()) {
        return HttpReply::text(400, "member \"topic\" must not be empty");
    }
    if (delivered["id"].get<std::string>().empty()) {
        return HttpReply::text(400, "member \"id\" must not be empty");
    }
    auto note = std::make_shared<NotificationHub::Notification>();
    const auto ttl = body.find("ttl");
    if (ttl != body.end()) {
        if (!isNonNegativeInteger(*ttl) || ttl->get<unsigned long long>() > 0xFFFFFFFFull) {
            return HttpReply::text(400, "member \"ttl\" must be an integer from 0 to 4294967295");
        }
        const auto seconds = ttl->get<unsigned long long>();
        delivered["ttl"] = seconds;
        // ttl 0 means "no time to live", as the client library uses it.
        if (seconds > 0) {
            note->expires = true;
            note->expiresAt = NotificationHub::Clock::now() + std::chrono::seconds(seconds);
        }
    }
    note->json = toJsonText(delivered);
    const std::string topic = delivered["topic"].get<std::string>();
    const std::size_t reached = core_.hub.publish(topic, std::move(note));
    const auto content = delivered.find("content");
    core_.recent.addNotification({std::chrono::system_clock::now(), topic,
                                  content != delivered.end() && content->is_string()
                                      ? content->get<std::string>()
                                      : std::string(),
                                  reached});
    HttpReply reply = HttpReply::empty(204);
    reply.extraHeaders.emplace_back("X-Delivered-To", std::to_string(reached));
    return reply;
}

HttpReply PlatformRouter::createMailbox(const IncomingRequest& request) {
    nlohmann::json body;
    const std::string problem = parseJsonBody(request.body, body);
    if (!problem.empty()) {
        return HttpReply::text(400, problem);
    }
    if (!body.is_object()) {
        return HttpReply::text(400, "the mailbox must be a JSON object");
    }
    const auto id = body.find("id");
    if (id == body.end() || !id->is_string() || !text::isUuid(id->get<std::string>())) {
        return HttpReply::text(400, "member \"id\" must be a UUID string");
    }
    const auto subscription = body.find("subscription");
    if (subscription == body.end() || !subscription->is_string() ||
        subscription->get<std::string>().empty()) {
        return HttpReply::text(400, "member \"subscription\" must be a non-empty string");
    }
    long long ttlSeconds = 0;
    const auto ttl = body.find("mailboxTTL");
    if (ttl != body.end()) {
        if (!isNonNegativeInteger(*ttl) || ttl->get<unsigned long long>() > 0xFFFFFFFFull) {
            return HttpReply::text(400,
                                   "member \"mailboxTTL\" must be an integer from 0 to 4294967295");
        }
        ttlSeconds = ttl->get<long long>();
    }
    bool durable = true;
    const auto durableMember = body.find("durable");
    if (durableMember != body.end()) {
        if (!durableMember->is_boolean()) {
            return HttpReply::text(400, "member \"durable\" must be true or false");
        }
        durable = durableMember->get<bool>();
    }
    std::string secret;
    if (core_.hub.create(id->get<std::string>(), subscription->get<std::string>(), ttlSeconds,
                         durable, secret) == NotificationHub::CreateResult::Duplicate) {
        return HttpReply::text(409,
                               "a mailbox with id " + id->get<std::string>() + " already exists");
    }
    return HttpReply::json(200, toJsonText(nlohmann::json{{"secret", secret}}));
}

HttpReply PlatformRouter::changeSubscription(const std::string& encodedId,
                                             const std::string& encodedTopic, bool subscribe) {
    bool idOk = false;
    bool topicOk = false;
    const std::string id = decodeSegment(encodedId, idOk);
    const std::string topic = decodeSegment(encodedTopic, topicOk);
    if (!idOk) {
        return HttpReply::text(400, "malformed mailbox id");
    }
    if (!topicOk) {
        return HttpReply::text(400, "malformed topic: broken %-escape or invalid UTF-8");
    }
    if (topic.empty()) {
        return HttpReply::text(400, "the topic must not be empty");
    }
    const bool known =
        subscribe ? core_.hub.subscribe(id, topic) : core_.hub.unsubscribe(id, topic);
    return known ? HttpReply::empty(204) : HttpReply::text(404, "unknown mailbox " + id);
}

HttpReply PlatformRouter::deleteMailbox(const std::string& encodedSecret) {
    bool ok = false;
    const std::string secret = decodeSegment(encodedSecret, ok);
    if (!ok) {
        return HttpReply::text(400, "malformed mailbox secret");
    }
    return core_.hub.removeBySecret(secret) ? HttpReply::empty(204)
                                            : HttpReply::text(404, "no mailbox has this secret");
}

RouteOutcome PlatformRouter::poll(const IncomingRequest& request, const std::string& encodedId) {
    bool ok = false;
    const std::string id = decodeSegment(encodedId, ok);
    if (!ok) {
        return answer(HttpReply::text(400, "malformed mailbox id"));
    }
    int waitSeconds = core_.options.maxPollSeconds;
    std::string timeout;
    if (request.queryParameter("timeout", timeout)) {
        if (timeout.empty() || timeout.size() > 9 ||
            timeout.find_first_not_of("0123456789") != std::string::npos) {
            return answer(HttpReply::text(400, "timeout must be a whole number of seconds"));
        }
        waitSeconds = std::min(waitSeconds, std::stoi(timeout));
    }
    RouteOutcome outcome;
    outcome.longPoll = true;
    outcome.mailboxId = id;
    outcome.waitSeconds = waitSeconds;
    return outcome;
}

HttpReply PlatformRouter::registerService(const IncomingRequest& request) {
    nlohmann::json record;
    std::string problem = parseJsonBody(request.body, record);
    if (problem.empty()) {
        problem = DiscoveryRegistry::validate(record);
    }
    if (!problem.empty()) {
        return HttpReply::text(400, problem);
    }
    const std::string secret = core_.discovery.add(record);
    return HttpReply::json(201, toJsonText(nlohmann::json{{"serviceId", record["serviceId"]},
                                                          {"serviceSecret", secret}}));
}

HttpReply PlatformRouter::serviceCall(const std::string& encodedId,
                                      const std::string& encodedSecret, bool heartbeat) {
    bool idOk = false;
    bool secretOk = false;
    const std::string id = decodeSegment(encodedId, idOk);
    const std::string secret = decodeSegment(encodedSecret, secretOk);
    if (!idOk || !secretOk) {
        return HttpReply::text(400, "malformed service id or secret");
    }
    const auto outcome =
        heartbeat ? core_.discovery.heartbeat(id, secret) : core_.discovery.remove(id, secret);
    switch (outcome) {
        case DiscoveryRegistry::Outcome::Done:
            return HttpReply::empty(204);
        case DiscoveryRegistry::Outcome::UnknownService:
            return HttpReply::text(404, "unknown service " + id);
        case DiscoveryRegistry::Outcome::WrongSecret:
            break;
    }
    return HttpReply::text(403, "wrong secret for service " + id);
}

}  // namespace qxpemu
