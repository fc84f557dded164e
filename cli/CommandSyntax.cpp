#include "CommandSyntax.h"

#include <sstream>

namespace tolva {

namespace {

std::vector<OptionSyntax> commonOptions(bool connects) {
    std::vector<OptionSyntax> options;
    if (connects) {
        options.push_back({"url", "URL", "platform URL (default: \"url\" of QX_PLATFORM_CONFIG)"});
        options.push_back({"credentials", "KEY",
                           "API key (default: \"logging\".\"credentials\" of QX_PLATFORM_CONFIG)"});
        options.push_back({"credentials-file", "FILE",
                           "read the API key from FILE (its first line), so that it need not "
                           "sit on a command line"});
        options.push_back({"ca-file", "FILE",
                           "also trust the CA certificates in FILE (PEM) for HTTPS, besides the "
                           "system's (default: TOLVA_CA_FILE)"});
    }
    options.push_back({"json", "", "print JSON for scripts instead of text"});
    options.push_back(
        {"verbose", "", "log the library's debug lines on standard error", false, 'v'});
    options.push_back({"help", "", "show this help", false, 'h'});
    return options;
}

}  // namespace

std::vector<OptionSyntax> CommandSyntax::allOptions() const {
    std::vector<OptionSyntax> all = options;
    for (auto& option : commonOptions(connects)) {
        all.push_back(std::move(option));
    }
    return all;
}

std::string CommandSyntax::helpText() const {
    std::ostringstream out;
    out << "Usage: tolva " << name << (synopsis.empty() ? "" : " " + synopsis) << " [options]\n\n"
        << summary << "\n";
    if (!description.empty()) {
        out << "\n" << description << "\n";
    }
    out << "\nOptions:\n";
    for (const auto& option : allOptions()) {
        std::string left = "  ";
        left += option.shortName ? std::string("-") + option.shortName + ", " : "    ";
        left += "--" + option.name;
        if (!option.valueName.empty()) {
            left += " " + option.valueName;
        }
        if (option.repeatable) {
            left += " ...";
        }
        out << left;
        if (left.size() < 28) {
            out << std::string(28 - left.size(), ' ');
        } else {
            out << "\n" << std::string(28, ' ');
        }
        out << option.help << "\n";
    }
    return out.str();
}

}  // namespace tolva
