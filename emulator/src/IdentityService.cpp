#include "IdentityService.h"

#include <chrono>
#include <stdexcept>

#include "Text.h"

namespace qxpemu {
namespace {

constexpr char kDefaultScope[] = "platform cluster";

long long nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Parses an application/x-www-form-urlencoded body into `name` -> value ("+" is a blank).
bool formValue(const std::string& body, const std::string& name, std::string& value) {
    std::size_t start = 0;
    while (start <= body.size()) {
        std::size_t end = body.find('&', start);
        if (end == std::string::npos) {
            end = body.size();
        }
        std::string pair = body.substr(start, end - start);
        for (char& c : pair) {
            if (c == '+') {
                c = ' ';
            }
        }
        const auto equals = pair.find('=');
        const auto key = text::percentDecode(pair.substr(0, equals));
        if (key && *key == name) {
            const auto decoded =
                text::percentDecode(equals == std::string::npos ? "" : pair.substr(equals + 1));
            value = decoded ? *decoded : "";
            return true;
        }
        start = end + 1;
    }
    return false;
}

HttpReply oauthError(unsigned status, const std::string& error, const std::string& description) {
    HttpReply reply = HttpReply::json(
        status, nlohmann::json{{"error", error}, {"error_description", description}}.dump());
    if (status == 401) {
        reply.extraHeaders.emplace_back("WWW-Authenticate", "Basic realm=\"qxp-emulator\"");
    }
    return reply;
}

}  // namespace

IdentityService::IdentityService(KeyStore& keys, std::vector<ClientCredentials> clients,
                                 int lifetimeSeconds)
    : keys_(keys), clients_(std::move(clients)), lifetimeSeconds_(lifetimeSeconds) {}

std::string IdentityService::apiKeyOf(const ClientCredentials& client) {
    return text::base64Encode(client.clientId + ":" + client.secret);
}

void IdentityService::setIssuer(const std::string& issuer) {
    std::lock_guard<std::mutex> lock(issuerMutex_);
    issuer_ = issuer;
}

std::string IdentityService::issuer() const {
    std::lock_guard<std::mutex> lock(issuerMutex_);
    return issuer_;
}

const ClientCredentials* IdentityService::findClient(const std::string& clientId) const {
    for (const auto& client : clients_) {
        if (client.clientId == clientId) {
            return &client;
        }
    }
    return nullptr;
}

std::string IdentityService::issue(const std::string& clientId, const std::string& scope) const {
    const ClientCredentials* client = findClient(clientId);
    if (client == nullptr) {
        throw std::invalid_argument("unknown client " + clientId);
    }
    const long long issuedAt = nowSeconds();
    nlohmann::json scopes = nlohmann::json::array();
    std::size_t start = 0;
    while (start < scope.size()) {
        std::size_t end = scope.find(' ', start);
        if (end == std::string::npos) {
            end = scope.size();
        }
        if (end > start) {
            scopes.push_back(scope.substr(start, end - start));
        }
        start = end + 1;
    }
    nlohmann::json payload = {
        {"acc", client->account}, {"sub", client->clientId},      {"client_id", client->clientId},
        {"iss", issuer()},        {"scope", std::move(scopes)},   {"iat", issuedAt},
        {"nbf", issuedAt},        {"exp", issuedAt + lifetime()}, {"jti", text::randomUuid()}};
    ++issued_;
    return keys_.sign(std::move(payload));
}

HttpReply IdentityService::tokenRequest(const IncomingRequest& request) const {
    // Client authentication comes first, as an OAuth2 server does it: a bad client learns
    // nothing about the grant.
    const std::string authorization = request.header("Authorization");
    if (authorization.size() < 6 || !text::equalsIgnoreCase(authorization.substr(0, 6), "Basic ")) {
        return oauthError(401, "invalid_client", "Basic client authentication required");
    }
    const auto decoded = text::base64Decode(authorization.substr(6));
    const auto colon = decoded ? decoded->find(':') : std::string::npos;
    if (colon == std::string::npos) {
        return oauthError(401, "invalid_client", "malformed Basic credentials");
    }
    const ClientCredentials* client = findClient(decoded->substr(0, colon));
    if (client == nullptr || client->secret != decoded->substr(colon + 1)) {
        return oauthError(401, "invalid_client", "unknown client or wrong secret");
    }

    std::string grantType;
    if (!formValue(request.body, "grant_type", grantType)) {
        return oauthError(400, "invalid_request", "grant_type missing");
    }
    if (grantType != "client_credentials") {
        return oauthError(400, "unsupported_grant_type", "only client_credentials is supported");
    }
    std::string scope;
    if (!formValue(request.body, "scope", scope) || scope.empty()) {
        scope = kDefaultScope;
    }
    if (!text::isValidUtf8(scope)) {
        return oauthError(400, "invalid_scope", "scope is not valid UTF-8");
    }
    const std::string token = issue(client->clientId, scope);
    nlohmann::json answer = {{"access_token", token},
                             {"token_type", "Bearer"},
                             {"expires_in", lifetime()},
                             {"scope", scope}};
    HttpReply reply = HttpReply::json(200, answer.dump());
    reply.extraHeaders.emplace_back("Cache-Control", "no-store");
    return reply;
}

HttpReply IdentityService::keySetRequest() const {
    return HttpReply::json(200, keys_.keySet().dump());
}

std::string IdentityService::authorize(const IncomingRequest& request) const {
    const std::string authorization = request.header("Authorization");
    if (authorization.empty()) {
        return "missing bearer token";
    }
    if (authorization.size() < 7 ||
        !text::equalsIgnoreCase(authorization.substr(0, 7), "Bearer ")) {
        return "authorization is not a bearer token";
    }
    const std::string token = authorization.substr(7);
    if (token.empty()) {
        return "empty bearer token";
    }
    nlohmann::json claims;
    const std::string problem = keys_.verify(token, claims);
    if (!problem.empty()) {
        return problem;
    }
    const auto exp = claims.find("exp");
    if (exp == claims.end() || !exp->is_number()) {
        return "token has no expiry";
    }
    const long long now = nowSeconds();
    if (now > exp->get<long long>()) {
        return "token expired";
    }
    const auto nbf = claims.find("nbf");
    if (nbf != claims.end() && nbf->is_number() && now < nbf->get<long long>()) {
        return "token not yet valid";
    }
    return "";
}

}  // namespace qxpemu
