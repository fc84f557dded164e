// The fault rules in force, matched against incoming platform requests.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <qxpemu/FaultRule.h>

namespace qxpemu {

class FaultTable {
  public:
    FaultTable();
    ~FaultTable();
    FaultTable(const FaultTable&) = delete;
    FaultTable& operator=(const FaultTable&) = delete;

    // Throws std::invalid_argument for a bad pattern or use count.
    void add(const FaultRule& rule);
    void clear();
    // The first rule matching method and path with uses left, one use consumed.
    std::optional<FaultRule> take(const std::string& method, const std::string& path);
    // The rules with their remaining uses.
    std::vector<FaultRule> rules() const;

  private:
    struct Entry;  // the rule with its compiled pattern; <regex> stays in the source file
    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<Entry>> entries_;
};

}  // namespace qxpemu
