// Parsing of request bodies as JSON, with the checks that keep hostile input harmless.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace qxpemu {

// Parses `body` into `out`. Returns "" on success, else a message for a 400 answer
// (malformed JSON, invalid UTF-8, nesting deeper than 64 levels).
std::string parseJsonBody(const std::string& body, nlohmann::json& out);

// JSON text for answers; invalid UTF-8 in recorded data is replaced, never thrown on.
std::string toJsonText(const nlohmann::json& value);
std::string toJsonText(const nlohmann::ordered_json& value);

}  // namespace qxpemu
