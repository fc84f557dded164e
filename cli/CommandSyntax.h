// CommandSyntax: what one subcommand of the tool accepts (its options and how many positional
// arguments), and the help text printed for it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tolva {

struct OptionSyntax {
    // Long name without the dashes ("url" for --url).
    std::string name;
    // Name of the value in the help text ("URL"); empty for a flag that takes no value.
    std::string valueName;
    std::string help;
    // May be given more than once (every value is kept).
    bool repeatable = false;
    // One-letter alias ('v' for -v); 0 for none.
    char shortName = 0;
};

struct CommandSyntax {
    std::string name;
    // The positional part of the synopsis ("TOPIC CONTENT").
    std::string synopsis;
    std::string summary;
    // Longer explanation printed under the synopsis by --help.
    std::string description;
    std::vector<OptionSyntax> options;
    std::size_t minPositional = 0;
    std::size_t maxPositional = 0;
    // Whether the platform connection options apply (--url, --credentials, ...).
    bool connects = true;

    // The help text: synopsis, description and every option (the common ones included).
    std::string helpText() const;
    // The options a command accepts: its own, then the common ones.
    std::vector<OptionSyntax> allOptions() const;
};

}  // namespace tolva
