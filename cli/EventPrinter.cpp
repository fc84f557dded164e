#include "EventPrinter.h"

#include "Console.h"

#include <ZuCore/StringConversion.h>

#include <utility>

namespace tolva {

using Varkel::Tolva::Rest::ApiEvent;
using Varkel::Tolva::Rest::QxPlatformApi;

EventPrinter::EventPrinter(const Arguments& arguments) : json_(arguments.has("json")) {}

void EventPrinter::start(QxPlatformApi& api, Watcher watcher) const {
    // The events arrive on the library's own thread, one at a time and in order; Console
    // keeps their lines whole beside the command's own.
    const bool json = json_;
    api.setEventCallback([json, watcher = std::move(watcher)](const ApiEvent& event) {
        Console::err(line(event, json));
        if (watcher) {
            watcher(event);
        }
    });
}

std::string EventPrinter::line(const ApiEvent& event, bool json) {
    if (json) {
        return Varkel::Zu::narrow(event.toJson());
    }
    return "tolva: event " + Varkel::Zu::narrow(event.toText());
}

}  // namespace tolva
