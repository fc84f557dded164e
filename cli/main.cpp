// tolva: everyday work against a QX Platform from the command line (tokens, notifications,
// mailboxes, request/reply, services, token verification) and a tour of the library, against
// an emulator started in-process or a given platform. Built on the library's public API only.
#include "Arguments.h"
#include "Commands.h"
#include "Console.h"
#include "PlatformConnection.h"
#include "StopSignal.h"
#include "UsageError.h"

#include <ZuCore/Logger.h>

#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

namespace {

using namespace tolva;

std::string overview() {
    std::string text =
        "Usage: tolva COMMAND [arguments] [options]\n"
        "\n"
        "Works against the platform named by --url and --credentials (or --credentials-file),\n"
        "or else by the QX_PLATFORM_CONFIG environment variable:\n"
        "  {\"url\": \"http://...\", \"logging\": {\"credentials\": \"<API key>\"}}\n"
        "\n"
        "Commands:\n";
    for (const auto& command : commands()) {
        std::string left = "  " + command.syntax.name;
        left.resize(12, ' ');
        text += left + command.syntax.summary + "\n";
    }
    text +=
        "\n"
        "\"tolva COMMAND --help\" describes a command. Results go to standard output (with\n"
        "--json, one JSON document per line), everything else to standard error. Exit status:\n"
        "0 success, 1 platform or verification failure, 2 usage error.\n";
    return text;
}

const Command* findCommand(const std::string& name) {
    for (const auto& command : commands()) {
        if (command.syntax.name == name) {
            return &command;
        }
    }
    return nullptr;
}

// The library logs on standard error. By default the tool keeps it quiet and reports failures
// in its own words; -v shows the library's records from debug level on. ZU_LOG_LEVEL and
// ZU_LOG_STDERR, when set, are the user's and are left alone.
void configureLogging(bool verbose) {
    using Varkel::Zu::Logger;
    if (verbose) {
        Logger::setGlobalLevel(Logger::getDebugLevel());
        Logger::setStderrEnabled(true);
        return;
    }
    if (!std::getenv("ZU_LOG_LEVEL")) {
        Logger::setGlobalLevel(Logger::getErrorLevel());
    }
    if (!std::getenv("ZU_LOG_STDERR")) {
        Logger::setStderrEnabled(false);
    }
}

}  // namespace

int main(int argc, char** argv) {
    StopSignal::install();
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.empty() || words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        if (words.size() > 1 && findCommand(words[1])) {
            Console::out(findCommand(words[1])->syntax.helpText());
            return kExitOk;
        }
        (words.empty() ? Console::err : Console::out)(overview());
        return words.empty() ? kExitUsage : kExitOk;
    }
    const Command* command = findCommand(words[0]);
    if (!command) {
        Console::err("tolva: unknown command \"" + words[0] + "\"\n\n" + overview());
        return kExitUsage;
    }
    try {
        const Arguments arguments = Arguments::parse(
            command->syntax, std::vector<std::string>(words.begin() + 1, words.end()));
        if (arguments.has("help")) {
            Console::out(command->syntax.helpText());
            return kExitOk;
        }
        const bool verbose = arguments.has("verbose");
        Console::claimStandardOutput(verbose);
        configureLogging(verbose);
        PlatformConnection::watchLibraryErrors();
        return command->run(arguments);
    } catch (const UsageError& e) {
        Console::err("tolva " + command->syntax.name + ": " + e.what() + "\n(\"tolva " +
                     command->syntax.name + " --help\" shows the usage)");
        return kExitUsage;
    } catch (const std::exception& e) {
        Console::err("tolva " + command->syntax.name + ": " + e.what());
        return kExitFailure;
    }
}
