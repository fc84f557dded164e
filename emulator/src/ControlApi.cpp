#include "ControlApi.h"

#include <algorithm>
#include <stdexcept>

#include "DashboardPage.h"
#include "DashboardView.h"
#include "JsonBody.h"

namespace qxpemu {
namespace {

HttpReply methodNotAllowed(const std::string& allowed) {
    HttpReply reply = HttpReply::text(405, "method not allowed here; use " + allowed);
    reply.extraHeaders.emplace_back("Allow", allowed);
    return reply;
}

template <class T>
T member(const nlohmann::json& object, const char* name, T fallback) {
    const auto it = object.find(name);
    if (it == object.end() || it->is_null()) {
        return fallback;
    }
    try {
        return it->get<T>();
    } catch (const nlohmann::json::exception&) {
        throw std::invalid_argument(std::string("member \"") + name + "\" has the wrong type");
    }
}

int intMember(const nlohmann::json& object, const char* name, int fallback) {
    const auto it = object.find(name);
    if (it == object.end() || it->is_null()) {
        return fallback;
    }
    if (!it->is_number_integer() || it->get<long long>() < -2147483647LL ||
        it->get<long long>() > 2147483647LL) {
        throw std::invalid_argument(std::string("member \"") + name + "\" must be an integer");
    }
    return it->get<int>();
}

}  // namespace

nlohmann::json ControlApi::toJson(const RecordedRequest& request) {
    nlohmann::json headers = nlohmann::json::array();
    for (const auto& field : request.headers) {
        headers.push_back({{"name", field.first}, {"value", field.second}});
    }
    return {{"method", request.method},
            {"target", request.target},
            {"headers", std::move(headers)},
            {"body", request.body}};
}

nlohmann::json ControlApi::toJson(const FaultRule& rule) {
    nlohmann::json headers = nlohmann::json::object();
    for (const auto& field : rule.headers) {
        headers[field.first] = field.second;
    }
    return {{"method", rule.method},
            {"pathPattern", rule.pathPattern},
            {"status", rule.status},
            {"reason", rule.reason},
            {"body", rule.body},
            {"contentType", rule.contentType},
            {"delayMs", rule.delayMs},
            {"drop", rule.drop},
            {"times", rule.times},
            {"trickleChunkBytes", rule.trickleChunkBytes},
            {"trickleIntervalMs", rule.trickleIntervalMs},
            {"headers", std::move(headers)}};
}

FaultRule ControlApi::faultFromJson(const nlohmann::json& value) {
    if (!value.is_object()) {
        throw std::invalid_argument("a fault rule must be a JSON object");
    }
    if (!value.contains("pathPattern")) {
        throw std::invalid_argument("member \"pathPattern\" is required");
    }
    FaultRule rule;
    rule.method = member<std::string>(value, "method", rule.method);
    rule.pathPattern = member<std::string>(value, "pathPattern", rule.pathPattern);
    rule.status = intMember(value, "status", rule.status);
    rule.reason = member<std::string>(value, "reason", rule.reason);
    rule.body = member<std::string>(value, "body", rule.body);
    rule.contentType = member<std::string>(value, "contentType", rule.contentType);
    rule.delayMs = intMember(value, "delayMs", rule.delayMs);
    rule.drop = member<bool>(value, "drop", rule.drop);
    rule.times = intMember(value, "times", rule.times);
    rule.trickleChunkBytes = intMember(value, "trickleChunkBytes", rule.trickleChunkBytes);
    rule.trickleIntervalMs = intMember(value, "trickleIntervalMs", rule.trickleIntervalMs);
    if (value.contains("headers")) {
        const auto& headers = value.at("headers");
        if (!headers.is_object()) {
            throw std::invalid_argument("member \"headers\" must be an object of strings");
        }
        for (const auto& [name, field] : headers.items()) {
            if (!field.is_string()) {
                throw std::invalid_argument("member \"headers\" must be an object of strings");
            }
            rule.headers.emplace_back(name, field.get<std::string>());
        }
    }
    return rule;
}

HttpReply ControlApi::dashboardPage(const IncomingRequest& request) {
    if (request.method != "GET" && request.method != "HEAD") {
        return methodNotAllowed("GET");
    }
    HttpReply reply;
    reply.status = 200;
    reply.contentType = "text/html; charset=utf-8";
    reply.body = qxpemu::dashboardPage();
    reply.extraHeaders.emplace_back("Cache-Control", "no-store");
    return reply;
}

HttpReply ControlApi::handle(const IncomingRequest& request) {
    const std::string what = request.path.substr(std::string(kPrefix).size());
    const std::string& method = request.method;

    if (what == "requests") {
        if (method == "GET") {
            nlohmann::json list = nlohmann::json::array();
            for (const auto& recorded : core_.log.all()) {
                list.push_back(toJson(recorded));
            }
            return HttpReply::json(200, toJsonText(list));
        }
        if (method == "DELETE") {
            core_.log.clear();
            return HttpReply::empty(204);
        }
        return methodNotAllowed("GET, DELETE");
    }
    if (what == "faults") {
        if (method == "GET") {
            nlohmann::json list = nlohmann::json::array();
            for (const auto& rule : core_.faults.rules()) {
                list.push_back(toJson(rule));
            }
            return HttpReply::json(200, toJsonText(list));
        }
        if (method == "POST") {
            nlohmann::json body;
            const std::string problem = parseJsonBody(request.body, body);
            if (!problem.empty()) {
                return HttpReply::text(400, problem);
            }
            try {
                core_.faults.add(faultFromJson(body));
            } catch (const std::invalid_argument& error) {
                return HttpReply::text(400, error.what());
            }
            return HttpReply::empty(204);
        }
        if (method == "DELETE") {
            core_.faults.clear();
            return HttpReply::empty(204);
        }
        return methodNotAllowed("GET, POST, DELETE");
    }
    if (what == "dashboard") {
        if (method != "GET") {
            return methodNotAllowed("GET");
        }
        std::size_t page = 0;
        const std::string prefix = "page=";
        for (std::size_t start = 0; start < request.query.size();) {
            const std::size_t end = std::min(request.query.find('&', start), request.query.size());
            const std::string pair = request.query.substr(start, end - start);
            if (pair.rfind(prefix, 0) == 0) {
                const std::string number = pair.substr(prefix.size());
                if (number.empty() || number.size() > 9 ||
                    number.find_first_not_of("0123456789") != std::string::npos) {
                    return HttpReply::text(400, "page must be a whole number");
                }
                page = std::stoul(number);
            }
            start = end + 1;
        }
        return HttpReply::json(200, toJsonText(DashboardView(core_).document(page)));
    }
    if (what == "state") {
        return method == "GET" ? HttpReply::json(200, toJsonText(core_.state()))
                               : methodNotAllowed("GET");
    }
    if (what == "connections") {
        if (method == "GET") {
            return HttpReply::json(200, toJsonText(core_.connections.describe()));
        }
        if (method != "POST") {
            return methodNotAllowed("GET, POST");
        }
        nlohmann::json body;
        const std::string problem = parseJsonBody(request.body, body);
        if (!problem.empty()) {
            return HttpReply::text(400, problem);
        }
        if (!body.is_object()) {
            return HttpReply::text(400, "expected a JSON object");
        }
        // Members left out keep their current value.
        ConnectionPolicy policy = core_.connections.policy();
        try {
            policy.idleCloseMs = intMember(body, "idleCloseMs", policy.idleCloseMs);
            policy.maxRequestsPerConnection =
                intMember(body, "maxRequestsPerConnection", policy.maxRequestsPerConnection);
            policy.announceClose = member<bool>(body, "announceClose", policy.announceClose);
            core_.connections.setPolicy(policy);
        } catch (const std::invalid_argument& error) {
            return HttpReply::text(400, error.what());
        }
        return HttpReply::empty(204);
    }
    if (what == "token-lifetime") {
        if (method != "POST") {
            return methodNotAllowed("POST");
        }
        nlohmann::json body;
        const std::string problem = parseJsonBody(request.body, body);
        if (!problem.empty()) {
            return HttpReply::text(400, problem);
        }
        const auto seconds = body.is_object() ? body.find("seconds") : body.end();
        if (!body.is_object() || seconds == body.end() || !seconds->is_number_integer() ||
            seconds->get<long long>() < -2147483647LL || seconds->get<long long>() > 2147483647LL) {
            return HttpReply::text(400, "expected {\"seconds\": <integer>}");
        }
        core_.identity.setLifetime(seconds->get<int>());
        return HttpReply::empty(204);
    }
    if (what == "rotate-key") {
        if (method != "POST") {
            return methodNotAllowed("POST");
        }
        core_.keys.rotate();
        return HttpReply::json(200, toJsonText(nlohmann::json{{"kid", core_.keys.currentKeyId()}}));
    }
    if (what == "token") {
        if (method != "POST") {
            return methodNotAllowed("POST");
        }
        std::string clientId = core_.options.clients.front().clientId;
        if (!request.body.empty()) {
            nlohmann::json body;
            const std::string problem = parseJsonBody(request.body, body);
            if (!problem.empty()) {
                return HttpReply::text(400, problem);
            }
            try {
                clientId = body.is_object() ? member<std::string>(body, "clientId", clientId)
                                            : throw std::invalid_argument("expected an object");
            } catch (const std::invalid_argument& error) {
                return HttpReply::text(400, error.what());
            }
        }
        try {
            return HttpReply::json(
                200, toJsonText(nlohmann::json{
                         {"access_token", core_.identity.issue(clientId, "platform cluster")}}));
        } catch (const std::invalid_argument& error) {
            return HttpReply::text(404, error.what());
        }
    }
    if (what == "reset") {
        if (method != "POST") {
            return methodNotAllowed("POST");
        }
        core_.reset();
        return HttpReply::empty(204);
    }
    return HttpReply::text(404, "no such control endpoint: " + request.path);
}

}  // namespace qxpemu
