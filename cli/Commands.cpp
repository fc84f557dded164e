#include "Commands.h"

#include "CommandSupport.h"

namespace tolva {

namespace {

// `options` followed by the options that choose how tokens are verified.
std::vector<OptionSyntax> withVerificationOptions(std::vector<OptionSyntax> options) {
    for (auto& option : verificationOptions()) {
        options.push_back(std::move(option));
    }
    return options;
}

}  // namespace

const std::vector<Command>& commands() {
    static const std::vector<Command> all = {
        {{"token", "", "Obtain an access token; print its account and expiry and verify it.",
          "The token is verified against the key set the platform serves with it. The token\n"
          "itself is printed only with --show-token. Exit status 1 when no token can be\n"
          "obtained or it does not verify; either way the reason is printed (an opaque token,\n"
          "a token without the \"acc\" claim, another \"typ\", an unknown key, expiry).",
          withVerificationOptions(
              {{"show-token", "", "also print the access token itself (a secret)"}}),
          0, 0},
         runToken},
        {{"post",
          "TOPIC CONTENT",
          "Post one notification.",
          "TOPIC is lower-cased by the library. CONTENT is sent as it is.",
          {{"ttl", "SECONDS", "time to live of the notification (default: none)"}},
          2,
          2},
         runPost},
        {{"listen",
          "TOPIC...",
          "Print every notification published on the topics, as it arrives.",
          "Creates a mailbox subscribed to every TOPIC and prints each notification on a line\n"
          "(\"topic: content\", or a JSON object with --json). Ends on Ctrl-C, after --count\n"
          "notifications or after --timeout seconds, and deletes the mailbox.\n"
          "The library rides out outages itself: when the platform loses the mailbox\n"
          "(restarted, say) it creates the same mailbox again with its subscriptions, and polls\n"
          "answered 401, 429, 502, 503 or 504 are tried again after a back-off. What it does is\n"
          "printed on standard error as it happens, one event a line (\"tolva: event ...\", or\n"
          "{\"event\": ...} with --json). A poll answer it cannot recover from stops the\n"
          "mailbox: the command then deletes it and ends. Exit status 1 when the mailbox was\n"
          "stopped or could not be deleted, or when --count was given and fewer notifications\n"
          "arrived.",
          {{"count", "N", "stop after N notifications"},
           {"timeout", "SECONDS", "stop after this many seconds"},
           {"stats", "SECONDS",
            "print the API object's statistics every SECONDS and at the end (standard error, "
            "or {\"statistics\": ...} lines with --json)"}},
          1,
          1000},
         runListen},
        {{"request",
          "TOPIC CONTENT",
          "Post a request and print the reply.",
          "Subscribes a temporary mailbox to --reply-topic, posts CONTENT on TOPIC and waits\n"
          "for the first notification with content on the reply topic. Exit status 1 when no\n"
          "reply arrives in time.",
          {{"reply-topic", "TOPIC", "topic the reply is expected on (required)"},
           {"timeout", "SECONDS", "how long to wait for the reply (default 10)"}},
          2,
          2},
         runRequest},
        {{"register",
          "",
          "Register a service and keep it alive with heartbeats until Ctrl-C.",
          "The library sends a heartbeat every 5 seconds. When the platform answers one with\n"
          "404 (it lost the registration, after a restart say), the library registers the\n"
          "service again and sends the heartbeats to the id the platform returns. What it does\n"
          "is printed on standard error as it happens, one event a line (\"tolva: event ...\",\n"
          "or {\"event\": ...} with --json). On Ctrl-C (or after --duration) the service is\n"
          "unregistered.",
          {{"type", "TYPE", "service type (required)"},
           {"instance", "NAME", "service instance (required)"},
           {"address", "ADDRESS", "address the service is reached at (required)"},
           {"port", "PORT", "port the service is reached at, 0 to 65535 (required)"},
           {"path-rule", "RULE", "reverse proxy path rule (required)"},
           {"tag", "TAG", "a service tag; repeat for more", true},
           {"health", "STATE", "OK (default), Warning or Error"},
           {"health-text", "TEXT", "text that goes with --health"},
           {"duration", "SECONDS", "unregister after this many seconds instead of on Ctrl-C"},
           {"stats", "SECONDS",
            "print the API object's statistics every SECONDS and at the end (standard error, "
            "or {\"statistics\": ...} lines with --json)"}},
          0,
          0},
         runRegister},
        {{"verify", "TOKEN", "Verify a platform-issued JWT and print the result and its claims.",
          "TOKEN \"-\" reads the token from standard input, so that it need not sit on a\n"
          "command line. The key set is read from --jwks or, by default, fetched from the\n"
          "platform. Exit status 1 when the token does not verify, with the reason. A token\n"
          "that verifies but carries no \"acc\" claim is reported on standard error: the\n"
          "library cannot take the platform account from it.",
          withVerificationOptions(
              {{"jwks", "FILE", "key set (JSON Web Key Set) to verify against"},
               {"from-platform", "", "use the key set the platform serves (the default)"}}),
          1, 1},
         runVerify},
        {{"demo",
          "",
          "Tour the whole library, against a built-in emulator or a given platform.",
          "Token, verification, a service with heartbeats, a mailbox and a listener, posting\n"
          "and receiving, request and reply answered by a second API object, unregistering\n"
          "and deleting; each step with its timing, then a summary. Without a platform the\n"
          "tour starts an emulator inside the tool; with --tls that emulator serves HTTPS with\n"
          "a certificate signed by a CA it makes, and the tour trusts that CA.\n"
          "With --url and --credentials (or --credentials-file, or QX_PLATFORM_CONFIG) the\n"
          "same tour runs against that platform. A step the platform does not allow is\n"
          "reported as one that cannot be done there, and the steps that need it are skipped;\n"
          "whatever fails, the tour deletes its mailboxes and unregisters its service there,\n"
          "and the summary says whether anything is left. Exit status 1 when a step failed.",
          {{"tls", "", "serve the built-in emulator over HTTPS"}},
          0,
          0},
         runDemo},
    };
    return all;
}

}  // namespace tolva
