#include "PublicKeyCache.h"

#include <mutex>
#include <utility>

namespace Varkel {
namespace Tolva {

PublicKeyCache& PublicKeyCache::instance() {
    // Never destroyed: verification may run on threads that outlive static destruction.
    static PublicKeyCache* const cache = new PublicKeyCache();
    return *cache;
}

std::shared_ptr<EVP_PKEY> PublicKeyCache::find(const std::string& certificateText) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    const auto entry = keys_.find(certificateText);
    return entry == keys_.end() ? nullptr : entry->second;
}

void PublicKeyCache::insert(const std::string& certificateText, std::shared_ptr<EVP_PKEY> key) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    if (!keys_.emplace(certificateText, std::move(key)).second) {
        return;
    }
    insertionOrder_.push_back(certificateText);
    if (insertionOrder_.size() > kCapacity) {
        keys_.erase(insertionOrder_.front());
        insertionOrder_.pop_front();
    }
}

}  // namespace Tolva
}  // namespace Varkel
