// The tool's subcommands: each has a syntax (options, help) and a function that runs it and
// returns the process's exit status.
#pragma once

#include "Arguments.h"
#include "CommandSyntax.h"

#include <vector>

namespace tolva {

// Exit statuses: success, a platform or verification failure, a usage error.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct Command {
    CommandSyntax syntax;
    int (*run)(const Arguments& arguments);
};

// Every subcommand, in the order the overview lists them.
const std::vector<Command>& commands();

int runToken(const Arguments& arguments);
int runPost(const Arguments& arguments);
int runListen(const Arguments& arguments);
int runRequest(const Arguments& arguments);
int runRegister(const Arguments& arguments);
int runVerify(const Arguments& arguments);
int runDemo(const Arguments& arguments);

}  // namespace tolva
