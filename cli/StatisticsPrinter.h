// StatisticsPrinter: `--stats SECONDS` of the commands that keep an API object running
// (listen, register). Prints the object's statistics every SECONDS while the command runs and
// once more at its end: with --json as one line {"statistics": <document>} on standard output
// (beside the command's own JSON lines), otherwise as one line of text on standard error, so
// that standard output keeps only the command's results.
#pragma once

#include "Arguments.h"

#include <TolvaCore/ApiStatistics.h>
#include <TolvaCore/QxPlatformApi.h>

#include <memory>
#include <string>

namespace tolva {

// One line of text: "statistics: posts 3 sent, 0 failed; polls ...".
std::string statisticsLine(const Varkel::Tolva::Rest::ApiStatistics& stats);

class StatisticsPrinter {
  public:
    // Reads --stats (0 or absent: no statistics) and --json. Throws UsageError for a --stats
    // that is not a number of seconds.
    explicit StatisticsPrinter(const Arguments& arguments);

    // Starts the periodic report of `api` (when --stats was given).
    void start(const std::shared_ptr<Varkel::Tolva::Rest::QxPlatformApi>& api) const;

    // Ends the periodic report and prints the final snapshot (when --stats was given).
    void finish(Varkel::Tolva::Rest::QxPlatformApi& api) const;

    // Prints one snapshot as the options say.
    void print(const Varkel::Tolva::Rest::ApiStatistics& stats) const;

  private:
    long long seconds_ = 0;
    bool json_ = false;
};

}  // namespace tolva
