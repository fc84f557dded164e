// Reading a reply's body as JSON whatever JSON media type it is labelled with.
#pragma once

#include <cctype>
#include <string>

#include <cpprest/http_msg.h>
#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {

// Whether a Content-Type value names JSON: "application/json", any structured-syntax type
// "application/<name>+json" (a JSON Web Key Set is "application/jwk-set+json"), or one of the
// older JSON labels the HTTP library itself knows; parameters such as a charset are ignored.
inline bool isJsonMediaType(const std::string& contentType) {
    std::string type = contentType.substr(0, contentType.find(';'));
    const auto end = type.find_last_not_of(" \t");
    type.erase(end == std::string::npos ? 0 : end + 1);
    type.erase(0, type.find_first_not_of(" \t"));
    for (char& c : type) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (type == "application/json" || type == "text/json" || type == "text/x-json" ||
        type == "application/x-json" || type == "text/javascript" || type == "text/x-javascript" ||
        type == "application/javascript" || type == "application/x-javascript") {
        return true;
    }
    const std::string prefix = "application/";
    const std::string suffix = "+json";
    return type.size() > prefix.size() + suffix.size() &&
           type.compare(0, prefix.size(), prefix) == 0 &&
           type.compare(type.size() - suffix.size(), suffix.size(), suffix) == 0 &&
           type.find('/', prefix.size()) == std::string::npos;
}

// The body parsed as JSON when the reply says it is JSON (see isJsonMediaType); a reply
// labelled with another type fails as the HTTP library fails it.
inline pplx::task<web::json::value> extractJsonReply(web::http::http_response& response) {
    return response.extract_json(isJsonMediaType(response.headers().content_type()));
}

}  // namespace Tolva
}  // namespace Varkel
