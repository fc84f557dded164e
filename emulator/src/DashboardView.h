// What the dashboard shows, as one JSON document: identity, a page of mailboxes with totals,
// services, the last notifications and requests, and the fault rules. Nothing secret goes
// in: no mailbox or service secret, token, credential or API key; request paths that carry
// a secret show "***" in its place, and fault rule bodies (which may hold a canned token)
// show only their length.
#pragma once

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

#include "EmulatorCore.h"

namespace qxpemu {

class DashboardView {
  public:
    static constexpr std::size_t kPageSize = 100;

    explicit DashboardView(const EmulatorCore& core) : core_(core) {}

    // The document for mailbox page `page` (0-based; a page past the end is empty).
    nlohmann::json document(std::size_t page) const;

    // `target` with the secrets a platform path may carry replaced by "***": the mailbox
    // secret of ".../mailbox/<secret>" and the service secret of
    // ".../service/<id>/<secret>[/health]". The query is dropped.
    static std::string maskTarget(const std::string& target);

  private:
    const EmulatorCore& core_;
};

}  // namespace qxpemu
