// PublicKeyCache: the public keys of the X.509 certificates that token verification has
// parsed, keyed by the certificate's Base64 text as the key set carries it. Parsing a
// certificate costs several times a signature check, and a host verifies many tokens against
// the same few certificates. Bounded: beyond its capacity the oldest entry goes. Only keys
// that were extracted successfully are kept. Thread-safe; lookups take a shared lock only.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace Varkel {
namespace Tolva {

class PublicKeyCache {
  public:
    static constexpr std::size_t kCapacity = 64;

    // The process-wide cache.
    static PublicKeyCache& instance();

    // The key of that certificate text, or null when it is not cached.
    std::shared_ptr<EVP_PKEY> find(const std::string& certificateText) const;

    // Keeps the key of that certificate text (a text already there keeps its first key).
    void insert(const std::string& certificateText, std::shared_ptr<EVP_PKEY> key);

  private:
    mutable std::shared_mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<EVP_PKEY>> keys_;
    std::deque<std::string> insertionOrder_;
};

}  // namespace Tolva
}  // namespace Varkel
