// Settings of one emulator instance, with their defaults.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <qxpemu/ClientCredentials.h>
#include <qxpemu/ConnectionPolicy.h>

namespace qxpemu {

struct EmulatorOptions {
    // Address to listen on; loopback unless asked otherwise.
    std::string bindAddress = "127.0.0.1";
    // TCP port; 0 lets the system choose (read it back with Emulator::port()).
    unsigned short port = 0;
    // Lifetime of issued access tokens ("expires_in"). A value <= 0 issues tokens that are
    // already expired, which lets tests exercise expiry without waiting.
    int tokenLifetimeSeconds = 3600;
    // Longest long-poll wait; a poll asking "?timeout=N" waits min(N, maxPollSeconds).
    int maxPollSeconds = 30;
    // Threads running the I/O loop (0 is taken as 1). Connections are served
    // asynchronously; this is not a thread per connection.
    unsigned threads = 1;
    // Known clients; empty -> one default client whose API key is longer than 100
    // characters (the facade's rule).
    std::vector<ClientCredentials> clients;

    // --- Additional settings ---
    // PEM file holding the RSA private key to sign with; "" generates a fresh key.
    std::string signingKeyPemFile;
    // Size of generated RSA keys.
    int rsaKeyBits = 2048;
    // Expected heartbeat period of registered services. A service is "passing" while its
    // last heartbeat (or its registration) is at most missedHeartbeatsForCritical periods
    // old, "critical" afterwards.
    int heartbeatIntervalMs = 5000;
    int missedHeartbeatsForCritical = 3;
    // Largest accepted request body; larger ones get 413.
    std::size_t maxBodyBytes = 1024 * 1024;
    // Notifications kept per mailbox; when full the oldest undelivered one is dropped.
    std::size_t maxQueuedPerMailbox = 10000;
    // Recorded requests kept; when full the oldest record is dropped.
    std::size_t maxRecordedRequests = 100000;

    // --- Connections ---
    // Idle close and a request limit per connection, as a reverse proxy in front of the
    // platform has them (see ConnectionPolicy); off by default. Emulator::reset() goes back
    // to these.
    ConnectionPolicy connections;

    // --- HTTPS ---
    // Serve HTTPS (TLS 1.2 or later) instead of HTTP on the port: platform, control
    // interface and dashboard alike. Unless tlsCertFile and tlsKeyFile are given, the
    // emulator makes a CA when it is constructed and a certificate signed by it for
    // "localhost", 127.0.0.1 and ::1, and writes the CA certificate to caCertFile.
    bool tls = false;
    // A PEM certificate chain (server certificate first) and its PEM private key to serve
    // instead of the generated ones; give both or neither.
    std::string tlsCertFile;
    std::string tlsKeyFile;
    // Where the generated CA certificate (PEM) is written; "" picks a new file in the
    // temporary directory, removed again when the emulator is destroyed.
    std::string caCertFile;
    // The names the generated certificate is valid for: host names, IPv4 and IPv6 addresses.
    std::vector<std::string> tlsNames = {"localhost", "127.0.0.1", "::1"};

    // --- State file ---
    // A JSON file that keeps the platform state (mailboxes with their secrets, subscriptions
    // and queued mail; services with their records and secrets) across restarts of the
    // process: read when the emulator is constructed (when the file exists), written every
    // stateSaveIntervalMs while the server runs and once more by stop(). "" keeps the state
    // in memory only. Tokens, keys (see signingKeyPemFile), fault rules and the request
    // record are not part of it. A process killed without warning loses what changed since
    // the last save.
    std::string stateFile;
    int stateSaveIntervalMs = 500;
};

}  // namespace qxpemu
