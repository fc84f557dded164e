// EventPrinter: the events of the commands that keep an API object running (listen,
// register). Such an object recovers from ordinary outages itself (resilient recovery: a
// platform that lost a mailbox or a service, a proxy's 502 or 504, a failing token renewal)
// and tells what happened as it happens, each event as one line on standard error:
// "tolva: event <text>", or with --json the event's JSON document {"event": ...}. Standard
// output keeps only the command's results.
#pragma once

#include "Arguments.h"

#include <TolvaCore/ApiEvent.h>
#include <TolvaCore/QxPlatformApi.h>

#include <functional>
#include <string>

namespace tolva {

class EventPrinter {
  public:
    // What a command does with an event besides printing it; runs on the library's event
    // thread, after the line is printed.
    using Watcher = std::function<void(const Varkel::Tolva::Rest::ApiEvent& event)>;

    // Reads --json.
    explicit EventPrinter(const Arguments& arguments);

    // Prints every event of `api` from now on and hands it to `watcher` (when set). Neither
    // the printing nor `watcher` may hold `api`: the callback lives as long as the object.
    void start(Varkel::Tolva::Rest::QxPlatformApi& api, Watcher watcher = nullptr) const;

    // The line printed for `event`.
    static std::string line(const Varkel::Tolva::Rest::ApiEvent& event, bool json);

  private:
    bool json_ = false;
};

}  // namespace tolva
