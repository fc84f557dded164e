// BearerText: the "Authorization" header value of an API object's current token, "Bearer "
// followed by the token in UTF-8. Shared, under a lock of its own, between the API object and
// the bearer stage of the HTTP clients made for it, which hold it weakly.
#pragma once

#include <mutex>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

struct BearerText {
    static constexpr const char* kPrefix = "Bearer ";

    std::string get() const {
        std::lock_guard<std::mutex> lock(mutex);
        return text;
    }
    void set(const std::string& token) {
        std::lock_guard<std::mutex> lock(mutex);
        text = kPrefix + token;
    }
    // Whether a header value carries no token ("Bearer " and nothing after it).
    static bool isEmpty(const std::string& header) { return header.size() <= 7; }

    mutable std::mutex mutex;
    std::string text = kPrefix;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
