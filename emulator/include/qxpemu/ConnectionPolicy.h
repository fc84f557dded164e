// How the emulator treats kept-alive connections, like the reverse proxy or load balancer in
// front of a production platform. Everything is off by default.
#pragma once

namespace qxpemu {

// Set at construction (EmulatorOptions::connections), changed at run time with
// Emulator::setConnectionPolicy or POST "/_emulator/connections". Applies to every HTTP
// connection of the port (platform, control interface and dashboard alike), plain and TLS.
struct ConnectionPolicy {
    // Close a connection that has waited this long for its next request (or for its first one
    // after the TLS handshake), as nginx's keepalive_timeout does: a plain close of the socket
    // (a FIN; over TLS without close_notify), no answer. 0 keeps idle connections for 300 s.
    // A change applies from a connection's next wait for a request.
    int idleCloseMs = 0;
    // Close a connection once it has served this many requests, as nginx's
    // keepalive_requests does: the last answer is sent whole, then the connection is closed.
    // 0 serves any number.
    int maxRequestsPerConnection = 0;
    // Whether that last answer says "Connection: close" (nginx does). With false it looks like
    // any kept-alive answer and the close follows it unannounced, so the client learns of it
    // only when it reuses the connection, as after a proxy reload.
    bool announceClose = true;
};

}  // namespace qxpemu
