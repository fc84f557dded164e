// The identity service's RSA keys: the current signing key and the retired ones that stay
// in the published key set. Signs and verifies RS256 JWTs.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qxpemu {

class KeyStore {
  public:
    // Makes the first signing key: loaded from `pemFile` when not empty, else generated.
    // Throws std::runtime_error when that fails.
    KeyStore(const std::string& pemFile, int rsaBits);
    ~KeyStore();

    // Generates a new signing key; the previous ones stay in the set.
    void rotate();
    // Drops every key but the current signing key.
    void dropRetired();

    // Returns `payload` as a compact JWS "header.payload.signature", signed RS256 with the
    // current key (the header gets "alg", "typ" and "kid").
    std::string sign(nlohmann::json payload) const;

    // The key set document: {"keys": [...]} with the current key last.
    nlohmann::json keySet() const;

    // Ids of every key, the current one last.
    std::vector<std::string> keyIds() const;
    std::string currentKeyId() const;

    // Checks a compact JWS against the keys. On success returns "" and fills `claims`;
    // otherwise returns a short reason ("malformed token", "unknown signing key", ...).
    // Expiry is not checked here.
    std::string verify(const std::string& token, nlohmann::json& claims) const;

  private:
    struct Key;
    std::shared_ptr<const Key> currentKey() const;
    std::shared_ptr<const Key> findKey(const std::string& kid) const;

    const int rsaBits_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<const Key>> keys_;  // current key last
};

}  // namespace qxpemu
