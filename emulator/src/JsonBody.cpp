#include "JsonBody.h"

namespace qxpemu {
namespace {

constexpr int kMaxDepth = 64;

// Nesting depth of the brackets outside strings; parsing and destroying very deep documents
// is where JSON libraries recurse, so those are refused before parsing.
bool nestingWithinLimit(const std::string& body) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : body) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) {
                return false;
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return true;
}

}  // namespace

std::string parseJsonBody(const std::string& body, nlohmann::json& out) {
    if (body.empty()) {
        return "the request body must be JSON, got an empty body";
    }
    if (!nestingWithinLimit(body)) {
        return "JSON nested deeper than 64 levels";
    }
    try {
        out = nlohmann::json::parse(body);
    } catch (const nlohmann::json::parse_error& error) {
        return std::string("malformed JSON: ") + error.what();
    }
    return "";
}

std::string toJsonText(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string toJsonText(const nlohmann::ordered_json& value) {
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace qxpemu
