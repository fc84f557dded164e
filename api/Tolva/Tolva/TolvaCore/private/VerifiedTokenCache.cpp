#include "VerifiedTokenCache.h"

#include <cstring>
#include <new>
#include <utility>

#include <openssl/evp.h>

namespace Varkel {
namespace Tolva {

namespace {

// Fetched once: looking the digest up by name on every call costs as much as digesting a token.
const EVP_MD* sha256() {
    // Never freed: digests may run on threads that outlive static destruction.
    static const EVP_MD* const digest = [] {
        const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
        return fetched != nullptr ? fetched : EVP_sha256();
    }();
    return digest;
}

}  // namespace

VerifiedTokenCache::VerifiedTokenCache(std::size_t capacity) : capacity_(capacity) {}

VerifiedTokenCache::Digest VerifiedTokenCache::digestOf(const std::string& tokenText) {
    Digest digest{};
    unsigned int size = 0;
    if (EVP_Digest(tokenText.data(), tokenText.size(), digest.data(), &size, sha256(), nullptr) !=
            1 ||
        size != digest.size()) {
        throw std::bad_alloc();
    }
    return digest;
}

std::size_t VerifiedTokenCache::DigestHash::operator()(const Digest& digest) const noexcept {
    // The digest is uniformly distributed already: any of its bytes make a hash.
    std::size_t hash = 0;
    std::memcpy(&hash, digest.data(), sizeof hash);
    return hash;
}

std::shared_ptr<const VerifiedTokenCache::Context> VerifiedTokenCache::contextFor(
    const web::json::value& keySet, JwtProfile profile, const std::string& expectedIssuer,
    const std::string& expectedAudience, Indexer indexer) {
    std::shared_ptr<const Context> current;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        current = context_;
    }
    // The comparison walks the whole key set; outside the lock, other threads go on meanwhile.
    if (current && current->isFor(keySet, profile, expectedIssuer, expectedAudience)) {
        return current;
    }
    auto fresh = std::make_shared<Context>();
    fresh->keySet = keySet;
    fresh->profile = profile;
    fresh->expectedIssuer = expectedIssuer;
    fresh->expectedAudience = expectedAudience;
    indexer(*fresh);
    std::lock_guard<std::mutex> lock(mutex_);
    // Another thread may have made this very context meanwhile; keep its entries.
    if (context_ && context_ != current &&
        context_->isFor(keySet, profile, expectedIssuer, expectedAudience)) {
        return context_;
    }
    fresh->generation = ++lastGeneration_;
    context_ = std::move(fresh);
    entries_.clear();
    recency_.clear();
    return context_;
}

bool VerifiedTokenCache::find(const Digest& digest, Generation generation, Entry& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!context_ || context_->generation != generation) {
        return false;
    }
    const auto found = entries_.find(digest);
    if (found == entries_.end()) {
        return false;
    }
    recency_.splice(recency_.begin(), recency_, found->second.use);
    entry = found->second.entry;
    return true;
}

void VerifiedTokenCache::insert(const Digest& digest, Generation generation, Entry entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!context_ || context_->generation != generation || capacity_ == 0) {
        return;
    }
    const auto found = entries_.find(digest);
    if (found != entries_.end()) {
        found->second.entry = std::move(entry);
        recency_.splice(recency_.begin(), recency_, found->second.use);
        return;
    }
    if (entries_.size() >= capacity_) {
        entries_.erase(recency_.back());
        recency_.pop_back();
    }
    recency_.push_front(digest);
    try {
        entries_.emplace(digest, Slot{std::move(entry), recency_.begin()});
    } catch (...) {
        recency_.pop_front();
        throw;
    }
}

std::size_t VerifiedTokenCache::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

}  // namespace Tolva
}  // namespace Varkel
