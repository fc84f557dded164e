#include <qxpemu/Emulator.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <unistd.h>

#include "ControlApi.h"
#include "EmulatorCore.h"
#include "HttpServer.h"
#include "JsonBody.h"
#include "TlsCertificates.h"

namespace qxpemu {

class Emulator::Impl {
  public:
    explicit Impl(EmulatorOptions options) : core(std::move(options)) {
        const EmulatorOptions& made = core.options;
        if (!made.stateFile.empty()) {
            loadStateFile();
        }
        if (!made.tls) {
            return;
        }
        if (made.tlsCertFile.empty() != made.tlsKeyFile.empty()) {
            throw std::runtime_error(
                "give both a TLS certificate file and its key file, or neither");
        }
        if (!made.tlsCertFile.empty()) {
            certificates = TlsCertificates::fromFiles(made.tlsCertFile, made.tlsKeyFile);
        } else {
            certificates = TlsCertificates::makeSigned(made.tlsNames);
            writeCaFile(made.caCertFile);
        }
        tlsContext = certificates.serverContext();
    }

    ~Impl() {
        if (removeCaFile) {
            std::error_code ignored;
            std::filesystem::remove(caFile, ignored);
        }
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void writeCaFile(const std::string& requested) {
        static std::atomic<unsigned> made{0};
        if (requested.empty()) {
            std::error_code error;
            const auto folder = std::filesystem::temp_directory_path(error);
            caFile = ((error ? std::filesystem::path("/tmp") : folder) /
                      ("qxp-emulator-ca-" + std::to_string(::getpid()) + "-" +
                       std::to_string(++made) + ".pem"))
                         .string();
            removeCaFile = true;
        } else {
            caFile = requested;
        }
        std::ofstream out(caFile, std::ios::binary | std::ios::trunc);
        if (!(out << certificates.caPem) || !out.flush()) {
            removeCaFile = false;
            throw std::runtime_error("cannot write the CA certificate to " + caFile);
        }
    }

    void loadStateFile() {
        const std::string& path = core.options.stateFile;
        std::error_code error;
        if (!std::filesystem::exists(path, error)) {
            return;  // the first start: the file is written from now on
        }
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        try {
            core.restore(nlohmann::json::parse(text.str()));
        } catch (const std::exception& failure) {
            throw std::runtime_error("cannot read the state file " + path + ": " + failure.what());
        }
    }

    // Written to a file beside it and renamed over it, so that a process killed while it
    // writes leaves the previous complete state behind.
    void saveStateFile() {
        std::lock_guard<std::mutex> lock(saving);
        const std::string& path = core.options.stateFile;
        const std::string partial = path + ".partial";
        {
            std::ofstream out(partial, std::ios::binary | std::ios::trunc);
            if (!(out << toJsonText(core.snapshot())) || !out.flush()) {
                throw std::runtime_error("cannot write the state file " + partial);
            }
        }
        std::error_code error;
        std::filesystem::rename(partial, path, error);
        if (error) {
            throw std::runtime_error("cannot replace the state file " + path + ": " +
                                     error.message());
        }
    }

    void startSaver() {
        if (core.options.stateFile.empty()) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(saverMutex);
            saverStopping = false;
        }
        const auto interval = std::chrono::milliseconds(
            core.options.stateSaveIntervalMs > 0 ? core.options.stateSaveIntervalMs : 500);
        saver = std::thread([this, interval] {
            std::unique_lock<std::mutex> lock(saverMutex);
            while (!saverWakeUp.wait_for(lock, interval, [this] { return saverStopping; })) {
                lock.unlock();
                try {
                    saveStateFile();
                } catch (const std::exception& failure) {
                    std::fprintf(stderr, "qxp-emulator: %s\n", failure.what());
                }
                lock.lock();
            }
        });
    }

    // Ends the periodic saves and saves once more, so that a clean stop keeps everything.
    void stopSaver() {
        if (!saver.joinable()) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(saverMutex);
            saverStopping = true;
        }
        saverWakeUp.notify_all();
        saver.join();
        try {
            saveStateFile();
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "qxp-emulator: %s\n", failure.what());
        }
    }

    std::string scheme() const { return core.options.tls ? "https://" : "http://"; }

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
    // With TLS: what is served, and where the CA that signed it was written.
    TlsCertificates certificates;
    std::unique_ptr<boost::asio::ssl::context> tlsContext;
    std::string caFile;
    bool removeCaFile = false;
    std::unique_ptr<HttpServer> server;
    unsigned short boundPort = 0;
    // With a state file: the thread that saves it while the server runs.
    std::mutex saving;
    std::mutex saverMutex;
    std::condition_variable saverWakeUp;
    bool saverStopping = false;
    std::thread saver;
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
    auto server = std::make_unique<HttpServer>(impl_->core, impl_->tlsContext.get());
    // A restart keeps the port of the first start, so configured clients reconnect.
    const unsigned short port = impl_->boundPort != 0 ? impl_->boundPort : impl_->core.options.port;
    server->start(impl_->core.options.bindAddress, port, impl_->core.options.threads);
    impl_->boundPort = server->port();
    impl_->server = std::move(server);
    impl_->startSaver();
    impl_->core.identity.setIssuer(impl_->scheme() + impl_->hostForUrl() + ":" +
                                   std::to_string(impl_->boundPort) + "/identity");
}

void Emulator::stop() {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    if (impl_->server) {
        impl_->server->stop();
        impl_->server.reset();
    }
    impl_->stopSaver();
}

void Emulator::saveState() {
    if (impl_->core.options.stateFile.empty()) {
        throw std::logic_error("the emulator has no state file");
    }
    impl_->saveStateFile();
}

unsigned short Emulator::port() const {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    return impl_->boundPort;
}

std::string Emulator::baseUrl() const {
    return impl_->scheme() + impl_->hostForUrl() + ":" + std::to_string(port());
}

bool Emulator::tls() const {
    return impl_->core.options.tls;
}

std::string Emulator::caCertificateFile() const {
    return impl_->caFile;
}

std::string Emulator::caCertificatePem() const {
    return impl_->certificates.caPem;
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

void Emulator::setConnectionPolicy(const ConnectionPolicy& policy) {
    impl_->core.connections.setPolicy(policy);
}

ConnectionPolicy Emulator::connectionPolicy() const {
    return impl_->core.connections.policy();
}

ConnectionCounts Emulator::connectionCounts() const {
    return impl_->core.connections.counts();
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
