// VerifiedTokenCache: the tokens a JWTUtils has verified, so that a token verified again (a
// service checks the same bearer token on every request) costs a digest and a lookup instead
// of parsing, a key lookup and a signature check.
//
// Entries are keyed by the SHA-256 digest of the token's whole text, so a token that differs
// in any byte is another entry. Each keeps the token's claims and its "exp"; the caller checks
// the expiry against its own time on every hit, so an entry never outlives its token.
//
// All entries were verified under one key set and one set of rules (profile, expected issuer
// and audience): the cache's context. A verification under anything else (a rotated key set,
// a changed setting) makes a new context, which drops every entry, so a token is only ever
// served from the cache against the very key set and rules it verified under.
//
// Bounded to kCapacity entries; beyond that the least recently used goes. Only successful
// verifications are kept. Thread-safe: a short lock around the table; the key set
// comparison runs outside it.
#pragma once

#include <TolvaCore/JwtProfile.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {

class VerifiedTokenCache {
  public:
    // Enough for the bearer tokens of every client a service sees at once; with the claims of
    // a typical token (under 1 KB) the full cache stays around a megabyte.
    static constexpr std::size_t kCapacity = 1024;

    using Digest = std::array<unsigned char, 32>;

    // What a verified token leaves behind.
    struct Entry {
        std::shared_ptr<const web::json::value> claims;
        // The "exp" claim, as verification reads it.
        std::int64_t expiry = 0;
        // Whether the claim checks of the access-token profile apply (they depend on the time).
        bool accessTokenClaims = false;
    };

    // The key set and rules a verification runs under, with the key set's signing keys by
    // "kid". Never changed once made; a verification holds it while it uses its keys.
    struct Context {
        web::json::value keySet;
        JwtProfile profile = JwtProfile::Platform;
        std::string expectedIssuer;
        std::string expectedAudience;
        // Identifies the entries made in this context.
        std::uint64_t generation = 0;
        // The signing key of each "kid", pointing into keySet; set by the indexer when every
        // signing key's "kid" is ASCII (the keys that are not are compared after widening).
        std::unordered_map<std::string, const web::json::value*> signingKeys;
        bool signingKeysIndexed = false;

        bool isFor(const web::json::value& otherKeySet, JwtProfile otherProfile,
                   const std::string& otherIssuer, const std::string& otherAudience) const {
            // The key set last: the settings are cheaper to compare.
            return profile == otherProfile && expectedIssuer == otherIssuer &&
                   expectedAudience == otherAudience && keySet == otherKeySet;
        }
    };
    using Generation = std::uint64_t;
    // Fills a new context's signing keys.
    using Indexer = void (*)(Context& context);

    explicit VerifiedTokenCache(std::size_t capacity = kCapacity);

    // SHA-256 of the token text. Throws std::bad_alloc when libcrypto cannot digest.
    static Digest digestOf(const std::string& tokenText);

    // The context of this key set and these rules: the current one when they equal its own,
    // else a new one, which drops every entry. Throws std::bad_alloc.
    std::shared_ptr<const Context> contextFor(const web::json::value& keySet, JwtProfile profile,
                                              const std::string& expectedIssuer,
                                              const std::string& expectedAudience, Indexer indexer);

    // The entry of that digest made in that context; false when there is none (the context has
    // been replaced since, or the token was never verified in it, or it was evicted).
    bool find(const Digest& digest, Generation generation, Entry& entry);

    // Keeps a successful verification made in that context; nothing when the context has been
    // replaced since. Throws std::bad_alloc.
    void insert(const Digest& digest, Generation generation, Entry entry);

    // Entries held now. Any thread.
    std::size_t size() const;

  private:
    struct DigestHash {
        std::size_t operator()(const Digest& digest) const noexcept;
    };
    struct Slot {
        Entry entry;
        std::list<Digest>::iterator use;
    };

    const std::size_t capacity_;
    mutable std::mutex mutex_;
    // Replaced, never changed: a verification compares its key set with a context it holds
    // outside the lock.
    std::shared_ptr<const Context> context_;
    Generation lastGeneration_ = 0;
    std::unordered_map<Digest, Slot, DigestHash> entries_;
    // Most recently used first.
    std::list<Digest> recency_;
};

}  // namespace Tolva
}  // namespace Varkel
