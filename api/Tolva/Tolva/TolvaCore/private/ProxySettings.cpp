#include "ProxySettings.h"

#include <ZuCore/Env.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <arpa/inet.h>

namespace Varkel {
namespace Tolva {
namespace ProxySettings {

namespace {

std::string variable(const char* name) {
    return Varkel::Zu::narrow(Varkel::Zu::Env::getVar(Varkel::Zu::widen(std::string(name)), L""));
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string withoutBrackets(const std::string& host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        return host.substr(1, host.size() - 2);
    }
    return host;
}

// An address in network order: 4 bytes for IPv4, 16 for IPv6; empty for a name.
std::vector<unsigned char> addressBytes(const std::string& text) {
    std::array<unsigned char, 16> bytes{};
    if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        return std::vector<unsigned char>(bytes.begin(), bytes.begin() + 4);
    }
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        return std::vector<unsigned char>(bytes.begin(), bytes.end());
    }
    return {};
}

bool sameLeadingBits(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b,
                     unsigned bits) {
    if (a.size() != b.size() || bits > a.size() * 8) {
        return false;
    }
    for (unsigned i = 0; i < bits; ++i) {
        const unsigned mask = 0x80u >> (i % 8);
        if ((a[i / 8] & mask) != (b[i / 8] & mask)) {
            return false;
        }
    }
    return true;
}

// One entry of the list against the host (both lower case, host without brackets).
bool entryMatches(std::string entry, const std::string& host) {
    if (entry == "*") {
        return true;
    }
    const auto slash = entry.find('/');
    std::string prefixBits;
    if (slash != std::string::npos) {
        prefixBits = entry.substr(slash + 1);
        entry = entry.substr(0, slash);
    }
    entry = withoutBrackets(entry);
    // A port after a name or an IPv4 address ("host:8080") is ignored; an IPv6 address has
    // several colons and keeps them.
    if (std::count(entry.begin(), entry.end(), ':') == 1) {
        entry = entry.substr(0, entry.find(':'));
    }
    const std::vector<unsigned char> entryAddress = addressBytes(entry);
    if (!entryAddress.empty()) {
        const std::vector<unsigned char> hostAddress = addressBytes(host);
        if (hostAddress.empty()) {
            return false;
        }
        unsigned bits = static_cast<unsigned>(entryAddress.size() * 8);
        if (!prefixBits.empty()) {
            if (prefixBits.size() > 3 ||
                !std::all_of(prefixBits.begin(), prefixBits.end(),
                             [](unsigned char c) { return std::isdigit(c) != 0; })) {
                return false;
            }
            bits = static_cast<unsigned>(std::stoul(prefixBits));
        }
        return sameLeadingBits(entryAddress, hostAddress, bits);
    }
    if (!prefixBits.empty()) {
        return false;  // a range needs an address
    }
    while (!entry.empty() && entry.front() == '.') {
        entry.erase(0, 1);
    }
    if (entry.empty()) {
        return false;
    }
    if (host == entry) {
        return true;
    }
    return host.size() > entry.size() &&
           host.compare(host.size() - entry.size(), entry.size(), entry) == 0 &&
           host[host.size() - entry.size() - 1] == '.';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

std::string percentDecoded(const std::string& text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int high = hexValue(text[i + 1]);
            const int low = hexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                decoded += static_cast<char>(high * 16 + low);
                i += 2;
                continue;
            }
        }
        decoded += text[i];
    }
    return decoded;
}

[[noreturn]] void refuse(const std::string& name, const std::string& why) {
    // Never the value itself: it may carry credentials, and callers log exception texts.
    throw web::uri_exception("The " + name + " value " + why);
}

Choice given(const std::string& name, const std::string& value) {
    std::string text = value;
    if (text.find("://") == std::string::npos) {
        text = "http://" + text;
    }
    web::uri parsed;
    try {
        parsed = web::uri(text);
    } catch (const web::uri_exception&) {
        refuse(name, "is not a valid URI.");
    }
    if (lowerCase(parsed.scheme()) != "http") {
        refuse(name, "names a proxy with a scheme other than http, which is not supported.");
    }
    Choice choice;
    choice.mode = Choice::Mode::Given;
    choice.variable = name;
    const std::string userInfo = parsed.user_info();
    if (!userInfo.empty()) {
        const auto colon = userInfo.find(':');
        const std::string user = percentDecoded(userInfo.substr(0, colon));
        const std::string password =
            colon == std::string::npos ? std::string() : percentDecoded(userInfo.substr(colon + 1));
        choice.credentials = web::credentials(user, password);
    }
    web::uri_builder bare;
    bare.set_scheme(parsed.scheme()).set_host(parsed.host());
    if (parsed.port() > 0) {
        bare.set_port(parsed.port());
    }
    choice.address = bare.to_uri();
    return choice;
}

}  // namespace

bool bypassed(const std::string& host, const std::string& noProxyList) {
    const std::string bareHost = lowerCase(withoutBrackets(host));
    std::string entry;
    for (std::size_t i = 0; i <= noProxyList.size(); ++i) {
        const char c = i < noProxyList.size() ? noProxyList[i] : ',';
        if (c == ',' || std::isspace(static_cast<unsigned char>(c)) != 0) {
            if (!entry.empty() && entryMatches(lowerCase(entry), bareHost)) {
                return true;
            }
            entry.clear();
            continue;
        }
        entry += c;
    }
    return false;
}

Choice forTarget(const web::uri& target) {
    std::string name = "http_proxy";
    std::string value;
    if (lowerCase(target.scheme()) == "https") {
        for (const char* candidate : {"https_proxy", "HTTPS_PROXY"}) {
            value = variable(candidate);
            if (!value.empty()) {
                name = candidate;
                break;
            }
        }
    }
    if (value.empty()) {
        value = variable("http_proxy");
    }
    if (value.empty()) {
        return Choice();
    }
    std::string noProxy = variable("no_proxy");
    if (noProxy.empty()) {
        noProxy = variable("NO_PROXY");
    }
    if (!noProxy.empty() && bypassed(target.host(), noProxy)) {
        Choice direct;
        direct.mode = Choice::Mode::Direct;
        return direct;
    }
    if (value == "auto") {
        Choice automatic;
        automatic.mode = Choice::Mode::AutoDiscovery;
        automatic.variable = name;
        return automatic;
    }
    return given(name, value);
}

std::string basicAuthorization(const web::credentials& credentials) {
    // The password is read back once per client (not per request), and the copy the HTTP
    // library hands out for it is freed here.
    std::unique_ptr<std::string> password(credentials._internal_decrypt().release());
    const std::string userPassword = credentials.username() + ":" + *password;
    std::fill(password->begin(), password->end(), '\0');
    const std::vector<unsigned char> bytes(userPassword.begin(), userPassword.end());
    return "Basic " + utility::conversions::to_base64(bytes);
}

web::web_proxy toWebProxy(const Choice& choice) {
    switch (choice.mode) {
        case Choice::Mode::SystemDefault:
            return web::web_proxy();
        case Choice::Mode::AutoDiscovery:
            return web::web_proxy(web::web_proxy::use_auto_discovery);
        case Choice::Mode::Direct:
            return web::web_proxy(web::web_proxy::disabled);
        case Choice::Mode::Given:
            break;
    }
    web::web_proxy proxy(*choice.address);
    if (choice.credentials) {
        proxy.set_credentials(*choice.credentials);
    }
    return proxy;
}

}  // namespace ProxySettings
}  // namespace Tolva
}  // namespace Varkel
