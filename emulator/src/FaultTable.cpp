#include "FaultTable.h"

// GCC's maybe-uninitialized analysis reports a false positive inside libstdc++'s <regex>
// (in std::function members of its automaton) when building with the sanitizers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <regex>
#include <stdexcept>

namespace qxpemu {

struct FaultTable::Entry {
    FaultRule rule;
    std::regex pattern;
};

FaultTable::FaultTable() = default;
FaultTable::~FaultTable() = default;

void FaultTable::add(const FaultRule& rule) {
    if (rule.times == 0 || rule.times < -1) {
        throw std::invalid_argument("fault rule: times must be -1 or at least 1");
    }
    if (rule.status != 0 && (rule.status < 200 || rule.status > 999)) {
        throw std::invalid_argument("fault rule: status must be 0 or 200..999");
    }
    if (rule.delayMs < 0) {
        throw std::invalid_argument("fault rule: delayMs must not be negative");
    }
    if (rule.trickleChunkBytes < 0 || rule.trickleIntervalMs < 0) {
        throw std::invalid_argument(
            "fault rule: trickleChunkBytes and trickleIntervalMs must not be negative");
    }
    auto entry = std::make_unique<Entry>();
    entry->rule = rule;
    try {
        entry->pattern = std::regex(rule.pathPattern, std::regex::ECMAScript);
    } catch (const std::regex_error& error) {
        throw std::invalid_argument("fault rule: bad pathPattern: " + std::string(error.what()));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(std::move(entry));
}

void FaultTable::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

std::optional<FaultRule> FaultTable::take(const std::string& method, const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        Entry& entry = **it;
        if (!entry.rule.method.empty() && entry.rule.method != method) {
            continue;
        }
        if (!std::regex_match(path, entry.pattern)) {
            continue;
        }
        FaultRule applied = entry.rule;
        if (entry.rule.times > 0 && --entry.rule.times == 0) {
            entries_.erase(it);
        }
        return applied;
    }
    return std::nullopt;
}

std::vector<FaultRule> FaultTable::rules() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<FaultRule> out;
    for (const auto& entry : entries_) {
        out.push_back(entry->rule);
    }
    return out;
}

}  // namespace qxpemu
