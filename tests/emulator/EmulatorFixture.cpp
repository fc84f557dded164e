#include "EmulatorFixture.h"

#include <thread>

namespace EmulatorTest {

qxpemu::EmulatorOptions EmulatorFixture::defaultOptions() {
    qxpemu::EmulatorOptions options;
    options.maxPollSeconds = 5;
    return options;
}

void EmulatorFixture::SetUp() {
    restart(defaultOptions());
}

void EmulatorFixture::TearDown() {
    client.reset();
    emulator.reset();
}

void EmulatorFixture::restart(qxpemu::EmulatorOptions options) {
    client.reset();
    emulator.reset();
    emulator = std::make_unique<qxpemu::Emulator>(std::move(options));
    emulator->start();
    client = std::make_unique<HttpTestClient>(emulator->port());
    const auto clients = nlohmann::json::parse(emulator->state())["clients"];
    token = emulator->issueToken(clients[0]["clientId"].get<std::string>());
}

HttpResponse EmulatorFixture::call(const std::string& method, const std::string& target,
                                   const std::string& body, bool authorized, HeaderList headers) {
    if (authorized) {
        headers.emplace(headers.begin(), "Authorization", "Bearer " + token);
    }
    return client->request(method, target, body, headers);
}

nlohmann::json EmulatorFixture::state() {
    return nlohmann::json::parse(emulator->state());
}

bool EmulatorFixture::eventually(const std::function<bool()>& condition,
                                 std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

HttpResponse EmulatorFixture::createMailbox(const std::string& id, const std::string& subscription,
                                            int ttl) {
    nlohmann::json body = {{"id", id}, {"subscription", subscription}, {"durable", true}};
    if (ttl != 0) {
        body["mailboxTTL"] = ttl;
    }
    return call("POST", "/notifications/api/v1/mailbox", body.dump(), true,
                {{"Content-Type", "application/json"}});
}

HttpResponse EmulatorFixture::publish(const std::string& topic, const std::string& content,
                                      int ttl) {
    static int counter = 0;
    nlohmann::json body = {{"id", "note-" + std::to_string(++counter)},
                           {"time", "2026-11-21T06:00:00.000Z"},
                           {"topic", topic},
                           {"content", content},
                           {"source", "Tolva"}};
    if (ttl != 0) {
        body["ttl"] = ttl;
    }
    return call("POST", "/notifications/api/v1/notifications", body.dump(), true,
                {{"Content-Type", "application/json"}});
}

HttpResponse EmulatorFixture::poll(const std::string& id, int timeoutSeconds) {
    return call("GET", "/notifications/api/v1/notifications/" + id +
                           "?timeout=" + std::to_string(timeoutSeconds));
}

nlohmann::json EmulatorFixture::serviceRecord(const std::string& id) {
    return {{"serviceId", id},
            {"serviceType", "renderer"},
            {"serviceInstance", "renderer-1"},
            {"serviceAddress", "10.0.0.5"},
            {"reverseProxyPathRule", "/renderer"},
            {"servicePort", 8443},
            {"serviceTags", {"gpu", "eu"}},
            {"serviceHealth", {{"health", "OK"}, {"healthText", "Service is healthy"}}}};
}

}  // namespace EmulatorTest
