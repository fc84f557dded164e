// UsageError: a command line the tool cannot act on (an unknown option, a missing or malformed
// argument, an unreadable input file). The tool prints its text and exits with status 2.
#pragma once

#include <stdexcept>
#include <string>

namespace tolva {

class UsageError : public std::runtime_error {
  public:
    explicit UsageError(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace tolva
