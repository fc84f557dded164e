#include "DashboardView.h"

#include <ctime>
#include <vector>

namespace qxpemu {

namespace {

constexpr const char* kMailboxPrefix = "/notifications/api/v1/mailbox/";
constexpr const char* kServicePrefix = "/discovery/api/v1/service/";
constexpr std::size_t kContentShown = 120;

std::string isoTime(std::chrono::system_clock::time_point when) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count() %
        1000;
    char withMillis[40];
    std::snprintf(withMillis, sizeof withMillis, "%s.%03lldZ", text,
                  static_cast<long long>(millis));
    return withMillis;
}

std::vector<std::string> segments(const std::string& path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = path.find('/', start);
        parts.push_back(
            path.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
    return parts;
}

// The first line of `text`, cut to a length a table cell can show.
std::string oneLine(const std::string& text) {
    std::string line = text.substr(0, text.find_first_of("\r\n"));
    if (line.size() > kContentShown) {
        line.resize(kContentShown);
        // Never end inside a UTF-8 sequence.
        while (!line.empty() && (static_cast<unsigned char>(line.back()) & 0xC0) == 0x80) {
            line.pop_back();
        }
        if (!line.empty() && (static_cast<unsigned char>(line.back()) & 0x80) != 0) {
            line.pop_back();
        }
        line += "…";
    } else if (line.size() < text.size()) {
        line += " …";
    }
    return line;
}

nlohmann::json mailboxPage(const nlohmann::json& all, std::size_t page) {
    std::size_t parked = 0;
    std::size_t queued = 0;
    for (const auto& mailbox : all) {
        parked += mailbox.value("polling", false) ? 1 : 0;
        queued += mailbox.value("queueDepth", std::size_t(0));
    }
    nlohmann::json items = nlohmann::json::array();
    const std::size_t first = page * DashboardView::kPageSize;
    for (std::size_t i = first; i < all.size() && i < first + DashboardView::kPageSize; ++i) {
        const auto& mailbox = all[i];
        const long long ttl = mailbox.value("mailboxTTL", 0LL);
        const long long idle = mailbox.value("idleMs", 0LL);
        const bool polling = mailbox.value("polling", false);
        nlohmann::json item = {
            {"id", mailbox.value("id", "")},
            {"subscriptions", mailbox.value("subscriptions", nlohmann::json::array())},
            {"queued", mailbox.value("queueDepth", 0)},
            {"pollParked", polling},
            {"lastPollAgeMs", idle},
            {"ttlSeconds", ttl}};
        // A mailbox with a time to live expires that long after its last poll, unless a poll
        // is parked.
        item["expiresInMs"] =
            ttl > 0 && !polling ? nlohmann::json(ttl * 1000 - idle) : nlohmann::json(nullptr);
        items.push_back(std::move(item));
    }
    return {{"total", all.size()},
            {"parkedPolls", parked},
            {"queuedMail", queued},
            {"page", page},
            {"pageSize", DashboardView::kPageSize},
            {"pages", (all.size() + DashboardView::kPageSize - 1) / DashboardView::kPageSize},
            {"items", std::move(items)}};
}

}  // namespace

std::string DashboardView::maskTarget(const std::string& target) {
    const std::string path = target.substr(0, target.find('?'));
    const std::string mailboxPrefix = kMailboxPrefix;
    const std::string servicePrefix = kServicePrefix;
    if (path.rfind(mailboxPrefix, 0) == 0) {
        const auto rest = segments(path.substr(mailboxPrefix.size()));
        // ".../mailbox/<secret>" addresses a mailbox by its secret; ".../mailbox/<id>/..."
        // by its id, which is not secret.
        if (rest.size() == 1 && !rest[0].empty()) {
            return mailboxPrefix + "***";
        }
        return path;
    }
    if (path.rfind(servicePrefix, 0) == 0) {
        auto rest = segments(path.substr(servicePrefix.size()));
        if (rest.size() >= 2) {
            rest[1] = "***";
        }
        std::string masked = servicePrefix;
        for (std::size_t i = 0; i < rest.size(); ++i) {
            masked += (i ? "/" : "") + rest[i];
        }
        return masked;
    }
    return path;
}

nlohmann::json DashboardView::document(std::size_t page) const {
    const nlohmann::json state = core_.state();

    nlohmann::json identity = {{"keys", state.at("keys")},
                               {"tokenLifetimeSeconds", state.at("tokenLifetimeSeconds")},
                               {"tokensIssued", core_.identity.tokensIssued()},
                               {"clients", state.at("clients")},
                               {"maxPollSeconds", state.at("maxPollSeconds")}};

    nlohmann::json services = nlohmann::json::array();
    for (const auto& service : state.at("services")) {
        const auto health = service.find("serviceHealth");
        services.push_back({{"serviceId", service.value("serviceId", "")},
                            {"serviceType", service.value("serviceType", "")},
                            {"serviceInstance", service.value("serviceInstance", "")},
                            {"serviceAddress", service.value("serviceAddress", "")},
                            {"servicePort", service.value("servicePort", 0)},
                            {"status", service.value("status", "")},
                            {"reportedHealth", health != service.end() && health->is_object()
                                                   ? health->value("health", "")
                                                   : std::string()},
                            {"lastHeartbeatAgeMs", service.value("lastHeartbeatAgeMs", 0LL)},
                            {"heartbeats", service.value("heartbeats", 0LL)}});
    }

    nlohmann::json notifications = nlohmann::json::array();
    for (const auto& notification : core_.recent.notifications()) {
        notifications.push_back({{"time", isoTime(notification.time)},
                                 {"topic", notification.topic},
                                 {"content", oneLine(notification.content)},
                                 {"deliveredTo", notification.deliveredTo}});
    }

    nlohmann::json requests = nlohmann::json::array();
    for (const auto& exchange : core_.recent.exchanges()) {
        requests.push_back({{"time", isoTime(exchange.time)},
                            {"method", exchange.method},
                            {"path", maskTarget(exchange.target)},
                            {"status", exchange.status},
                            {"durationMs", exchange.durationMs}});
    }

    nlohmann::json faults = nlohmann::json::array();
    for (const auto& rule : core_.faults.rules()) {
        faults.push_back({{"method", rule.method},
                          {"pathPattern", rule.pathPattern},
                          {"status", rule.status},
                          {"delayMs", rule.delayMs},
                          {"drop", rule.drop},
                          {"times", rule.times},
                          {"bodyBytes", rule.body.size()}});
    }

    return {{"identity", std::move(identity)},
            {"mailboxes", mailboxPage(state.at("mailboxes"), page)},
            {"services", std::move(services)},
            {"notifications", std::move(notifications)},
            {"requests", std::move(requests)},
            {"faults", std::move(faults)},
            {"recordedRequests", state.at("recordedRequests")}};
}

}  // namespace qxpemu
