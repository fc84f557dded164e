#include "Arguments.h"

#include "UsageError.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tolva {

namespace {

const OptionSyntax* findOption(const std::vector<OptionSyntax>& options, const std::string& name) {
    const auto it =
        std::find_if(options.begin(), options.end(),
                     [&name](const OptionSyntax& option) { return option.name == name; });
    return it == options.end() ? nullptr : &*it;
}

const OptionSyntax* findShortOption(const std::vector<OptionSyntax>& options, char letter) {
    const auto it =
        std::find_if(options.begin(), options.end(),
                     [letter](const OptionSyntax& option) { return option.shortName == letter; });
    return it == options.end() ? nullptr : &*it;
}

}  // namespace

long long parseNumber(const std::string& what, const std::string& text, long long low,
                      long long high) {
    const std::string range = std::to_string(low) + " to " + std::to_string(high);
    if (text.empty() || text.find_first_not_of("+-0123456789") != std::string::npos) {
        throw UsageError(what + " needs a whole number from " + range + ", got \"" + text + "\"");
    }
    errno = 0;
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || number < low || number > high) {
        throw UsageError(what + " needs a whole number from " + range + ", got \"" + text + "\"");
    }
    return number;
}

Arguments Arguments::parse(const CommandSyntax& syntax, const std::vector<std::string>& args) {
    const std::vector<OptionSyntax> options = syntax.allOptions();
    Arguments parsed;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        if (optionsEnded || word.size() < 2 || word[0] != '-') {
            parsed.positional_.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        const OptionSyntax* option = nullptr;
        std::string inlineValue;
        bool hasInlineValue = false;
        if (word[1] == '-') {
            std::string name = word.substr(2);
            const auto equals = name.find('=');
            if (equals != std::string::npos) {
                inlineValue = name.substr(equals + 1);
                hasInlineValue = true;
                name.resize(equals);
            }
            option = findOption(options, name);
        } else if (word.size() == 2) {
            option = findShortOption(options, word[1]);
        }
        if (!option) {
            throw UsageError("unknown option " + word + " for \"" + syntax.name + "\"");
        }
        std::vector<std::string>& values = parsed.options_[option->name];
        if (!values.empty() && !option->repeatable) {
            throw UsageError("--" + option->name + " is given more than once");
        }
        if (option->valueName.empty()) {
            if (hasInlineValue) {
                throw UsageError("--" + option->name + " takes no value");
            }
            values.emplace_back();
        } else if (hasInlineValue) {
            values.push_back(inlineValue);
        } else if (i + 1 < args.size()) {
            values.push_back(args[++i]);
        } else {
            throw UsageError("--" + option->name + " needs a value (" + option->valueName + ")");
        }
    }
    if (parsed.has("help")) {
        return parsed;
    }
    const std::size_t count = parsed.positional_.size();
    if (count < syntax.minPositional) {
        throw UsageError("\"" + syntax.name + "\" needs " + syntax.synopsis);
    }
    if (count > syntax.maxPositional) {
        throw UsageError("unexpected argument \"" + parsed.positional_[syntax.maxPositional] +
                         "\" for \"" + syntax.name + "\"");
    }
    return parsed;
}

bool Arguments::has(const std::string& name) const {
    return options_.count(name) != 0;
}

std::string Arguments::value(const std::string& name, const std::string& fallback) const {
    const auto it = options_.find(name);
    return it == options_.end() ? fallback : it->second.back();
}

std::vector<std::string> Arguments::values(const std::string& name) const {
    const auto it = options_.find(name);
    return it == options_.end() ? std::vector<std::string>() : it->second;
}

long long Arguments::number(const std::string& name, long long fallback, long long low,
                            long long high) const {
    return has(name) ? parseNumber("--" + name, value(name), low, high) : fallback;
}

}  // namespace tolva
