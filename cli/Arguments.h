// Arguments: one subcommand's command line, parsed against its CommandSyntax. Options may be
// written "--name value" or "--name=value"; "--" ends the options. Anything the syntax does not
// allow is a UsageError.
#pragma once

#include "CommandSyntax.h"

#include <map>
#include <string>
#include <vector>

namespace tolva {

class Arguments {
  public:
    // Parses `args` (the words after the subcommand's name). Throws UsageError for an
    // unknown option, a missing value, a repeated option that is not repeatable, or a count
    // of positional arguments outside the syntax's range. "--help" is accepted anywhere and
    // skips the positional count check.
    static Arguments parse(const CommandSyntax& syntax, const std::vector<std::string>& args);

    bool has(const std::string& name) const;
    // The option's (last) value, or `fallback` when it was not given.
    std::string value(const std::string& name, const std::string& fallback = "") const;
    // Every value of a repeatable option, in command-line order.
    std::vector<std::string> values(const std::string& name) const;
    // The option's value as a whole number in [low, high]; `fallback` when it was not given.
    // Throws UsageError naming the option for anything else.
    long long number(const std::string& name, long long fallback, long long low,
                     long long high) const;
    const std::vector<std::string>& positional() const { return positional_; }

  private:
    std::map<std::string, std::vector<std::string>> options_;
    std::vector<std::string> positional_;
};

// Parses `text` as a whole number in [low, high]; throws UsageError mentioning `what`.
long long parseNumber(const std::string& what, const std::string& text, long long low,
                      long long high);

}  // namespace tolva
