// The identity endpoints: the client-credentials token grant, the key set, and the bearer
// token check that guards every other platform endpoint.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <qxpemu/ClientCredentials.h>

#include "HttpExchange.h"
#include "KeyStore.h"

namespace qxpemu {

class IdentityService {
  public:
    IdentityService(KeyStore& keys, std::vector<ClientCredentials> clients, int lifetimeSeconds);

    // POST "/identity/connect/token".
    HttpReply tokenRequest(const IncomingRequest& request) const;
    // GET "/identity/.well-known/openid-configuration/jwks".
    HttpReply keySetRequest() const;

    // A token for a known client; throws std::invalid_argument for an unknown one.
    std::string issue(const std::string& clientId, const std::string& scope) const;

    // "" when the request carries a valid, unexpired bearer token signed by a key of the
    // set; otherwise the reason to send back with 401.
    std::string authorize(const IncomingRequest& request) const;

    void setLifetime(int seconds) { lifetimeSeconds_.store(seconds); }
    int lifetime() const { return lifetimeSeconds_.load(); }
    // Tokens issued so far (through the token endpoint, the control interface or issue()).
    std::uint64_t tokensIssued() const { return issued_.load(); }
    // "iss" of issued tokens; set once the listening address is known.
    void setIssuer(const std::string& issuer);

    const std::vector<ClientCredentials>& clients() const { return clients_; }

    // base64(clientId + ":" + secret).
    static std::string apiKeyOf(const ClientCredentials& client);

  private:
    const ClientCredentials* findClient(const std::string& clientId) const;
    std::string issuer() const;

    KeyStore& keys_;
    const std::vector<ClientCredentials> clients_;
    std::atomic<int> lifetimeSeconds_;
    mutable std::atomic<std::uint64_t> issued_{0};
    mutable std::mutex issuerMutex_;
    std::string issuer_ = "qxp-emulator";
};

}  // namespace qxpemu
