#include <qxpemu/Emulator.h>

#include <mutex>
#include <stdexcept>

#include "ControlApi.h"
#include "EmulatorCore.h"
#include "HttpServer.h"
#include "JsonBody.h"

namespace qxpemu {

class Emulator::Impl {
  public:
    explicit Impl(EmulatorOptions options) : core(std::move(options)) {}

    std::string hostForUrl() const {
        const std::string& address = core.options.bindAddress;
        // A wildcard address is not something to connect to; loopback reaches it.
        if (address == "0.0.0.0" || address.empty()) {
            return "127.0.0.1";
        }
        if (address == "::") {
            return "[::1]";
        }
        return address.find(':') != std::string::npos ? "[" + address + "]" : address;
    }

    EmulatorCore core;
    // Serialises start and stop with each other and with reset(), whose answers to parked
    // polls must reach a running server.
    mutable std::mutex lifecycle;
    std::unique_ptr<HttpServer> server;
    unsigned short boundPort = 0;
};

Emulator::Emulator(EmulatorOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Emulator::~Emulator() {
    stop();
}

void Emulator::start() {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    if (impl_->server) {
        throw std::runtime_error("the emulator is already running");
    }
    auto server = std::make_unique<HttpServer>(impl_->core);
    // A restart keeps the port of the first start, so configured clients reconnect.
    const unsigned short port = impl_->boundPort != 0 ? impl_->boundPort : impl_->core.options.port;
    server->start(impl_->core.options.bindAddress, port, impl_->core.options.threads);
    impl_->boundPort = server->port();
    impl_->server = std::move(server);
    impl_->core.identity.setIssuer("http://" + impl_->hostForUrl() + ":" +
                                   std::to_string(impl_->boundPort) + "/identity");
}

void Emulator::stop() {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    if (impl_->server) {
        impl_->server->stop();
        impl_->server.reset();
    }
}

unsigned short Emulator::port() const {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    return impl_->boundPort;
}

std::string Emulator::baseUrl() const {
    return "http://" + impl_->hostForUrl() + ":" + std::to_string(port());
}

std::string Emulator::apiKey() const {
    return IdentityService::apiKeyOf(impl_->core.options.clients.front());
}

std::string Emulator::platformConfig() const {
    return toJsonText(
        nlohmann::ordered_json{{"url", baseUrl()}, {"logging", {{"credentials", apiKey()}}}});
}

std::vector<RecordedRequest> Emulator::requests() const {
    return impl_->core.log.all();
}

std::vector<RecordedRequest> Emulator::waitForRequests(std::size_t count,
                                                       std::chrono::milliseconds timeout) const {
    return impl_->core.log.waitFor(count, timeout);
}

void Emulator::clearRequests() {
    impl_->core.log.clear();
}

void Emulator::addFault(const FaultRule& rule) {
    impl_->core.faults.add(rule);
}

void Emulator::clearFaults() {
    impl_->core.faults.clear();
}

void Emulator::setTokenLifetime(int seconds) {
    impl_->core.identity.setLifetime(seconds);
}

void Emulator::rotateKey() {
    impl_->core.keys.rotate();
}

void Emulator::reset() {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    impl_->core.reset();
}

std::string Emulator::issueToken(const std::string& clientId) const {
    return impl_->core.identity.issue(clientId, "platform cluster");
}

std::string Emulator::keySet() const {
    return toJsonText(impl_->core.keys.keySet());
}

std::string Emulator::state() const {
    return toJsonText(impl_->core.state());
}

}  // namespace qxpemu
