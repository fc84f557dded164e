// The control interface under "/_emulator/": recorded requests, fault rules, state, token
// lifetime, key rotation and reset, as JSON over HTTP. Needs no token.
#pragma once

#include "EmulatorCore.h"
#include "HttpExchange.h"

namespace qxpemu {

class ControlApi {
  public:
    static constexpr const char* kPrefix = "/_emulator/";

    explicit ControlApi(EmulatorCore& core) : core_(core) {}

    HttpReply handle(const IncomingRequest& request);
    // GET "/": the dashboard page.
    HttpReply dashboardPage(const IncomingRequest& request);

    // JSON forms shared with the in-process API.
    static nlohmann::json toJson(const RecordedRequest& request);
    static nlohmann::json toJson(const FaultRule& rule);
    // Throws std::invalid_argument with a message for a 400 answer.
    static FaultRule faultFromJson(const nlohmann::json& value);

  private:
    EmulatorCore& core_;
};

}  // namespace qxpemu
