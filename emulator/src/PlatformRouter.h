// Maps platform requests (identity, notifications, discovery) to their handlers.
#pragma once

#include <string>

#include "EmulatorCore.h"
#include "HttpExchange.h"

namespace qxpemu {

// What to do with a request: answer `reply` now, or park a long poll on `mailboxId` for
// up to `waitSeconds`.
struct RouteOutcome {
    HttpReply reply;
    bool longPoll = false;
    std::string mailboxId;
    int waitSeconds = 0;
};

class PlatformRouter {
  public:
    explicit PlatformRouter(EmulatorCore& core) : core_(core) {}

    RouteOutcome route(const IncomingRequest& request);

  private:
    HttpReply postNotification(const IncomingRequest& request);
    HttpReply createMailbox(const IncomingRequest& request);
    HttpReply changeSubscription(const std::string& id, const std::string& encodedTopic,
                                 bool subscribe);
    HttpReply deleteMailbox(const std::string& encodedSecret);
    RouteOutcome poll(const IncomingRequest& request, const std::string& encodedId);
    HttpReply registerService(const IncomingRequest& request);
    HttpReply serviceCall(const std::string& encodedId, const std::string& encodedSecret,
                          bool heartbeat);

    EmulatorCore& core_;
};

}  // namespace qxpemu
