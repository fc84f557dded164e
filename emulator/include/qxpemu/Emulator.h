// An in-process QX Platform emulator: identity (RS256 tokens and key set), notifications
// with mailboxes and long polling, and service discovery with heartbeat health, served over
// HTTP on a local port, plus a control interface under "/_emulator/".
//
// Typical use in a test:
//
//     qxpemu::Emulator emulator;           // default client, random port
//     emulator.start();
//     auto api = makeApi(emulator.baseUrl(), emulator.apiKey());
//     ...
//     auto seen = emulator.requests();
//
// Every member may be called from any thread, also while the server runs. The server itself
// runs on its own threads (EmulatorOptions::threads), never on the caller's.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <qxpemu/ClientCredentials.h>
#include <qxpemu/ConnectionCounts.h>
#include <qxpemu/ConnectionPolicy.h>
#include <qxpemu/EmulatorOptions.h>
#include <qxpemu/FaultRule.h>
#include <qxpemu/RecordedRequest.h>

namespace qxpemu {

class Emulator {
  public:
    // Prepares an emulator: makes the signing key (generated, or loaded from
    // options.signingKeyPemFile) and the default client when none is given, and with
    // options.tls its TLS certificate (generated with its CA, or loaded), and reads
    // options.stateFile when that file exists. Does not listen yet. Throws
    // std::runtime_error when a key, certificate or state file cannot be made or loaded, or
    // the CA certificate cannot be written.
    explicit Emulator(EmulatorOptions options = {});

    // Stops the server (see stop()).
    ~Emulator();

    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    // Binds, listens and starts the I/O threads; returns once the port accepts connections.
    // Throws std::runtime_error when the address cannot be bound or the server is running.
    void start();

    // Closes the listener and every connection, answers nothing more, and joins the I/O
    // threads. Pending long polls are cut off without an answer. Platform state (mailboxes,
    // services, records) is kept, so start() may be called again; with a state file it is
    // also saved (a failure to write it is printed on standard error). Idempotent; never
    // throws.
    void stop();

    // Writes the state file now (see EmulatorOptions::stateFile); the server need not run.
    // Throws std::logic_error without a state file, std::runtime_error when it cannot be
    // written.
    void saveState();

    // The bound port (the chosen one when options.port was 0); 0 before the first start().
    unsigned short port() const;

    // "http://" (or "https://" with EmulatorOptions::tls) + bind address + ":" + port(),
    // without a trailing slash.
    std::string baseUrl() const;

    // base64(clientId + ":" + secret) of the first client: the API key a client library is
    // configured with (sent verbatim after "Basic ").
    std::string apiKey() const;

    // Whether the emulator serves HTTPS.
    bool tls() const;

    // The file holding the CA certificate that signed the served certificate (PEM), for a
    // client to trust; empty without TLS or when the certificate was brought by the user.
    std::string caCertificateFile() const;

    // The same CA certificate as PEM text; empty when caCertificateFile() is.
    std::string caCertificatePem() const;

    // A ready-to-use configuration document:
    // {"url": baseUrl(), "logging": {"credentials": apiKey()}}.
    std::string platformConfig() const;

    // Copy of the recorded platform requests, oldest first (control requests excluded).
    std::vector<RecordedRequest> requests() const;

    // Blocks until at least `count` requests are recorded or `timeout` passes; returns the
    // records as they stand then (check the size). For awaiting asynchronous traffic.
    std::vector<RecordedRequest> waitForRequests(std::size_t count,
                                                 std::chrono::milliseconds timeout) const;

    // Forgets every recorded request.
    void clearRequests();

    // Appends a fault rule (see FaultRule for how rules apply). Throws
    // std::invalid_argument when pathPattern is not a valid ECMAScript regex, times is 0 or
    // below -1, status is neither 0 nor 200..999, or delayMs, trickleChunkBytes or
    // trickleIntervalMs is negative.
    void addFault(const FaultRule& rule);

    // Removes every fault rule.
    void clearFaults();

    // Replaces the connection policy (see ConnectionPolicy); connections already waiting for a
    // request keep their idle deadline. Throws std::invalid_argument for a negative value.
    void setConnectionPolicy(const ConnectionPolicy& policy);
    ConnectionPolicy connectionPolicy() const;

    // Connections accepted, open, and closed for idleness or after their request limit.
    ConnectionCounts connectionCounts() const;

    // Lifetime of tokens issued from now on (see EmulatorOptions::tokenLifetimeSeconds).
    void setTokenLifetime(int seconds);

    // Generates a new signing key, signs new tokens with it and keeps the previous keys in
    // the key set, so tokens already issued stay valid.
    void rotateKey();

    // Back to a fresh state: no mailboxes, services, records or fault rules; token lifetime
    // and connection policy as in the options; connection counts zero (but `open`); retired
    // keys dropped (the current signing key stays).
    void reset();

    // A valid access token for a known client, signed with the current key, exactly as the
    // token endpoint would issue it. Throws std::invalid_argument for an unknown client.
    std::string issueToken(const std::string& clientId) const;

    // The served key set document (GET "/identity/.well-known/openid-configuration/jwks").
    std::string keySet() const;

    // The control interface's state document (GET "/_emulator/state"): mailboxes with
    // subscriptions and queue depths, services with heartbeat ages and health, keys, and the
    // connection policy with the connection counts.
    std::string state() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qxpemu
